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
  { std::ofstream(path) << "[{\"name\":"; }  // cannot be parsed: loads nothing, no error
  read.clear();
  EXPECT_NO_THROW(LoadFeatureCache(path, read));
  EXPECT_TRUE(read.empty());
  for (const char* wrong : {R"({"name":"A"})", R"([{"featureValue":1}])", R"([{"name":"A","featureValue":"1"}])"}) {
    { std::ofstream(path) << wrong; }
    EXPECT_THROW(LoadFeatureCache(path, read), FeatureCacheParameterError) << wrong;
  }
  fs::remove_all(dir);
}

}  // namespace
}  // namespace fontrix
