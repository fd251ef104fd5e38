#include "recognition/letter_proportions.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace fontrix {

std::vector<float> XHeightLetterProportions(const GreyRaster& line) {
  const int32_t w = line.width, h = line.height;
  if (w <= 0 || h <= 0 || line.pixels.size() != size_t(w) * size_t(h)) return {};
  // The threshold halfway between the darkest and lightest values keeps a blurred edge where
  // the sharp one was, so a soft or small picture measures as wide as a crisp one.
  const auto [lo, hi] = std::minmax_element(line.pixels.begin(), line.pixels.end());
  if (*hi - *lo < 32) return {};
  const int threshold = (*lo + *hi) / 2;
  size_t dark = 0;
  for (uint8_t p : line.pixels) dark += p < threshold;
  const bool inkIsDark = dark * 2 <= line.pixels.size();
  std::vector<uint8_t> ink(line.pixels.size());
  for (size_t i = 0; i < ink.size(); ++i) ink[i] = (line.pixels[i] < threshold) == inkIsDark;

  // Connected marks, eight neighbours, as boxes.
  struct Box {
    int32_t left, top, right, bottom;
  };
  std::vector<Box> boxes;
  std::vector<int32_t> stack;
  for (int32_t start = 0; start < w * h; ++start) {
    if (!ink[size_t(start)]) continue;
    Box box{start % w, start / w, start % w, start / w};
    ink[size_t(start)] = 0;
    stack.assign(1, start);
    while (!stack.empty()) {
      const int32_t at = stack.back();
      stack.pop_back();
      const int32_t x = at % w, y = at / w;
      box = {std::min(box.left, x), std::min(box.top, y), std::max(box.right, x), std::max(box.bottom, y)};
      for (int32_t dy = -1; dy <= 1; ++dy)
        for (int32_t dx = -1; dx <= 1; ++dx) {
          const int32_t nx = x + dx, ny = y + dy;
          if (nx < 0 || ny < 0 || nx >= w || ny >= h || !ink[size_t(ny * w + nx)]) continue;
          ink[size_t(ny * w + nx)] = 0;
          stack.push_back(ny * w + nx);
        }
    }
    if (box.bottom - box.top + 1 >= 4) boxes.push_back(box);
  }
  if (boxes.size() < kFewestLetters) return {};

  // The x-height: the lowest height that a quarter of the marks share within 8 %. Letters of
  // x-height need not be the most (a line with figures, capitals and ascenders may have more
  // marks of cap height), but they are many, and below the rest but for punctuation, which is
  // few.
  std::vector<int32_t> heights;
  for (const Box& b : boxes) heights.push_back(b.bottom - b.top + 1);
  std::sort(heights.begin(), heights.end());
  const size_t enough = std::max<size_t>(3, (heights.size() + 3) / 4);
  int32_t xHeight = 0;
  for (int32_t candidate : heights) {
    size_t near = 0;
    for (int32_t other : heights) near += std::abs(other - candidate) <= 0.08 * candidate;
    if (near >= enough) {
      xHeight = candidate;
      break;
    }
  }
  if (xHeight == 0) return {};
  std::vector<float> proportions;
  for (const Box& b : boxes) {
    const double bh = b.bottom - b.top + 1, bw = b.right - b.left + 1;
    // Letters of x-height, not a stem ("i" without its dot) nor two letters run together.
    if (std::abs(bh - xHeight) > 0.1 * xHeight || bw < 0.35 * xHeight || bw > 1.7 * xHeight) continue;
    proportions.push_back(float(bw / bh));
  }
  return proportions;
}

double MedianProportion(std::vector<float> proportions) {
  if (proportions.size() < kFewestLetters) return 0;
  std::nth_element(proportions.begin(), proportions.begin() + std::ptrdiff_t(proportions.size() / 2),
                   proportions.end());
  return proportions[proportions.size() / 2];
}

double FontLetterProportion(hostglue::FontAccess& fonts, QVFontHandle font) {
  // Letters of x-height and how often each comes in English text (per cent).
  static const std::pair<char, double> kLetters[] = {{'a', 8.2}, {'c', 2.8}, {'e', 12.7}, {'m', 2.4}, {'n', 6.7},
                                                     {'o', 7.5}, {'r', 6.0}, {'s', 6.3},  {'u', 2.8}, {'v', 1.0},
                                                     {'w', 2.4}, {'x', 0.2}, {'z', 0.1}};
  std::vector<std::pair<double, double>> measured;  // (proportion, weight)
  double total = 0;
  for (const auto& [letter, weight] : kLetters) {
    uint32_t glyph = 0;
    QVGlyphBox box{};
    if (!fonts.GlyphByCode(font, uint8_t(letter), glyph) || glyph == 0 || !fonts.GlyphBox(font, glyph, box)) continue;
    const double bw = box.right - box.left, bh = box.top - box.bottom;
    if (!(bw > 0 && bh > 0)) continue;
    measured.emplace_back(bw / bh, weight);
    total += weight;
  }
  if (measured.size() < 8) return 0;
  std::sort(measured.begin(), measured.end());
  double below = 0;
  for (const auto& [proportion, weight] : measured) {
    below += weight;
    if (below >= total / 2) return proportion;
  }
  return measured.back().first;
}

bool NearerTheOther(double seen, double a, double b) {
  if (!(seen > 0 && a > 0 && b > 0)) return false;
  const double apart = std::fabs(std::log(a / b));
  if (apart < std::log(1.04)) return false;
  return std::fabs(std::log(seen / b)) + apart / 4 < std::fabs(std::log(seen / a));
}

}  // namespace fontrix
