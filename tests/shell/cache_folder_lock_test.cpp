// The cache folder's lock between processes (two open descriptions of the lock file conflict as
// two processes would), and the one report a service keeps.
#include "shell/cache_folder_lock.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "shell/cache_progress.h"

namespace fontrix {
namespace {

namespace fs = std::filesystem;

TEST(CacheFolderLock, ReadersShareWritersWaitThenGiveUpSayingWhy) {
  const fs::path dir = fs::temp_directory_path() / "fontrix-lock-test";
  fs::remove_all(dir);
  fs::create_directories(dir);
  {
    CacheFolderLock reader(dir.string(), CacheFolderLock::kShared);
    CacheFolderLock other_reader(dir.string(), CacheFolderLock::kShared, 0.1);
    EXPECT_TRUE(reader.Held() && other_reader.Held());
    CacheFolderLock writer(dir.string(), CacheFolderLock::kExclusive, 0.1);
    EXPECT_FALSE(writer.Held());
    EXPECT_EQ(writer.Error(), "another process has held " + (dir / "fontrix.lock").string() + " for 0 s");
  }
  {
    CacheFolderLock writer(dir.string(), CacheFolderLock::kExclusive, 0.1);
    ASSERT_TRUE(writer.Held());
    EXPECT_FALSE(CacheFolderLock(dir.string(), CacheFolderLock::kShared, 0.1).Held());
  }
  EXPECT_TRUE(CacheFolderLock(dir.string(), CacheFolderLock::kExclusive, 0.1).Held());  // released
  const CacheFolderLock nowhere((dir / "missing").string(), CacheFolderLock::kExclusive, 0.1);
  EXPECT_FALSE(nowhere.Held());
  EXPECT_NE(nowhere.Error().find("No such file or directory"), std::string::npos) << nowhere.Error();
  EXPECT_EQ(CacheFolderLock::FolderOf("/a/b/NQ_sim_fea_sys.cch"), "/a/b");
  fs::remove_all(dir);
}

TEST(CacheProgress, AWarningNeverHidesAFailure) {
  CacheProgress progress;
  EXPECT_EQ(progress.LastReport().first, CacheProgress::kNothing);
  progress.Report(CacheProgress::kWarning, "cache rebuilt");
  progress.Report(CacheProgress::kFailure, "model damaged");
  progress.Report(CacheProgress::kWarning, "cache not saved");
  EXPECT_EQ(progress.LastReport(), std::make_pair(CacheProgress::kFailure, std::string("model damaged")));
}

}  // namespace
}  // namespace fontrix
