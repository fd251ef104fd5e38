#include "recognition/text_lines.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>

namespace fontrix {

namespace {

// How ink differs from the paper: on which side, and from how far.
struct InkLevels {
  int paper = 255;
  bool dark = true;
  int threshold = 0;  // 0: nothing in the picture can be ink
};

InkLevels FindInkLevels(const uint8_t* pixels, size_t count) {
  std::array<uint64_t, 256> histogram{};
  for (size_t i = 0; i < count; ++i) ++histogram[pixels[i]];
  // The paper: the commonest level within the fullest window of five levels, so that grain
  // spread over neighbouring levels still makes one peak.
  uint64_t fullest = 0;
  int centre = 255;
  for (int v = 0; v < 256; ++v) {
    uint64_t sum = 0;
    for (int k = std::max(0, v - 2); k <= std::min(255, v + 2); ++k) sum += histogram[size_t(k)];
    if (sum > fullest) fullest = sum, centre = v;
  }
  InkLevels levels;
  levels.paper = centre;
  for (int k = std::max(0, centre - 2); k <= std::min(255, centre + 2); ++k)
    if (histogram[size_t(k)] > histogram[size_t(levels.paper)]) levels.paper = k;
  const int paper = levels.paper;
  // The grain: the median distance from the paper (most of a picture of text is paper), as the
  // standard deviation of normal noise.
  uint64_t within = histogram[size_t(paper)];
  int median = 0;
  while (2 * within < count && median < 255) {
    ++median;
    if (paper - median >= 0) within += histogram[size_t(paper - median)];
    if (paper + median <= 255) within += histogram[size_t(paper + median)];
  }
  const int least = std::max(kLeastInkContrast, int(std::ceil(4.0 * 1.4826 * median)));
  uint64_t darker = 0, lighter = 0;
  for (int v = 0; v <= paper - least; ++v) darker += histogram[size_t(v)];
  for (int v = std::min(256, paper + least); v < 256; ++v) lighter += histogram[size_t(v)];
  if (darker == 0 && lighter == 0) return levels;
  levels.dark = darker >= lighter;
  // The ink's own contrast: the distance nine in ten of the ink pixels stay within.
  const uint64_t ink = levels.dark ? darker : lighter;
  uint64_t seen = 0;
  int contrast = least;
  for (int d = least; d < 256; ++d) {
    const int v = levels.dark ? paper - d : paper + d;
    if (v < 0 || v > 255) break;
    seen += histogram[size_t(v)];
    contrast = d;
    if (10 * seen >= 9 * ink) break;
  }
  levels.threshold = std::max(least, contrast / 4);
  return levels;
}

// The picture's ink, one byte a pixel (1 = ink), with every ink pixel that has fewer than two
// ink neighbours of eight dropped.
std::vector<uint8_t> InkMask(const uint8_t* pixels, int32_t width, int32_t height, const InkLevels& levels) {
  std::array<uint8_t, 256> isInk{};
  for (int v = 0; v < 256; ++v)
    isInk[size_t(v)] = (levels.dark ? levels.paper - v : v - levels.paper) >= levels.threshold;
  const size_t w = size_t(width);
  std::vector<uint8_t> mask(w * size_t(height), 0);
  // Raw ink of rows y - 1, y and y + 1, and their column sums.
  std::vector<uint8_t> above(w, 0), here(w), below(w, 0), sums(w + 2, 0);
  auto raw = [&](int32_t y, std::vector<uint8_t>& row) {
    if (y < 0 || y >= height) return std::fill(row.begin(), row.end(), uint8_t(0));
    const uint8_t* p = pixels + size_t(y) * w;
    for (size_t x = 0; x < w; ++x) row[x] = isInk[p[x]];
  };
  raw(0, here);
  raw(1, below);
  for (int32_t y = 0; y < height; ++y) {
    for (size_t x = 0; x < w; ++x) sums[x + 1] = uint8_t(above[x] + here[x] + below[x]);
    uint8_t* out = mask.data() + size_t(y) * w;
    for (size_t x = 0; x < w; ++x)
      if (here[x] && sums[x] + sums[x + 1] + sums[x + 2] >= 3) out[x] = 1;  // itself and two more
    std::swap(above, here);
    std::swap(here, below);
    raw(y + 2, below);
  }
  return mask;
}

// Maximal runs of true values: [first, last).
std::vector<std::pair<int32_t, int32_t>> Runs(const std::vector<uint8_t>& on) {
  std::vector<std::pair<int32_t, int32_t>> runs;
  for (int32_t i = 0, n = int32_t(on.size()); i < n;) {
    if (!on[size_t(i)]) {
      ++i;
      continue;
    }
    int32_t j = i;
    while (j < n && on[size_t(j)]) ++j;
    runs.emplace_back(i, j);
    i = j;
  }
  return runs;
}

// Marks the rules of the mask in layout.ruleRows and layout.ruleColumns.
void FindRules(const std::vector<uint8_t>& mask, int32_t width, int32_t height, TextLayout& layout) {
  const size_t w = size_t(width);
  layout.ruleRows.assign(size_t(height), 0);
  layout.ruleColumns.assign(w, 0);
  // Rows: an unbroken run across half the width; then the rows next to a rule that are at least
  // a quarter ink (the blurred edges of a thick or soft rule).
  std::vector<uint32_t> rowInk(size_t(height), 0);
  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* m = mask.data() + size_t(y) * w;
    int32_t run = 0, longest = 0;
    for (size_t x = 0; x < w; ++x) {
      run = m[x] ? run + 1 : 0;
      longest = std::max(longest, run);
      rowInk[size_t(y)] += m[x];
    }
    if (2 * int64_t(longest) >= width) layout.ruleRows[size_t(y)] = 1;
  }
  for (bool grew = true; grew;) {
    grew = false;
    for (int32_t y = 0; y < height; ++y)
      if (!layout.ruleRows[size_t(y)] && 4 * int64_t(rowInk[size_t(y)]) >= width &&
          ((y > 0 && layout.ruleRows[size_t(y - 1)]) || (y + 1 < height && layout.ruleRows[size_t(y + 1)])))
        layout.ruleRows[size_t(y)] = grew = true;
  }
  // Columns: the longest unbroken run of each, off the rule rows.
  std::vector<int32_t> run(w, 0), longest(w, 0), longestEnd(w, 0);
  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* m = mask.data() + size_t(y) * w;
    const bool rule = layout.ruleRows[size_t(y)];
    for (size_t x = 0; x < w; ++x) {
      run[x] = m[x] || rule ? run[x] + 1 : 0;  // a column crossing a rule row goes on through it
      if (run[x] > longest[x]) longest[x] = run[x], longestEnd[x] = y + 1;
    }
  }
  // Candidates: columns of a long run, and the columns next to them that are at least a quarter
  // ink (the blurred edges of a thick or soft rule).
  std::vector<uint8_t> core(w, 0), candidate(w, 0);
  std::vector<uint32_t> columnInk(w, 0);
  bool any = false;
  for (size_t x = 0; x < w; ++x) any |= core[x] = candidate[x] = 2 * int64_t(longest[x]) >= height;
  if (!any) return;
  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* m = mask.data() + size_t(y) * w;
    for (size_t x = 0; x < w; ++x) columnInk[x] += m[x];
  }
  for (bool grew = true; grew;) {
    grew = false;
    for (size_t x = 0; x < w; ++x)
      if (!candidate[x] && 4 * int64_t(columnInk[x]) >= height &&
          ((x > 0 && candidate[x - 1]) || (x + 1 < w && candidate[x + 1])))
        candidate[x] = grew = true;
  }
  // The rows the other ink takes; a group of candidates whose long run reaches past them both
  // above and below by a quarter of their height, or runs from a rule row to a rule row (a
  // frame's side), is a rule. (A letter's stem can reach a little past the rest of a line cut
  // to its ink, such as the ascenders of "hill" past the dot of its i.)
  int32_t first = height, last = -1;
  for (int32_t y = 0; y < height; ++y) {
    if (layout.ruleRows[size_t(y)]) continue;
    const uint8_t* m = mask.data() + size_t(y) * w;
    for (size_t x = 0; x < w; ++x)
      if (m[x] && !candidate[x]) {
        first = std::min(first, y);
        last = y;
        break;
      }
  }
  for (const auto& [from, to] : Runs(candidate)) {
    bool rule = false;
    for (int32_t x = from; x < to && !rule; ++x) {
      const int32_t start = longestEnd[size_t(x)] - longest[size_t(x)], end = longestEnd[size_t(x)];
      const int32_t reach = (last + 1 - first + 3) / 4;
      rule = core[size_t(x)] && ((last >= 0 && start <= first - reach && end >= last + 1 + reach) ||
                                 (layout.ruleRows[size_t(start)] && layout.ruleRows[size_t(end - 1)]));
    }
    if (rule) std::fill(layout.ruleColumns.begin() + from, layout.ruleColumns.begin() + to, uint8_t(1));
  }
}

