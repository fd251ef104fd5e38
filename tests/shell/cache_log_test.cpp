#include "shell/cache_log.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fontrix {
namespace {

std::string ReadAll(const std::filesystem::path& p) {
  std::ifstream in(p);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(CacheLog, LevelsFileLifetimeAndMissingFolder) {
  const auto dir = std::filesystem::temp_directory_path() / "fontrix-cache-log-test";
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  CacheLog log("test_log.txt");
  log.SetFolder(dir.string());
  const auto file = dir / "test_log.txt";

  log.SetLevel(0);  // the debug switch off: nothing is written, no file appears
  log.Info("start ", 1);
  log.Detail("font ", 2);
  EXPECT_FALSE(std::filesystem::exists(file));

  log.SetLevel(1);  // information only
  log.Info("Cache Saving Start : time :", 12.5);
  log.Detail("Processing Font throws");
  EXPECT_EQ(ReadAll(file), "Cache Saving Start : time :12.5\n");

  log.SetLevel(2);
  std::filesystem::remove(file);  // deleted while running: the next line creates it again
  log.Detail("Processing Font throws");
  EXPECT_EQ(ReadAll(file), "Processing Font throws\n");

  // A catch block's fixed line, then what was thrown, when it says anything.
  std::filesystem::remove(file);
  try {
    throw std::runtime_error("model data ends too early");
  } catch (...) {
    log.Exception(CacheLog::kInfo, "Similar Cache Loading throws exception");
  }
  try {
    throw 7;
  } catch (...) {
    log.Exception(CacheLog::kDetail, "Processing Font throws");
  }
  EXPECT_EQ(ReadAll(file),
            "Similar Cache Loading throws exception\n  because: model data ends too early\nProcessing Font throws\n");

  log.SetFolder((dir / "missing" / "folder").string());
  log.Info("lost");  // no folder: the line vanishes without an error
  EXPECT_FALSE(std::filesystem::exists(dir / "missing"));
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace fontrix
