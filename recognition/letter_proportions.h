#pragma once
// Telling the width cuts of one family apart. The network reads a line brought to a fixed height,
// and a condensed cut reads almost as its normal cut does (DejaVu Sans Bold and DejaVu Sans
// Condensed Bold score within 1 % of each other on each other's pictures). What separates them is
// how wide the letters are for their height: measured in the picture on the letters of x-height
// ("a", "n", "o", …: no ascender, no descender), and in each font on its glyph boxes.
#include <cstdint>
#include <vector>

#include "hostglue/font_access.h"
#include "recognition/line_scoring.h"

namespace fontrix {

/// Width over height of each letter of x-height in a line of text (dark ink on light paper, or
/// light on dark: the fewer pixels are ink), told apart from taller and shorter marks by their
/// height: the most common height, give or take 10 %.
std::vector<float> XHeightLetterProportions(const GreyRaster& line);

/// The median of `proportions`; 0 (no measure) for fewer than kFewestLetters.
double MedianProportion(std::vector<float> proportions);
constexpr size_t kFewestLetters = 5;

/// The same measure of a font: width over height of the glyph boxes of "acemnorsuvwxz", their
/// median weighted by how often each letter comes in English text. 0 when it lacks most of them.
double FontLetterProportion(hostglue::FontAccess& fonts, QVFontHandle font);

/// Of two width cuts whose proportions are `a` and `b`, whether the picture's proportion `seen`
/// is clearly nearer `b`: their proportions differ by at least 4 % and `seen` is nearer `b` by a
/// quarter of that difference, so that a picture between them changes nothing.
bool NearerTheOther(double seen, double a, double b);

}  // namespace fontrix