// Runs that hold lines set so close that no empty row parts them, split. A line's ink is
// densest between its baseline and x-height; lines that touch show two such bands with a
// sparse stretch between them (only the descenders above and the ascenders below), which no
// single line has: within one the stems go on from band to band. So a run splits at the emptiest
// row between two dense bands (rows at least 35 % of the run's fullest, smoothed over a
// sixteenth of the run), each at least an eighth of the run high, when that row holds at most
// 15 % of the fullest.
std::vector<std::pair<int32_t, int32_t>> SplitTouchingLines(const std::vector<std::pair<int32_t, int32_t>>& runs,
                                                            const std::vector<uint32_t>& rowInk) {
  std::vector<std::pair<int32_t, int32_t>> out;
  for (const auto& [top, bottom] : runs) {
    const int32_t h = bottom - top, k = std::max(1, h / 16);
    std::vector<double> smooth(size_t(h), 0.0);
    double fullest = 0;
    for (int32_t y = 0; y < h; ++y) {
      double sum = 0;
      int32_t n = 0;
      for (int32_t j = std::max(0, y - k); j <= std::min(h - 1, y + k); ++j, ++n) sum += rowInk[size_t(top + j)];
      smooth[size_t(y)] = sum / n;
      fullest = std::max(fullest, smooth[size_t(y)]);
    }
    std::vector<uint8_t> dense(size_t(h), 0);
    for (int32_t y = 0; y < h; ++y) dense[size_t(y)] = smooth[size_t(y)] >= 0.35 * fullest;
    std::vector<std::pair<int32_t, int32_t>> bands;
    for (const auto& band : Runs(dense))
      if (8 * (band.second - band.first) >= h) bands.push_back(band);
    int32_t from = top;
    for (size_t b = 1; b < bands.size(); ++b) {
      int32_t cut = bands[b - 1].second;
      for (int32_t y = bands[b - 1].second; y < bands[b].first; ++y)
        if (rowInk[size_t(top + y)] < rowInk[size_t(top + cut)]) cut = y;
      if (rowInk[size_t(top + cut)] > 0.15 * fullest) continue;
      out.emplace_back(from, top + cut);
      from = top + cut + 1;
    }
    out.emplace_back(from, bottom);
  }
  return out;
}

}  // namespace

