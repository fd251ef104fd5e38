// The similarity cache over generated files and fake fonts: matching, computing, storing,
// saving, and the rules of the similar-font queries.
#include "similarity/font_similar_cache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "shell/cache_folder_lock.h"
#include "tests/similarity/similarity_fixtures.h"
#include "tests/support/fake_font_access.h"

namespace fontrix {
namespace {

namespace fs = std::filesystem;
using hostglue::FakeFontAccess;
using testing::AxisVector;
using testing::WritePair;

class SimilarCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir = fs::temp_directory_path() /
          ("fontrix-simcache-" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
    fs::remove_all(dir);
    fs::create_directories(dir);
    paths = {p("NQ_sim_model.dnm"),
             p("NQ_sim_fea_fs.bin"),
             p("NQ_sim_meta_fs.bin"),
             p("NQ_sim_fea_sys.cch"),
             p("NQ_sim_meta_sys.cch"),
             p("NQ_sim_debug_info.txt"),
             "",
             "",
             ""};
    SetSimilarityPaths(paths);
    deepnet::deepnet_save_model(paths.model, testing::MakeTestNetwork());
    // Cloud fonts along axes 0..1863 (mod 384), identifiers of 7 characters.
    WritePair(
        paths.computedMeta, paths.computedFeature, 1864,
        [](size_t i) { return "c" + std::to_string(1000000 + i).substr(1); },
        [](size_t i) { return "Cloud" + std::to_string(i); }, [](size_t i) { return AxisVector(i); });
    FontSimilarCache::SetFontAccess(&fonts);
    FontSimilarCache::Terminate();
  }
  void TearDown() override {
    FontSimilarCache::Terminate();
    FontSimilarCache::SetFontAccess(nullptr);
    fs::remove_all(dir);
  }
  std::string p(const char* name) { return (dir / name).string(); }
  std::shared_ptr<FontSimilarCache> Loaded() {
    FontSimilarCache::Init();
    return FontSimilarCache::Instance();
  }
  QVFontHandle Font(const std::string& name, double widthScale = 1.0) {
    return fonts.Add(FakeFontAccess::LatinFont(name, widthScale));
  }

