// The feature cache file and the cache's update: records by name, only new fonts measured,
// atomic saves, the suite's view by class.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "classification/feature_cache_file.h"

namespace fontrix {
namespace {

namespace fs = std::filesystem;

TEST(FeatureCacheFile, RoundTripEmptyAndMalformedFiles) {
  const fs::path dir = fs::temp_directory_path() / "fontrix-feature-file";
  fs::remove_all(dir);
  fs::create_directories(dir);
  const std::string path = (dir / "FontFeatureCache.json").string();
  SaveFeatureCache(path, {});
  {
    std::ifstream in(path);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "[]");
  }
  SaveFeatureCache(path, {{"Alpha-Regular", 64}, {"Beta-Italic", 16}});
  std::vector<FeatureRecord> read;
  LoadFeatureCache(path, read);
  ASSERT_EQ(read.size(), 2u);
  EXPECT_EQ(read[1].name, "Beta-Italic");
  EXPECT_EQ(read[1].value, 16u);
  EXPECT_FALSE(fs::exists(path + ".tmp"));

  { std::ofstream(path) << R"([{"name":"A","featureValue":64}])"; }  // an integer number is read too
  read.clear();
  LoadFeatureCache(path, read);
  EXPECT_EQ(read.at(0).value, 64u);
  { std::ofstream(path) << "[{\"name\":"; }  // cannot be parsed: loads nothing and says so
  read.clear();
  EXPECT_FALSE(LoadFeatureCache(path, read));
  EXPECT_TRUE(read.empty());
  EXPECT_TRUE(LoadFeatureCache((dir / "absent.json").string(), read));  // no file: an empty cache
  // Not a bitmask of the eight classes (a value no module writes would give classes the font does
  // not have), or a font twice: the file has the wrong shape.
  for (const char* wrong :
       {R"({"name":"A"})", R"([{"featureValue":1}])", R"([{"name":"A","featureValue":"1"}])",
        R"([{"name":"A","featureValue":1e300}])", R"([{"name":"A","featureValue":-5}])",
        R"([{"name":"A","featureValue":4294967296}])", R"([{"name":"A","featureValue":4294967295}])",
        R"([{"name":"A","featureValue":-0.5}])", R"([{"name":"A","featureValue":2.5}])",
        R"([{"name":"A","featureValue":256}])", R"([{"name":"A","featureValue":1},{"name":"A","featureValue":2}])"}) {
    { std::ofstream(path) << wrong; }
    EXPECT_THROW(LoadFeatureCache(path, read), FeatureCacheParameterError) << wrong;
  }
  fs::remove_all(dir);
}

}  // namespace
}  // namespace fontrix

#include "classification/font_feature_cache.h"
#include "tests/support/fake_font_access.h"

namespace fontrix {
namespace {

// Only fonts without a record are measured; a font that throws gets no record and is measured
// again by the next update; records survive in the file.
TEST(FontFeatureCache, UpdatesMeasureNewFontsOnlyAndKeepThemInTheFile) {
  const fs::path dir = fs::temp_directory_path() / "fontrix-feature-cache";
  fs::remove_all(dir);
  fs::create_directories(dir);
  SaveFeatureCache((dir / "FontFeatureCache.json").string(), {{"Alpha-Regular", 64}});
  hostglue::FakeFontAccess fonts;
  const QVFontHandle alpha = fonts.Add(hostglue::FakeFontAccess::LatinFont("Alpha-Regular"));
  const QVFontHandle beta = fonts.Add(hostglue::FakeFontAccess::LatinFont("Beta-Bold"));
  const QVFontHandle gamma = fonts.Add(hostglue::FakeFontAccess::LatinFont("Gamma-Regular"));
  std::vector<std::string> measured;
  bool gamma_throws = true;
  FontFeatureCache::SetFontAccess(&fonts);
  FontFeatureCache::SetClassifier([&](hostglue::FontAccess& access, QVFontHandle font) -> int64_t {
    hostglue::FontNames n;
    access.Names(font, n);
    measured.push_back(n.uniqueName);
    if (n.uniqueName == "Gamma-Regular" && gamma_throws) throw std::runtime_error("broken font");
    return n.uniqueName == "Beta-Bold" ? 16 : -1;
  });
  FontFeatureCache::SetCacheFolder(dir.string());
  FontFeatureCache::Terminate();
  auto cache = FontFeatureCache::GetOrCreate();
  ASSERT_TRUE(cache->Load());
  EXPECT_TRUE(cache->Update({alpha, beta, gamma}, 2));
  EXPECT_EQ(measured, (std::vector<std::string>{"Beta-Bold", "Gamma-Regular"}));
  EXPECT_EQ(cache->Mask("Alpha-Regular"), 64);
  EXPECT_EQ(cache->Mask("Beta-Bold"), 16);
  EXPECT_EQ(cache->Mask("Gamma-Regular"), -1);  // threw: no record
  EXPECT_EQ(cache->GetFontsWithLabel(4), (std::vector<std::string>{"Beta-Bold"}));
  EXPECT_EQ(cache->GetFontsWithLabel(6), (std::vector<std::string>{"Alpha-Regular"}));

  measured.clear();
  EXPECT_FALSE(cache->Update({alpha, beta}, 1));  // an older generation does nothing
  EXPECT_TRUE(measured.empty());
  gamma_throws = false;
  EXPECT_TRUE(cache->Update({alpha, beta, gamma}, 2));  // the same generation tries Gamma again
  EXPECT_EQ(measured, (std::vector<std::string>{"Gamma-Regular"}));
  EXPECT_EQ(cache->Mask("Gamma-Regular"), 0);  // could not be measured: no class

  std::vector<FeatureRecord> saved;
  LoadFeatureCache((dir / "FontFeatureCache.json").string(), saved);
  EXPECT_EQ(saved.size(), 3u);
  // The init task may run after an update won the race to load: what that update measured stays,
  // even before it reached the file.
  fs::remove(dir / "FontFeatureCache.json");
  FontFeatureCache::Init();
  EXPECT_EQ(cache->Mask("Beta-Bold"), 16);
  FontFeatureCache::Terminate();
  FontFeatureCache::SetClassifier(nullptr);
  FontFeatureCache::SetFontAccess(nullptr);
  fs::remove_all(dir);
}

}  // namespace
}  // namespace fontrix