TextLayout FindTextLines(const uint8_t* pixels, int32_t width, int32_t height) {
  TextLayout layout;
  if (!pixels || width < 1 || height < 1) return layout;
  const InkLevels levels = FindInkLevels(pixels, size_t(width) * size_t(height));
  layout.paper = uint8_t(levels.paper);
  layout.darkInk = levels.dark;
  if (levels.threshold == 0) return layout;
  const std::vector<uint8_t> mask = InkMask(pixels, width, height, levels);
  FindRules(mask, width, height, layout);
  const size_t w = size_t(width);

  std::vector<uint32_t> rowInk(size_t(height), 0);
  std::vector<uint8_t> inked(size_t(height), 0);
  for (int32_t y = 0; y < height; ++y) {
    if (layout.ruleRows[size_t(y)]) continue;
    const uint8_t* m = mask.data() + size_t(y) * w;
    for (size_t x = 0; x < w; ++x) rowInk[size_t(y)] += m[x] && !layout.ruleColumns[x];
    inked[size_t(y)] = rowInk[size_t(y)] > 0;
  }
  std::vector<std::pair<int32_t, int32_t>> runs = Runs(inked);
  // Small runs join the run next to them when close: dots, accents, the tails of a line. Each
  // pass is linear; a few passes settle any picture of text.
  auto heightOf = [](const std::pair<int32_t, int32_t>& r) { return r.second - r.first; };
  for (int pass = 0; pass < 16 && runs.size() > 1; ++pass) {
    int32_t tallest = 0;
    for (const auto& r : runs) tallest = std::max(tallest, heightOf(r));
    std::vector<std::pair<int32_t, int32_t>> kept;
    bool joined = false;
    for (size_t i = 0; i < runs.size(); ++i) {
      const int32_t h = heightOf(runs[i]);
      if (5 * h < 2 * tallest) {
        const int64_t far = int64_t(1) << 40;
        const int64_t up = kept.empty() ? far : runs[i].first - kept.back().second;
        const int64_t down = i + 1 < runs.size() ? runs[i + 1].first - runs[i].second : far;
        if (!kept.empty() && up <= down && up < std::max(h, heightOf(kept.back()) / 4)) {
          kept.back().second = runs[i].second;
          joined = true;
          continue;
        }
        if (down < up && down < std::max(h, heightOf(runs[i + 1]) / 4)) {
          runs[i + 1].first = runs[i].first;
          joined = true;
          continue;
        }
      }
      kept.push_back(runs[i]);
    }
    runs = std::move(kept);
    if (!joined) break;
  }
  runs = SplitTouchingLines(runs, rowInk);
  int32_t tallest = 0;
  for (const auto& r : runs) tallest = std::max(tallest, r.second - r.first);
  for (const auto& [top, bottom] : runs) {
    const int32_t h = bottom - top;
    if (h < kLowestTextLine || 4 * h < tallest) continue;
    // The line's columns: clusters of inked columns apart by at most 1.5 heights; the inkiest.
    std::vector<uint32_t> columnInk(w, 0);
    for (int32_t y = top; y < bottom; ++y) {
      if (layout.ruleRows[size_t(y)]) continue;
      const uint8_t* m = mask.data() + size_t(y) * w;
      for (size_t x = 0; x < w; ++x) columnInk[x] += m[x] && !layout.ruleColumns[x];
    }
    const int32_t widestGap = h + h / 2;
    TextLine best;
    for (int32_t x = 0; x < width;) {
      if (!columnInk[size_t(x)]) {
        ++x;
        continue;
      }
      TextLine cluster{top, bottom, x, x + 1, 0};
      int32_t gap = 0;
      for (; x < width && gap <= widestGap; ++x) {
        if (columnInk[size_t(x)]) {
          cluster.ink += columnInk[size_t(x)];
          cluster.right = x + 1;
          gap = 0;
        } else {
          ++gap;
        }
      }
      if (cluster.ink > best.ink) best = cluster;
    }
    // Too little ink, or far taller than wide (recognition reads no such line): no text.
    if (best.ink < kLeastLineInk || int64_t(best.Width()) * kLineHeight < int64_t(kNarrowestLine) * h) continue;
    // The rows of the chosen columns' ink: a cluster beside the line may reach higher or lower.
    int32_t first = bottom, last = top - 1;
    for (int32_t y = top; y < bottom; ++y) {
      const uint8_t* m = mask.data() + size_t(y) * w;
      if (layout.ruleRows[size_t(y)]) continue;
      for (int32_t x = best.left; x < best.right; ++x)
        if (m[x] && !layout.ruleColumns[size_t(x)]) {
          first = std::min(first, y);
          last = y;
          break;
        }
    }
    best.top = first;
    best.bottom = last + 1;
    if (best.Height() >= kLowestTextLine) layout.lines.push_back(best);
  }
  return layout;
}