  FakeFontAccess fonts;
  SimilarityPaths paths;
  fs::path dir;
};

TEST_F(SimilarCacheTest, UpdateMatchesByNameComputesTheRestAndSavesOnTermination) {
  // Alpha is already in the cache file; its vector must survive untouched.
  WritePair(
      paths.cachedMeta, paths.cachedFeature, 1, [](size_t) { return std::string("0"); },
      [](size_t) { return std::string("Alpha-Regular"); }, [](size_t) { return AxisVector(7); }, "0");
  const QVFontHandle alpha = Font("Alpha-Regular"), beta = Font("Beta-Bold"), gamma = Font("Gamma-Regular"),
                     delta = Font("Delta-Regular");
  fonts.Get(gamma).usable = false;    // left out before matching
  fonts.Get(delta).textHeight = 0.5;  // 100 rows at size 200: cannot be drawn tall enough
  auto cache = Loaded();
  ASSERT_EQ(cache->Size(), 1865u);
  EXPECT_TRUE(cache->Update({alpha, beta, gamma, delta}, 1));
  EXPECT_EQ(cache->Size(), 1867u);
  EXPECT_EQ(cache->Entry(1864).first, AxisVector(7));
  EXPECT_EQ(cache->Entry(1865).second, kStatusInstalled);  // Beta
  EXPECT_EQ(cache->Entry(1866).second, kStatusUnusable);   // Delta: stored as zeros, never tried again
  EXPECT_EQ(cache->Progress().matched.load(), 1u);
  EXPECT_EQ(cache->Progress().computed.load(), 1u);
  EXPECT_EQ(cache->Progress().unusable.load(), 1u);
  EXPECT_EQ(cache->InstalledFonts(), (std::vector<std::string>{"Alpha-Regular", "Beta-Bold", "Delta-Regular"}));
  EXPECT_EQ(cache->UnusableFonts(), std::vector<std::string>{"Delta-Regular"});  // named, for fonts --all

  EXPECT_FALSE(cache->Update({alpha, beta, delta}, 1));  // same generation: matched again, nothing new
  EXPECT_EQ(cache->Size(), 1867u);
  EXPECT_FALSE(cache->Update({Font("Epsilon-Regular")}, 0));  // an older generation does nothing
  EXPECT_EQ(cache->Size(), 1867u);

  FontSimilarCache::Terminate();  // saves the two new entries
  auto reloaded = Loaded();
  ASSERT_EQ(reloaded->Size(), 1867u);
  EXPECT_EQ(reloaded->Entry(1866).second, kStatusUnusable);
  EXPECT_FALSE(reloaded->Update({alpha, beta, delta}, 2));  // all matched by name
  EXPECT_EQ(reloaded->Size(), 1867u);
  EXPECT_EQ(reloaded->UnusableFonts(), std::vector<std::string>{"Delta-Regular"});  // also when read from the files
  EXPECT_FALSE(reloaded->Update({alpha, beta}, 3));  // no longer installed: no longer named
  EXPECT_TRUE(reloaded->UnusableFonts().empty());
}

// A save that outlasts a reader's wait (a slow disk, a stopped process): the reader reads what
// is consistent and changes nothing; its own save, once it has the lock, appends only what the
// files lack, so every vector stays under its own name.
TEST_F(SimilarCacheTest, AReaderThatWaitedInVainNeverCutsAWritersSave) {
  WritePair(
      paths.cachedMeta, paths.cachedFeature, 2, [](size_t) { return std::string("0"); },
      [](size_t i) { return i ? std::string("Beta-Bold") : std::string("Alpha-Regular"); },
      [](size_t i) { return AxisVector(7 + i); }, "0");
  const std::vector<float> writers = AxisVector(11);
  auto writer = std::make_unique<CacheFolderLock>(dir.string(), CacheFolderLock::kExclusive);
  ASSERT_TRUE(writer->Held());
  // The writer has renamed its sums into place and written half of its entry's meta lines.
  std::ofstream(CacheSumsPath(paths.cachedMeta), std::ios::app)
      << SumText(EntrySum("Writer-Bold", writers.data())) << '\n';
  std::ofstream(paths.cachedMeta, std::ios::app) << "0\n0\n0\n";
  const auto sizes = [&] {
    return std::make_pair(fs::file_size(paths.cachedMeta), fs::file_size(paths.cachedFeature));
  };
  const auto before = sizes();
  SetCacheFolderWait(0.3);
  auto cache = Loaded();
  EXPECT_EQ(cache->Size(), 1866u);
  EXPECT_EQ(sizes(), before);
  EXPECT_EQ(cache->Progress().LastReport().first, CacheProgress::kWarning);

  // The writer finishes and lets go; the reader computes what it did not read, and saves.
  std::ofstream(paths.cachedMeta, std::ios::app) << "Writer-Bold\nuserFamily\nuserSubFamily\n";
  std::ofstream(paths.cachedFeature, std::ios::app | std::ios::binary)
      .write(reinterpret_cast<const char*>(writers.data()), kFeatureRecordBytes);
  writer.reset();
  EXPECT_TRUE(cache->Update({Font("Alpha-Regular"), Font("Writer-Bold"), Font("Gamma-Regular")}, 1));
  FontSimilarCache::Terminate();
  SetCacheFolderWait(60);

  SimilarityTable files;
  ASSERT_EQ(files.Load(paths.computedMeta, paths.computedFeature, paths.cachedMeta, paths.cachedFeature, paths.model),
            kLoadOk);
  EXPECT_EQ(files.note, "");
  ASSERT_EQ(files.Size(), 1868u);
  EXPECT_EQ(std::vector<std::string>(files.columns[kFieldName].begin() + 1864, files.columns[kFieldName].end()),
            (std::vector<std::string>{"Alpha-Regular", "Beta-Bold", "Writer-Bold", "Gamma-Regular"}));
  EXPECT_EQ(files.FeatureVector(1864), AxisVector(7));
  EXPECT_EQ(files.FeatureVector(1866), writers);
}

// While another process holds the folder, a service says whom it waits for, and stops saying
// so when the wait ends.
TEST_F(SimilarCacheTest, AWaitIsSaidWhileItLasts) {
  auto writer = std::make_unique<CacheFolderLock>(dir.string(), CacheFolderLock::kExclusive);
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    writer.reset();
  });
  auto cache = FontSimilarCache::GetOrCreate();
  std::pair<CacheProgress::Severity, std::string> said;
  std::thread load([&] { FontSimilarCache::Init(); });
  for (int i = 0; i < 100 && said.first != CacheProgress::kWaiting; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    said = cache->Progress().LastReport();
  }
  load.join();
  release.join();
  EXPECT_EQ(said, std::make_pair(CacheProgress::kWaiting,
                                 "waiting for another fontrix to finish with the cache folder " + dir.string()));
  EXPECT_EQ(cache->Progress().LastReport().first, CacheProgress::kNothing);
  EXPECT_EQ(cache->Size(), 1864u);
}

