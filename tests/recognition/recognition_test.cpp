// Recognition: the band, the line geometry, ranking and widening, the filters and the cap.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "recognition/font_recognition_cache.h"
#include "recognition/line_scoring.h"
#include "similarity/font_similar_cache.h"
#include "tests/recognition/recognition_fixtures.h"
#include "tests/support/fake_font_access.h"

namespace fontrix {
namespace {

namespace fs = std::filesystem;
using testing::AxisVector;
using testing::WritePair;

TEST(LineScoring, BandIsTheMedianOfClampedDetections) {
  EXPECT_EQ(BandFromDetections({{10, 50}, {-5, 60}, {12, 200}}, 100), (std::pair<uint32_t, uint32_t>{10, 60}));
  EXPECT_EQ(BandFromDetections({{70, 20}}, 100), (std::pair<uint32_t, uint32_t>{20, 70}));  // reversed: swapped
  EXPECT_EQ(BandFromDetections({{30, 30}}, 100), (std::pair<uint32_t, uint32_t>{0, 100}));  // empty: the whole raster
  EXPECT_EQ(BandFromDetections({}, 80), (std::pair<uint32_t, uint32_t>{0, 80}));
}

TEST(LineScoring, LocalisationFindsTheBandAtAnyWidth) {
  // Bright rows [0, 90) of 300 on black: the end detection is the share of bright rows.
  for (int32_t width : {120, 3000, 40000}) {
    GreyRaster raster{width, 300, std::vector<uint8_t>(size_t(width) * 300, 0)};
    std::fill(raster.pixels.begin(), raster.pixels.begin() + ptrdiff_t(90) * width, uint8_t(255));
    const auto [first, last] = LocaliseBand(testing::LocalisationNetwork(0.0f, 1.0f), raster);
    EXPECT_EQ(first, 0u) << width;
    EXPECT_NEAR(double(last), 90.0, 4.0) << width;  // a row of the 109 is 2.75 rows here
  }
  // Fractions become rows of the raster's own height; a start past the end is swapped.
  GreyRaster blank{500, 200, std::vector<uint8_t>(size_t(500) * 200, 0)};
  EXPECT_EQ(LocaliseBand(testing::LocalisationNetwork(0.25f, 0.0f), blank), (std::pair<uint32_t, uint32_t>{0, 50}));
  // Too narrow to be a line (16 columns at 109 rows), or past the widest: the whole raster.
  GreyRaster narrow{30, 200, std::vector<uint8_t>(size_t(30) * 200, 255)};
  EXPECT_EQ(LocaliseBand(testing::LocalisationNetwork(0.25f, 0.0f), narrow), (std::pair<uint32_t, uint32_t>{0, 200}));
  GreyRaster wide{70000, 109, std::vector<uint8_t>(size_t(70000) * 109, 255)};
  EXPECT_EQ(LocaliseBand(testing::LocalisationNetwork(0.25f, 0.0f), wide), (std::pair<uint32_t, uint32_t>{0, 109}));
}

TEST(LineScoring, RowsResampleAtBothScalesAndNarrowLinesTile) {
  const float row[5] = {0, 10, 20, 30, 40};
  EXPECT_EQ(ResampleRow(row, 5, 1.0), (std::vector<float>{0, 10, 20, 30, 40}));
  EXPECT_EQ(ResampleRow(row, 5, 1.5), (std::vector<float>{0, 15, 30}));  // x = 0, 1.5, 3.0

  // A 40-wide line: scale 1 tiles 3 times (120), crops at 0, 2, 5, 8, 11; scale 1.5 gives 26
  // values tiled 5 times (130), crops at 0, 5, 10, 15, 21.
  std::vector<float> line(size_t(40) * kLineHeight);
  for (int r = 0; r < kLineHeight; ++r)
    for (int x = 0; x < 40; ++x) line[size_t(r) * 40 + size_t(x)] = float(x);
  const auto crops = LineCrops(line, 40);
  ASSERT_EQ(crops.size(), size_t(10) * kLineHeight * kLineHeight);
  auto first = [&](int crop) { return crops[size_t(crop) * kLineHeight * kLineHeight] + 128.0f; };
  const float at1[5] = {0, 2, 5, 8, 11};
  for (int c = 0; c < 5; ++c) EXPECT_EQ(first(c), at1[c]) << c;
  const int at15[5] = {0, 5, 10, 15, 21};
  for (int c = 0; c < 5; ++c) EXPECT_FLOAT_EQ(first(5 + c), float((at15[c] % 26) * 1.5)) << c;

  GreyRaster tall{30, 218, std::vector<uint8_t>(30 * 218, 200)};
  int32_t width = 0;
  const auto resized = ToLineHeight(tall, width);
  EXPECT_EQ(width, 15);  // 30 × 109 / 218
  EXPECT_EQ(resized.size(), size_t(15) * kLineHeight);
  EXPECT_FLOAT_EQ(resized[100], 200.0f);
}

class RecognitionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // A folder a test: CTest runs the tests of this fixture side by side.
    dir = fs::temp_directory_path() /
          ("fontrix-recognition-" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
    fs::remove_all(dir);
    fs::create_directories(dir);
    // Similarity: the shipped cloud fonts and 100 installed fonts F0..F99 in the cache.
    SimilarityPaths sim{p("sim.dnm"), p("fs.fea"), p("fs.meta"), p("sys.fea"), p("sys.meta"), p("log"), "", "", ""};
    SetSimilarityPaths(sim);
    deepnet::deepnet_save_model(sim.model, testing::MakeTestNetwork());
    WritePair(
        sim.computedMeta, sim.computedFeature, 1864, [](size_t i) { return "c" + std::to_string(100000 + i); },
        [](size_t i) { return "Cloud" + std::to_string(i); }, [](size_t i) { return AxisVector(i); });
    WritePair(
        sim.cachedMeta, sim.cachedFeature, 100, [](size_t) { return std::string("0"); },
        [](size_t i) { return "F" + std::to_string(i); }, [](size_t i) { return AxisVector(i, 0.5f); }, "0");
    for (int i = 0; i < 100; ++i)
      installed.push_back(fonts.Add(hostglue::FakeFontAccess::LatinFont("F" + std::to_string(i))));
    FontSimilarCache::SetFontAccess(&fonts);
    FontRecognitionCache::SetFontAccess(&fonts);
    // Recognition: 15 classes, the first 12 named after installed fonts.
    deepnet::deepnet_save_model(p("rec.dnm"), testing::RecognitionNetwork(15));
    WritePair(
        p("rec.meta"), p("rec.unused"), 15, [](size_t) { return std::string("0"); },
        [](size_t i) { return i < 12 ? "F" + std::to_string(i) : "Other" + std::to_string(i); },
        [](size_t) { return std::vector<float>(); }, "1");
    FontRecognitionCache::Terminate();
    FontSimilarCache::Terminate();
    cache = FontRecognitionCache::GetOrCreate();
    ASSERT_TRUE(cache->Load({p("rec.dnm"), p("rec.meta"), "", "", "", "", ""}));
    cache->Update(installed, 1);
  }
  void TearDown() override {
    FontRecognitionCache::Terminate();
    FontSimilarCache::Terminate();
    FontSimilarCache::SetFontAccess(nullptr);
    FontRecognitionCache::SetFontAccess(nullptr);
    fs::remove_all(dir);
  }
  std::string p(const char* name) { return (dir / name).string(); }
  void StartSimilarity() {
    FontSimilarCache::Init();
    FontSimilarCache::Instance()->Update(installed, 1);
  }