double TextSkew(const uint8_t* pixels, int32_t width, int32_t height, uint8_t* paper) {
  if (!pixels || width < 1 || height < 1) return 0;
  const InkLevels levels = FindInkLevels(pixels, size_t(width) * size_t(height));
  if (paper) *paper = uint8_t(levels.paper);
  if (levels.threshold == 0) return 0;
  const std::vector<uint8_t> mask = InkMask(pixels, width, height, levels);
  TextLayout rules;
  FindRules(mask, width, height, rules);
  // The ink's pixels, every n-th of a picture with very many.
  std::vector<std::pair<int32_t, int32_t>> ink;
  for (int32_t y = 0; y < height; ++y) {
    if (rules.ruleRows[size_t(y)]) continue;
    const uint8_t* m = mask.data() + size_t(y) * size_t(width);
    for (int32_t x = 0; x < width; ++x)
      if (m[x] && !rules.ruleColumns[size_t(x)]) ink.emplace_back(x, y);
  }
  if (ink.size() < kLeastLineInk) return 0;
  const size_t step = std::max<size_t>(1, ink.size() / 200000);
  const double reach = double(width) * std::tan(kSteepestSkew * M_PI / 180.0);
  const int32_t offset = int32_t(std::ceil(reach)) + 1;
  std::vector<uint32_t> profile(size_t(height) + 2 * size_t(offset) + 2, 0);
  // Ink projected along lines rising by `degrees` to the right: row y + x tan(degrees) is constant
  // along such a line.
  auto sharpness = [&](double degrees) {
    std::fill(profile.begin(), profile.end(), 0u);
    const double t = std::tan(degrees * M_PI / 180.0);
    for (size_t i = 0; i < ink.size(); i += step) {
      const int32_t r = int32_t(std::lround(double(ink[i].second) + double(ink[i].first) * t)) + offset;
      ++profile[size_t(std::clamp<int32_t>(r, 0, int32_t(profile.size()) - 1))];
    }
    double sum = 0;
    for (uint32_t c : profile) sum += double(c) * c;
    return sum;
  };
  const double level = sharpness(0);
  double best = 0, bestSharpness = level;
  for (double d = -kSteepestSkew; d <= kSteepestSkew + 1e-9; d += 0.5) {
    const double s = sharpness(d);
    if (s > bestSharpness) best = d, bestSharpness = s;
  }
  for (double d = best - 0.4; d <= best + 0.4 + 1e-9; d += 0.1) {
    const double s = sharpness(d);
    if (s > bestSharpness) best = d, bestSharpness = s;
  }
  // Level within a degree reads as well as levelled; a slope that barely beats level is noise
  // (one short word, a few letters).
  if (std::fabs(best) < 1.0 || bestSharpness < 1.1 * level) return 0;
  return best;
}

