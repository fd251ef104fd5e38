#pragma once
// Where the text of a picture lies, found by its ink: the page's paper level, the rules (a
// frame, underlines, separators) that are no text, and the boxes of the lines of text, so that
// recognition reads lines cut to their ink whatever the margins around them.
#include <cstdint>
#include <vector>

#include "recognition/line_scoring.h"

namespace fontrix {

/// The box of a line's ink: rows [top, bottom), columns [left, right), and its ink pixels.
struct TextLine {
  int32_t top = 0, bottom = 0, left = 0, right = 0;
  uint64_t ink = 0;
  int32_t Height() const { return bottom - top; }
  int32_t Width() const { return right - left; }
};

struct TextLayout {
  uint8_t paper = 255;  ///< the page's grey level
  bool darkInk = true;  ///< ink darker than the paper (else light text on a dark page)
  /// Rows and columns of rules: a frame's sides, underlines, separators (1 = rule). Empty when
  /// no line was found.
  std::vector<uint8_t> ruleRows, ruleColumns;
  std::vector<TextLine> lines;  ///< top to bottom; none when the picture shows no text
};

/// The least difference from the paper that can be ink, in grey levels: text is printed with
/// more contrast than this, and the grain of a blank page (scanner noise, JPEG blocks) stays
/// below it.
constexpr int kLeastInkContrast = 32;
/// The lowest line of text found, in rows, and the fewest ink pixels it has.
constexpr int32_t kLowestTextLine = 5;
constexpr uint64_t kLeastLineInk = 24;

/// The lines of text in `height` rows of `width` grey bytes, by their ink.
///
/// The paper is the commonest grey level; ink differs from it, on the side (darker or lighter)
/// that most of the picture's strong differences lie, by more than kLeastInkContrast, four
/// times the page's grain, and a quarter of the ink's own contrast. An ink pixel counts when at
/// least two of its eight neighbours are ink as well, so grain and specks fall away. Rows whose
/// ink runs unbroken across half the picture are rules, and so are columns whose ink runs
/// unbroken down half of it, either a quarter beyond the rows the rest of the ink takes both
/// above and below, or from a rule row to a rule row: no letter does either.
///
/// The rows that hold ink outside the rules make runs. A run under two fifths of the tallest
/// joins the run next to it when the gap is under the small run's height or a quarter of the
/// neighbour's (the dots, accents and descenders of a line); a run of lines set so close that
/// they touch is split at the emptiest row between their dense bands; what is then under a
/// quarter of the tallest line, under kLowestTextLine rows high, under kLeastLineInk ink pixels,
/// or far taller than wide (under kNarrowestLine columns at 109 rows) is left out. A line's
/// columns are those of its ink, the ink's largest cluster when gaps wider than one and a half
/// times its height split it.
TextLayout FindTextLines(const uint8_t* pixels, int32_t width, int32_t height);

/// The steepest slope of text that TextSkew looks for, in degrees either way.
constexpr double kSteepestSkew = 12;

/// The slope of the picture's lines of text in degrees, positive when they rise to the right;
/// 0 when they are level within a degree or no slope stands out. The slope is the one at which
/// the ink (off the rules), projected across the lines, makes the sharpest profile (the largest
/// sum of squared counts), tried every half degree up to kSteepestSkew and then every tenth.
/// `paper`, when given, gets the page's grey level (as FindTextLines finds it).
double TextSkew(const uint8_t* pixels, int32_t width, int32_t height, uint8_t* paper = nullptr);

/// The picture turned by `degrees` counter-clockwise (so text rising by that slope comes out
/// level), bilinear, large enough to hold all of it, `paper` where the picture was not.
GreyRaster Levelled(const uint8_t* pixels, int32_t width, int32_t height, double degrees, uint8_t paper);

/// The lines recognition reads, at most `most`, largest first by the area the network sees (its
/// height times its width up to kMaxLineAspect heights); with more than one, only lines at
/// least half as high as the tallest (a caption or a footnote is not the text's font).
std::vector<size_t> LinesToRead(const TextLayout& layout, size_t most);

/// The line as recognition reads it: its ink box with margins of a fifth of its height above
/// and below and a quarter of it at either end, the picture's own pixels within the rows that
/// are the line's own (halfway to the lines next to it) and off the rules, the page's paper
/// elsewhere; at most kMaxLineAspect times as wide as high (the leftmost part of a longer line).
GreyRaster CutLine(const uint8_t* pixels, int32_t width, int32_t height, const TextLayout& layout, size_t line);

}  // namespace fontrix