class QueryTest : public SimilarCacheTest {
 protected:
  // 100 installed fonts F0..F99 in the cache, vector i along axis 400 + i; two more entries:
  // one for a font no longer installed, one unusable.
  void SetUp() override {
    SimilarCacheTest::SetUp();
    WritePair(
        paths.cachedMeta, paths.cachedFeature, 102, [](size_t) { return std::string("0"); },
        [](size_t i) {
          return i < 100 ? "F" + std::to_string(i) : i == 100 ? std::string("Gone") : std::string("Zero");
        },
        [](size_t i) { return i == 101 ? std::vector<float>(kFeatureDim, 0.0f) : AxisVector(i, 0.5f); }, "0");
    for (int i = 0; i < 100; ++i) installed.push_back(Font("F" + std::to_string(i)));
    installed.push_back(Font("Zero"));
    cache = Loaded();
    cache->Update(installed, 1);
  }
  std::vector<QVFontHandle> installed;
  std::shared_ptr<FontSimilarCache> cache;
};

TEST_F(QueryTest, SimilarFontsAreInstalledBestFirstWithoutTheQueryAndCapped) {
  const auto result = cache->GetSimilarFonts("F3");
  ASSERT_EQ(result.size(), 80u);
  EXPECT_TRUE(std::is_sorted(result.begin(), result.end(), [](auto& a, auto& b) { return a.second > b.second; }));
  for (const auto& [name, score] : result) {
    EXPECT_NE(name, "F3");
    EXPECT_NE(name.rfind("Cloud", 0), 0u) << "cloud fonts are not installed";
    EXPECT_NE(name, "Zero");
    EXPECT_LE(score, 2.0 + 1e-6);
  }
  // Unknown, and unusable, fonts answer with themselves alone.
  EXPECT_EQ(cache->GetSimilarFonts("Nobody"), (std::vector<std::pair<std::string, double>>{{"Nobody", 1.0}}));
  EXPECT_EQ(cache->GetSimilarFonts("Zero"), (std::vector<std::pair<std::string, double>>{{"Zero", 1.0}}));
  EXPECT_EQ(cache->GetSimilarFontNames("F3").size(), 80u);
}