GreyRaster Levelled(const uint8_t* pixels, int32_t width, int32_t height, double degrees, uint8_t paper) {
  const double a = degrees * M_PI / 180.0, c = std::cos(a), s = std::sin(a);
  GreyRaster out;
  out.width = int32_t(std::ceil(width * std::fabs(c) + height * std::fabs(s)));
  out.height = int32_t(std::ceil(width * std::fabs(s) + height * std::fabs(c)));
  out.pixels.assign(size_t(out.width) * size_t(out.height), paper);
  const double cx = (width - 1) / 2.0, cy = (height - 1) / 2.0, ox = (out.width - 1) / 2.0, oy = (out.height - 1) / 2.0;
  // A level line of the output runs along the text: in the picture, the direction (cos, -sin).
  for (int32_t y = 0; y < out.height; ++y) {
    uint8_t* row = out.pixels.data() + size_t(y) * size_t(out.width);
    for (int32_t x = 0; x < out.width; ++x) {
      const double dx = x - ox, dy = y - oy;
      const double sx = cx + dx * c + dy * s, sy = cy - dx * s + dy * c;
      if (sx < 0 || sy < 0 || sx > width - 1 || sy > height - 1) continue;
      const int32_t x0 = int32_t(sx), y0 = int32_t(sy);
      const int32_t x1 = std::min(width - 1, x0 + 1), y1 = std::min(height - 1, y0 + 1);
      const double fx = sx - x0, fy = sy - y0;
      auto p = [&](int32_t yy, int32_t xx) { return double(pixels[size_t(yy) * size_t(width) + size_t(xx)]); };
      const double v =
          (p(y0, x0) * (1 - fx) + p(y0, x1) * fx) * (1 - fy) + (p(y1, x0) * (1 - fx) + p(y1, x1) * fx) * fy;
      row[x] = uint8_t(std::lround(v));
    }
  }
  return out;
}

