// The font features: the outline and raster building blocks on hand-computed cases, where each
// feature lands on a fake font, the fonts that fail, and DejaVu Sans through the host.
#include "classification/font_features.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/plugin/test_host.h"
#include "tests/support/fake_font_access.h"

namespace fontrix {
namespace {

using namespace glyph_geometry;
using hostglue::GlyphPath;

TEST(PrincipalAxes, AnglesLieInZeroToPiAndFewPointsGiveZeros) {
  // Three points on y = x: variances 1, 1, covariance 1.
  auto diagonal = ComputePrincipalAxes({{{0, 0}, {1, 1}, {2, 2}}});
  EXPECT_DOUBLE_EQ(diagonal.eig0, 2);
  EXPECT_DOUBLE_EQ(diagonal.eig1, 0);
  EXPECT_NEAR(diagonal.angle, M_PI / 4, 1e-6);
  // The points may come in several polylines.
  EXPECT_NEAR(ComputePrincipalAxes({{{0, 0}}, {{0, 1}, {0, 2}}}).angle, M_PI / 2, 1e-6);
  // A horizontal set meets atan2(0, -0): pi, not 0.
  EXPECT_NEAR(ComputePrincipalAxes({{{0, 0}, {1, 0}, {2, 0}}}).angle, M_PI, 1e-6);
  for (const auto& few : {std::vector<Polyline>{}, std::vector<Polyline>{{{3, 4}}}}) {
    const auto axes = ComputePrincipalAxes(few);
    EXPECT_EQ(axes.eig0, 0);
    EXPECT_EQ(axes.eig1, 0);
    EXPECT_EQ(axes.angle, 0);
  }
}

GlyphPath::Segment Seg(GlyphPath::Kind kind, double x, double y) { return {kind, {x, 0, 0}, {y, 0, 0}}; }

TEST(ResamplePath, ContoursAreSampledBelowEachSegmentEndThenScaled) {
  // A 40 x 80 rectangle closed by the close path, and a straight cubic closed back.
  GlyphPath path;
  path.segments = {Seg(GlyphPath::kMove, 0, 0),
                   Seg(GlyphPath::kLine, 40, 0),
                   Seg(GlyphPath::kLine, 40, 80),
                   Seg(GlyphPath::kLine, 0, 80),
                   Seg(GlyphPath::kClose, 0, 0),
                   Seg(GlyphPath::kMove, 0, 200),
                   {GlyphPath::kCurve, {10, 20, 30}, {200, 200, 200}},
                   Seg(GlyphPath::Kind(7), 5, 5),
                   Seg(GlyphPath::kClose, 0, 0)};
  ::testing::internal::CaptureStdout();
  const auto lines = ResamplePath(path, 10, 0.5);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "DUNNO\n");
  ASSERT_EQ(lines.size(), 2u);
  // 4 + 8 + 4 + 8 points; the close runs down the left side and stops short of the start.
  ASSERT_EQ(lines[0].size(), 24u);
  EXPECT_EQ(lines[0][4].x, 20);
  EXPECT_EQ(lines[0][23].x, 0);
  EXPECT_EQ(lines[0][23].y, 5);
  EXPECT_DOUBLE_EQ(StrokeThickness({lines[0]}), 20);
  // Evenly spaced control points make the cubic linear in t: 0, 10, 20, then back 30, 20, 10.
  ASSERT_EQ(lines[1].size(), 6u);
  const double xs[6] = {0, 5, 10, 15, 10, 5};
  for (int i = 0; i < 6; ++i) EXPECT_NEAR(lines[1][i].x, xs[i], 1e-12) << i;
  EXPECT_EQ(SegmentName(GlyphPath::kClose), "closepath");
  EXPECT_EQ(SegmentName(7), "DONT KNOW");
}

TEST(StrokeThickness, OnlyTheMiddleBandCountsAndNegativeGlyphsMeasureZero) {
  // Height 0..100: the band is 45..55, both ends in; the wide points just outside do not count.
  EXPECT_DOUBLE_EQ(StrokeThickness({{{-50, 0}, {50, 100}}, {{0, 45}, {3, 50}, {6, 55}}, {{-20, 44.9}, {20, 55.1}}}), 6);
  EXPECT_EQ(StrokeThickness({{{0, 0}, {10, 0}, {10, 100}, {0, 100}}}), 0);    // nothing in the band
  EXPECT_EQ(StrokeThickness({{{-9, 0}, {-9, 50}, {-3, 50}, {-3, 100}}}), 0);  // all at negative x
  EXPECT_EQ(StrokeThickness({}), 0);
}

TEST(Histograms, SquareEdgesAndTheStraightWrap) {
  // Counter-clockwise: right, up, left (angle pi wraps to bin 0), down.
  const auto angles = AngleHistogram({{{0, 0}, {1, 0}, {1, 1}, {0, 1}, {0, 0}}});
  for (int b = 0; b < 16; ++b) EXPECT_EQ(angles[b], b % 4 == 0 ? 0.25 : 0.0) << b;
  EXPECT_NEAR(HistogramEntropy(angles.data(), 16), -std::log(0.25 + 0.00001), 1e-12);

  // Straight on (bin 0, like the sharpest turn), then a right angle (the middle bin); the
  // repeated point is skipped.
  const std::vector<Polyline> turns = {{{0, 0}, {1, 0}, {2, 0}, {2, 1}, {2, 1}}};
  EXPECT_EQ(CurvatureHistogram(turns, 4), (std::vector<double>{0.5, 0, 0.5, 0}));
  EXPECT_EQ(CurvatureHistogram(turns, 8), (std::vector<double>{0.5, 0, 0, 0, 0.5, 0, 0, 0}));
  EXPECT_EQ(CurvatureHistogram({{{0, 0}, {1, 0}}}, 4), (std::vector<double>(4, 0.0)));
}

TEST(RasterRates, CountsTheUnsetBorderAndIgnoresRowPadding) {
  // 3 x 2: 1 0 1 / 1 1 0, with a stray padding bit in the first row.
  hostglue::GlyphBitmap bitmap;
  bitmap.width = 3, bitmap.height = 0, bitmap.stride = 1;  // the height comes from the buffer
  bitmap.bits = {0b10100001, 0b11000000};
  RasterRates rates;
  ASSERT_TRUE(ComputeRasterRates(bitmap, rates));
  EXPECT_DOUBLE_EQ(rates.share, 4.0 / 6);
  EXPECT_DOUBLE_EQ(rates.horizontal, 6.0 / 8);  // rows 0|101|0 and 0|110|0
  EXPECT_DOUBLE_EQ(rates.vertical, 6.0 / 9);    // two changes in every column
  bitmap.width = 9;
  EXPECT_FALSE(ComputeRasterRates(bitmap, rates));
}

TEST(FeatureNames, FixedComposedAndOutOfRange) {
  EXPECT_EQ(FeatureName(0), "ascent");
  EXPECT_EQ(FeatureName(10), "xWidth");
  EXPECT_EQ(FeatureName(29), "1Thickness");
  EXPECT_EQ(FeatureName(30), "numComponents_mean");
  EXPECT_EQ(FeatureName(54), "angleHist15_mean");
  EXPECT_EQ(FeatureName(55), "curvHist0_mean");
  EXPECT_EQ(FeatureName(67), "curvHistEntropy_std");
  EXPECT_EQ(FeatureName(87), "curvHist3_std");
  EXPECT_EQ(FeatureName(95), "LcurvHist7");
  EXPECT_EQ(FeatureName(96), "");
}

TEST(DebugRaster, PlainPgmInkBlackAndUnopenableFolderSkipped) {
  const auto dir = std::filesystem::temp_directory_path() / "fontrix-features-raster";
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  hostglue::GlyphBitmap bitmap;
  bitmap.width = 2, bitmap.height = 2, bitmap.stride = 2;
  bitmap.bits = {0b10000000, 0xFF, 0b01000000, 0};  // the second byte of each row is padding
  WriteDebugRaster(dir.string(), "_a", bitmap);
  std::ifstream in(dir / "Raster_a.pgm");
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_EQ(text.str(), "P2\n# CREATOR: The GIMP's PNM Filter Version 1.0\n2 2\n255\n0\n255\n255\n0\n");
  WriteDebugRaster((dir / "missing").string(), "_a", bitmap);
  EXPECT_FALSE(std::filesystem::exists(dir / "missing"));
  std::filesystem::remove_all(dir);
}

// The fake's glyphs are rectangles: "x" 530 x 500, "X" 630 x 700, "l" 410 wide.
TEST(FontFeatures, FakeFontValuesLandAtTheirIndices) {
  hostglue::FakeFontAccess fonts;
  auto latin = hostglue::FakeFontAccess::LatinFont("Fake");
  latin.style = {kQVFontFlagSerif, kQVFontStyleBoldItalic};
  latin.metrics.italicAngle = -12;
  const QVFontHandle font = fonts.Add(latin);
  std::array<double, kFeatureCount> f{};
  ASSERT_TRUE(ComputeFontFeatures(fonts, font, f));
  EXPECT_EQ(f[4], -12);
  EXPECT_EQ(f[7], 1);
  EXPECT_EQ(f[8], 1);
  EXPECT_EQ(f[9], 1);
  EXPECT_EQ(f[10], 530);
  EXPECT_EQ(f[11], 630);
  EXPECT_DOUBLE_EQ(f[12], 500.0 / 530);
  EXPECT_EQ(f[14], 700);
  // Outlines come in 1/2048 em and are measured in "X" widths.
  EXPECT_NEAR(f[27], 410 * 2.048 / 630, 1e-6);
  EXPECT_EQ(f[30], 1);  // numComponents_mean
  EXPECT_EQ(f[31], 3);  // numLines_mean
  EXPECT_EQ(f[59], 0);  // numComponents_std: clamped, not NaN

  // A zero advance for "X" divides by 0.001.
  fonts.Get(font).glyphs[fonts.Get(font).codes['X']].advance = 0;
  ASSERT_TRUE(ComputeFontFeatures(fonts, font, f));
  EXPECT_GT(f[16], 100000);
}

TEST(FontFeatures, AMissingLetterOrOneFails) {
  hostglue::FakeFontAccess fonts;
  auto without_q = hostglue::FakeFontAccess::LatinFont("NoQ");
  without_q.codes.erase('q');
  auto without_one = hostglue::FakeFontAccess::LatinFont("NoOne");
  without_one.glyphNames.erase("one");
  std::array<double, kFeatureCount> f{};
  EXPECT_FALSE(ComputeFontFeatures(fonts, fonts.Add(without_q), f));
  EXPECT_FALSE(ComputeFontFeatures(fonts, fonts.Add(without_one), f));
  EXPECT_FALSE(ComputeFontFeatures(fonts, reinterpret_cast<QVFontHandle>(uintptr_t(999)), f));
}

class RealFontFeatures : public testing::HostTest {};

TEST_F(RealFontFeatures, DejaVuSansIsPlausible) {
  real_fonts_ = true;
  Started();
  const auto* suite = static_cast<const QVFontSuite*>(host_->AcquireSuite(kQVFontSuite, kQVFontSuiteVersion));
  QVFontHandle font = nullptr;
  ASSERT_EQ(suite->FindFontByName("DejaVuSans", &font), kQVNoErr) << "installed by scripts/setup.sh";
  host_->ReleaseSuite(kQVFontSuite, kQVFontSuiteVersion);

  std::array<double, kFeatureCount> f{};
  ASSERT_TRUE(ComputeFontFeatures(hostglue::HostFontAccess(), font, f));
  for (int i = 0; i < kFeatureCount; ++i) EXPECT_TRUE(std::isfinite(f[i])) << FeatureName(i);
  EXPECT_EQ(f[7], 0);  // IsSerif
  EXPECT_EQ(f[9], 0);  // IsBold
  EXPECT_LT(f[13], f[14]);
  EXPECT_GE(f[24], f[25]);
  for (int i : {27, 28, 29}) EXPECT_GT(f[i], 0) << FeatureName(i);
  EXPECT_GT(f[18], 0.05);  // some ink, not all
  EXPECT_LT(f[18], 0.8);
  double angles = 0;
  for (int k = 0; k < 16; ++k) angles += f[39 + k];
  EXPECT_NEAR(angles, 1, 1e-9);
}

}  // namespace
}  // namespace fontrix
