// Specimens and their crops: the 109-row minimum, tiling of narrow specimens, crop offsets,
// pixel values entering the network, and the unit halves of the feature.
#include "similarity/specimen.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/similarity/similarity_fixtures.h"
#include "tests/support/fake_font_access.h"

namespace fontrix {
namespace {

Specimen Make(int width, int height, const std::function<uint8_t(int, int)>& pixel) {
  Specimen s;
  s.width = width;
  s.height = height;
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) s.pixels.push_back(pixel(x, y));
  return s;
}

TEST(Specimen, NarrowSpecimensAreTiledAndCropsSpreadEvenly) {
  EXPECT_EQ(CropOffsets(120), (std::vector<int>{0, 2, 5, 8, 11}));  // 40 wide, tiled three times
  EXPECT_EQ(CropOffsets(109), (std::vector<int>{0, 0, 0, 0, 0}));
  // Pixel x of a 40-wide specimen holds x; 0 enters as -128.
  const auto crops = SpecimenCrops(Make(40, 109, [](int x, int) { return uint8_t(x); }));
  ASSERT_EQ(crops.size(), 5u * 109 * 109);
  for (int c = 0; c < 5; ++c)
    for (int k : {0, 39, 40, 108}) {
      const int offset = std::vector<int>{0, 2, 5, 8, 11}[size_t(c)];
      EXPECT_EQ(crops[size_t(c) * 109 * 109 + 50 * 109 + size_t(k)], float((offset + k) % 40) - 128.0f);
    }
  const auto white = SpecimenCrops(Make(109, 190, [](int, int y) { return uint8_t(y < 109 ? 255 : 0); }));
  for (float v : white) ASSERT_EQ(v, 127.0f);  // rows 109 and below are never used
}

TEST(Specimen, RenderNeedsInkAndAt109Rows) {
  hostglue::FakeFontAccess fonts;
  auto font = hostglue::FakeFontAccess::LatinFont("Test-Regular");
  font.textHeight = 109.0 / 200;  // exactly 109 rows at size 200
  const QVFontHandle tall = fonts.Add(font);
  font.textHeight = 108.0 / 200;
  const QVFontHandle short_font = fonts.Add(font);
  font.usable = false;
  const QVFontHandle broken = fonts.Add(font);
  Specimens s;
  EXPECT_EQ(RenderSpecimens(fonts, tall, s), kRenderOk);
  EXPECT_EQ(s.lower.height, 109);
  EXPECT_EQ(s.upper.height, 109);
  EXPECT_EQ(s.lower.width, int(std::lround(0.6 * 200 * 26)));
  EXPECT_EQ(RenderSpecimens(fonts, short_font, s), kRenderFailed);
  EXPECT_EQ(s.lower.height, 0);
  EXPECT_EQ(s.upper.width, 0);
  EXPECT_EQ(RenderSpecimens(fonts, broken, s), kRenderUnusable);
}

TEST(Specimen, FeatureHalvesHaveUnitLength) {
  hostglue::FakeFontAccess fonts;
  const QVFontHandle font = fonts.Add(hostglue::FakeFontAccess::LatinFont("Test-Regular"));
  Specimens s;
  ASSERT_EQ(RenderSpecimens(fonts, font, s), kRenderOk);
  const auto feature = ComputeFeature(testing::MakeTestNetwork(), s);
  ASSERT_EQ(feature.size(), 768u);
  for (int half = 0; half < 2; ++half) {
    double sum = 0;
    for (int i = 0; i < 384; ++i) {
      const float v = feature[size_t(half * 384 + i)];
      EXPECT_GE(v, 0.0f);  // max over crops starts from zero
      sum += double(v) * v;
    }
    EXPECT_NEAR(sum, 1.0, 1e-5);
  }
}

}  // namespace
}  // namespace fontrix