std::vector<size_t> LinesToRead(const TextLayout& layout, size_t most) {
  const auto& lines = layout.lines;
  std::vector<size_t> order(lines.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  auto area = [&](size_t i) {
    return int64_t(lines[i].Height()) *
           std::min<int64_t>(lines[i].Width(), int64_t(kMaxLineAspect) * lines[i].Height());
  };
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return area(a) > area(b); });
  int32_t tallest = 0;
  for (const TextLine& l : lines) tallest = std::max(tallest, l.Height());
  std::vector<size_t> read;
  for (size_t i : order)
    if (read.size() < most && (most == 1 || 2 * lines[i].Height() >= tallest)) read.push_back(i);
  return read;
}

GreyRaster CutLine(const uint8_t* pixels, int32_t width, int32_t height, const TextLayout& layout, size_t index) {
  if (index >= layout.lines.size()) throw std::out_of_range("CutLine(): no such line");
  const TextLine& line = layout.lines[index];
  const int32_t h = line.Height(), marginY = std::max(1, h / 5), marginX = std::max(1, h / 4);
  // The rows that are this line's own: halfway to the lines above and below.
  const int32_t ownTop = index > 0 ? (layout.lines[index - 1].bottom + line.top) / 2 : 0;
  const int32_t ownBottom =
      index + 1 < layout.lines.size() ? (line.bottom + layout.lines[index + 1].top + 1) / 2 : height;
  GreyRaster out;
  out.height = h + 2 * marginY;
  out.width = int32_t(std::min<int64_t>(int64_t(line.Width()) + 2 * marginX, int64_t(kMaxLineAspect) * out.height));
  out.pixels.assign(size_t(out.width) * size_t(out.height), layout.paper);
  for (int32_t oy = 0; oy < out.height; ++oy) {
    const int32_t y = line.top - marginY + oy;
    if (y < ownTop || y >= ownBottom || y < 0 || y >= height || layout.ruleRows[size_t(y)]) continue;
    const uint8_t* row = pixels + size_t(y) * size_t(width);
    uint8_t* to = out.pixels.data() + size_t(oy) * size_t(out.width);
    for (int32_t ox = 0; ox < out.width; ++ox) {
      const int32_t x = line.left - marginX + ox;
      if (x >= 0 && x < width && !layout.ruleColumns[size_t(x)]) to[ox] = row[x];
    }
  }
  return out;
}

}  // namespace fontrix