  fs::path dir;
  hostglue::FakeFontAccess fonts;
  std::vector<QVFontHandle> installed;
  std::shared_ptr<FontRecognitionCache> cache;
};

TEST_F(RecognitionTest, TooSmallRastersAndAbsentSimilarityGiveNothing) {
  // Strokes 12 rows high in the top left corner: text in any picture from 20 x 20 up.
  std::vector<uint8_t> pixels(200 * 200, 255);
  for (int32_t y = 4; y < 16; ++y)
    for (int32_t x : {2, 3, 6, 7, 10, 11, 14, 15}) pixels[size_t(y) * 20 + size_t(x)] = 0;
  EXPECT_TRUE(cache->GetRecognizedFontList(pixels.data(), 200, 19).empty());
  EXPECT_TRUE(cache->GetRecognizedFontList(pixels.data(), 19, 200).empty());
  // 20 x 20 is recognised, but with no similarity cache nothing widens into an answer.
  EXPECT_TRUE(cache->GetRecognizedFontList(pixels.data(), 20, 20).empty());
  StartSimilarity();
  EXPECT_FALSE(cache->GetRecognizedFontList(pixels.data(), 20, 20).empty());
}

TEST_F(RecognitionTest, LoadingAfterTheUpdateKeepsTheInstalledFontsMatched) {
  // The init and update tasks run side by side; either may finish first.
  ASSERT_TRUE(cache->Load({p("rec.dnm"), p("rec.meta"), "", "", "", "", ""}));
  std::vector<float> prob(15, 0.01f);
  prob[3] = 0.9f;
  const auto ranked = cache->RankClasses(prob, false);
  ASSERT_FALSE(ranked.empty());
  EXPECT_EQ(ranked[0].fontIndex, 3);
}

TEST_F(RecognitionTest, OnlyTheFirstTenCandidatesSteerAndAtMostFiveFontsCount) {
  StartSimilarity();
  std::vector<float> prob(15);
  for (size_t i = 0; i < 15; ++i) prob[i] = float(15 - i) / 100.0f;  // class 0 best
  const auto ranked = cache->RankClasses(prob, false);
  ASSERT_EQ(ranked.size(), 15u);
  EXPECT_EQ(ranked[0].fontIndex, 0);
  EXPECT_EQ(ranked[14].name, "Other14");  // not installed: named from the table
  const auto widened = FontRecognitionCache::Widen(ranked);
  const auto expected =
      FontSimilarCache::Instance()->GetSimilarToFontSet({0, 1, 2, 3, 4}, {0.15f, 0.14f, 0.13f, 0.12f, 0.11f});
  ASSERT_EQ(widened.size(), expected.size());
  for (size_t i = 0; i < 5; ++i) EXPECT_FLOAT_EQ(widened[i].score, expected[i].score * 0.5f);
}

TEST_F(RecognitionTest, AnswersAreInstalledFontsAtMostForty) {
  StartSimilarity();
  std::vector<uint8_t> pixels(60 * 300, 255);
  for (int y = 20; y < 40; ++y)
    for (int x = 10; x < 290; x += 3) pixels[size_t(y) * 300 + size_t(x)] = 0;
  const auto results = cache->GetRecognizedFontList(pixels.data(), 300, 60);
  ASSERT_EQ(results.size(), FontRecognitionCache::kMaxResults);
  for (size_t i = 0; i < results.size(); ++i) {
    EXPECT_EQ(results[i].name.rfind("F", 0), 0u);  // installed fonts only, no cloud font
    EXPECT_EQ(results[i].name, "F" + std::to_string(results[i].fontIndex));
    if (i) {
      EXPECT_GE(results[i - 1].score, results[i].score);
    }
  }
}

TEST_F(RecognitionTest, AnInstalledLibraryFaceIsAnsweredAndUninstalledOnesNever) {
  // "Cloud7" is a library face of the shipped table (identifier of seven characters); the user
  // has installed it. It shares its axis with F7, which the network ranks first.
  installed.push_back(fonts.Add(hostglue::FakeFontAccess::LatinFont("Cloud7")));
  cache->Update(installed, 2);
  StartSimilarity();
  std::vector<float> prob(15, 0.001f);
  prob[7] = 0.9f;
  const auto widened = FontRecognitionCache::Widen(cache->RankClasses(prob, false));
  const auto answer = cache->Answer(widened);
  ASSERT_GE(answer.size(), 2u);
  EXPECT_EQ(answer[0].name, "F7");
  EXPECT_EQ(answer[1].name, "Cloud7");
  EXPECT_EQ(answer[1].fontIndex, 100);
  // The widened list held not-installed library faces (Cloud8 among them): none is answered.
  EXPECT_TRUE(std::any_of(widened.begin(), widened.end(), [](const auto& c) { return c.name == "Cloud8"; }));
  for (const auto& r : answer) EXPECT_TRUE(r.name == "Cloud7" || r.name.rfind("F", 0) == 0) << r.name;
}

TEST_F(RecognitionTest, PicturesWithoutTextGetNoAnswer) {
  StartSimilarity();
  std::vector<uint8_t> page(size_t(640) * 400, 236);
  EXPECT_TRUE(cache->GetRecognizedFontList(page.data(), 640, 400).empty());
  std::mt19937 rng(4);
  std::normal_distribution<double> grain(0.0, 9.0);
  for (uint8_t& p : page) p = uint8_t(std::clamp(236.0 + grain(rng), 0.0, 255.0));
  EXPECT_TRUE(cache->GetRecognizedFontList(page.data(), 640, 400).empty());
  // Strokes on the same page are text, and get an answer.
  for (int32_t y = 180; y < 210; ++y)
    for (int32_t x = 100; x < 500; x += 12) std::fill_n(page.begin() + y * 640 + x, 4, uint8_t(20));
  EXPECT_FALSE(cache->GetRecognizedFontList(page.data(), 640, 400).empty());
}

}  // namespace
}  // namespace fontrix