TEST_F(QueryTest, FontSetUsesTheFirstFiveAndShowsCloudButNotUninstalledEntries) {
  const std::vector<int32_t> seven = {0, 1, 2, 3, 4, 5, 6};
  const std::vector<float> weights(7, 1.0f);
  const auto ranked = cache->GetSimilarToFontSet(seven, weights);
  std::vector<float> five(kFeatureDim, 0.0f);
  for (int i = 0; i < 5; ++i)
    for (size_t k = 0; k < kFeatureDim; ++k) five[k] += AxisVector(size_t(i), 0.5f)[k];
  const auto expected = cache->RankByVector(-1, five);
  ASSERT_EQ(ranked.size(), expected.size());
  EXPECT_FLOAT_EQ(ranked.front().score, expected.front().score);
  bool cloud = false;
  for (const auto& r : ranked) {
    EXPECT_NE(r.name, "Gone");  // computed here for a font that is gone
    EXPECT_NE(r.status, kStatusUnusable);
    if (r.fontIndex == -1) {
      cloud = true;
      EXPECT_EQ(r.fontServerId.size(), 7u);
      EXPECT_EQ(r.name.rfind("Cloud", 0), 0u);
    }
  }
  EXPECT_TRUE(cloud);
}

// A face the shipped table knows but the machine may lack: the installed fonts nearest its own
// vector, never the face itself, and nothing for a name the shipped table does not hold.
TEST_F(QueryTest, ShippedFacesAnswerWithInstalledFontsNearestTheirVector) {
  installed.push_back(Font("Cloud20"));  // installed, matched to its shipped entry by name
  cache->Update(installed, 2);
  const auto faces = cache->ShippedFaces();
  ASSERT_EQ(faces.size(), 1864u);
  EXPECT_EQ(faces[7].name, "Cloud7");
  EXPECT_EQ(faces[7].family, "Family 7");
  EXPECT_EQ(faces[7].style, "Regular");
  EXPECT_FALSE(faces[7].installed);
  EXPECT_TRUE(faces[20].installed);

  auto similar = [&](const char* face) {
    const auto result = cache->GetSimilarToShippedFace(face);
    EXPECT_TRUE(result) << face;
    if (!result) return std::vector<std::string>{};
    EXPECT_TRUE(std::is_sorted(result->begin(), result->end(), [](auto& a, auto& b) { return a.second > b.second; }));
    std::vector<std::string> names;
    for (const auto& [name, score] : *result) names.push_back(name);
    return names;
  };
  // Cloud 20 and Cloud 404 lie along axis 20 of each 384-wide half, as F20 does.
  const auto like20 = similar("Cloud20"), like404 = similar("Cloud404");
  ASSERT_EQ(like20.size(), 80u);
  EXPECT_EQ(like20.front(), "F20");
  EXPECT_EQ(std::count(like20.begin(), like20.end(), "Cloud20"), 0);
  ASSERT_EQ(like404.size(), 80u);
  EXPECT_EQ(like404.front(), "Cloud20");  // an installed shipped face is an answer like any other
  EXPECT_EQ(like404[1], "F20");
  for (const auto& name : like404) {
    EXPECT_TRUE(name.rfind("Cloud", 0) != 0 || name == "Cloud20") << name << " is not installed";
    EXPECT_NE(name, "Zero");
  }
  EXPECT_FALSE(cache->GetSimilarToShippedFace("F20"));  // installed, but not a shipped face
  EXPECT_FALSE(cache->GetSimilarToShippedFace("cloud7"));
  EXPECT_FALSE(cache->GetSimilarToShippedFace("Zero"));
}

// Queries from another thread while an update stores fonts (run under ThreadSanitizer too).
TEST_F(QueryTest, QueriesRunWhileAnUpdateStoresFonts) {
  std::vector<QVFontHandle> more = installed;
  for (int i = 0; i < 6; ++i) more.push_back(Font("New" + std::to_string(i), 0.8 + 0.05 * i));
  std::atomic<bool> done{false};
  std::thread queries([&] {
    while (!done.load()) {
      EXPECT_FALSE(cache->GetSimilarFonts("F1").empty());
      cache->GetSimilarToFontSet({0, 1}, {1.0f, 0.5f});
    }
  });
  EXPECT_TRUE(cache->Update(more, 2));
  done.store(true);
  queries.join();
  EXPECT_EQ(cache->Size(), 1864u + 102u + 6u);
  EXPECT_EQ(cache->GetSimilarFonts("New0").size(), 80u);
}

}  // namespace
}  // namespace fontrix
