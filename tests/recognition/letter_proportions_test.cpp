// The letter proportions that tell width cuts apart: the picture's, whatever the polarity, the
// sharpness and the taller marks, against a font's; and when they are clear enough to act on.
#include "recognition/letter_proportions.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/support/fake_font_access.h"

namespace fontrix {
namespace {

// A line of marks on paper: x-height letters of the given widths (20 rows), ascenders (30 rows),
// an "i" stem (5 wide), two letters run together (50 wide).
GreyRaster Line(const std::vector<int>& widths, uint8_t ink, uint8_t paper) {
  GreyRaster line{0, 40, {}};
  struct Mark {
    int width, top, bottom;
  };
  std::vector<Mark> marks;
  for (int w : widths) marks.push_back({w, 15, 35});
  marks.insert(marks.begin() + 1, {14, 5, 35});
  marks.insert(marks.begin() + 3, {5, 15, 35});
  marks.push_back({50, 15, 35});
  for (const Mark& m : marks) line.width += m.width + 6;
  line.pixels.assign(size_t(line.width) * 40, paper);
  int x = 3;
  for (const Mark& m : marks) {
    for (int y = m.top; y < m.bottom; ++y)
      for (int dx = 0; dx < m.width; ++dx) line.pixels[size_t(y * line.width + x + dx)] = ink;
    x += m.width + 6;
  }
  return line;
}

TEST(LetterProportions, ThePicturesXHeightLettersWhateverElseIsThere) {
  const std::vector<int> widths = {16, 18, 12, 20, 16, 14, 17};  // median 16 over 20 rows
  const GreyRaster dark = Line(widths, 0, 255), light = Line(widths, 230, 20), tinted = Line(widths, 40, 200);
  for (const GreyRaster* line : {&dark, &light, &tinted}) {
    const std::vector<float> p = XHeightLetterProportions(*line);
    EXPECT_EQ(p.size(), widths.size());  // not the ascender, the stem or the pair
    EXPECT_FLOAT_EQ(float(MedianProportion(p)), 16.0f / 20.0f);
  }
  // A soft edge (a grey column either side of each mark) measures as the sharp one does.
  GreyRaster soft = dark;
  for (int y = 0; y < soft.height; ++y)
    for (int x = 1; x + 1 < soft.width; ++x) {
      uint8_t& p = soft.pixels[size_t(y * soft.width + x)];
      if (p == 255 &&
          (dark.pixels[size_t(y * soft.width + x - 1)] == 0 || dark.pixels[size_t(y * soft.width + x + 1)] == 0))
        p = 160;
    }
  EXPECT_FLOAT_EQ(float(MedianProportion(XHeightLetterProportions(soft))), 16.0f / 20.0f);
  // Too few letters, or no contrast: no measure.
  EXPECT_EQ(MedianProportion(XHeightLetterProportions(Line({16, 18}, 0, 255))), 0.0);
  EXPECT_TRUE(XHeightLetterProportions(Line(widths, 120, 130)).empty());
}

TEST(LetterProportions, AFontsFromItsGlyphBoxesAndWhenTheyDecide) {
  hostglue::FakeFontAccess fonts;
  const QVFontHandle normal = fonts.Add(hostglue::FakeFontAccess::LatinFont("Sans")),
                     condensed = fonts.Add(hostglue::FakeFontAccess::LatinFont("SansCondensed", 0.85));
  const double n = FontLetterProportion(fonts, normal), c = FontLetterProportion(fonts, condensed);
  // The fake's letters widen from "a" to "z"; by English frequency "n" (430 wide, 500 high) is
  // the median of those of x-height, not "o", the middle one of the list.
  EXPECT_DOUBLE_EQ(n, 430.0 / 500.0);
  EXPECT_DOUBLE_EQ(c, 0.85 * 430.0 / 500.0);
  EXPECT_TRUE(NearerTheOther(c * 1.01, n, c));
  EXPECT_FALSE(NearerTheOther(n, n, c));
  EXPECT_FALSE(NearerTheOther(std::sqrt(n * c), n, c));  // halfway: the network's order stays
  EXPECT_FALSE(NearerTheOther(n * 0.98, n, n * 0.98));   // cuts too alike to tell
  EXPECT_FALSE(NearerTheOther(0, n, c));                 // nothing measured
  EXPECT_FALSE(NearerTheOther(c, n, 0));
}

}  // namespace
}  // namespace fontrix
