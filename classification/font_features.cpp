#include "classification/font_features.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <filesystem>

namespace fontrix {

namespace {

using hostglue::FontAccess;
using hostglue::GlyphBitmap;
using hostglue::GlyphPath;
using namespace glyph_geometry;

static_assert(kPi == double(float(3.14159265358979323846)), "pi must be the single-precision value");
static_assert(kTwoPi == 2 * kPi, "two pi must be the single-precision value doubled");

const char* const kSampleWord = "Handgloves";
constexpr int kSampleLength = 10;
const char* const kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

// The per-glyph outline record: nine values, 16 angle bins, 4 curvature bins.
constexpr int kOutlineValues = 9;
constexpr int kAngleBins = 16;
constexpr int kCurvatureBins = 4;
constexpr int kLCurvatureBins = 8;
constexpr int kRecordSize = kOutlineValues + kAngleBins + kCurvatureBins;
const char* const kOutlineNames[kOutlineValues] = {"numComponents", "numLines",         "numCurves",
                                                   "arcLength",     "PCAeig0",          "PCAeig1",
                                                   "PCAangle",      "angleHistEntropy", "curvHistEntropy"};

// Feature indices.
constexpr int kRecordMeans = 30, kRecordDeviations = kRecordMeans + kRecordSize, kLCurvature = 88;
static_assert(kLCurvature == kRecordDeviations + kRecordSize, "the record slots fill 30..87");
static_assert(kLCurvature + kLCurvatureBins == kFeatureCount, "L's curvature bins end the vector");

// Outlines are fetched in 1/2048 em, the units the sample spacings were chosen for.
constexpr double kOutlineMatrix[4] = {2048, 0, 0, 2048};
constexpr double kRasterMatrix[4] = {100, 0, 0, 100};
constexpr double kCoarseSpacing = 100, kFineSpacing = 10;

// The running maxima start at the smallest positive normal double, not at the lowest double:
// the model was trained on values where a glyph drawn entirely at negative x measures 0.
constexpr double kMaxStart = DBL_MIN;

// Angles are rounded to single precision before they are binned, as the trainer computed
// them, so that an angle of exactly pi meets the single-precision pi and wraps to bin 0.
double SingleAngle(double radians) { return double(float(radians)); }

// Bin of t in 0..1 (1 wraps to 0); -1 for a t that is not a number (from an infinite scale).
int Bin(double t, int bins) {
  if (t == 1) t = 0;
  const double b = std::floor(double(bins) * t);
  return b >= 0 && b < bins ? int(b) : -1;
}

void Normalise(double* bins, int count) {
  double total = 0;
  for (int i = 0; i < count; ++i) total += bins[i];
  if (total > 0)
    for (int i = 0; i < count; ++i) bins[i] /= total;
}

// Samples the segment from parameter 0 in steps of spacing / length while below 1. The steps
// are added up rather than multiplied, as in training: a step like 0.1 may leave one extra
// sample just short of the segment's end.
template <typename At>
void Sample(Polyline& line, double spacing, double length, At at) {
  const double step = spacing / length;
  if (!(step > 0)) {  // an infinite length would never advance
    line.push_back(at(0.0));
    return;
  }
  for (double t = 0; t < 1; t += step) line.push_back(at(t));
}

double Distance(Point a, Point b) { return std::hypot(b.x - a.x, b.y - a.y); }

struct Glyphs {
  uint32_t x = 0, X = 0, L = 0, l = 0, I = 0, one = 0;
  uint32_t sample[kSampleLength] = {};
};

// The font qualifies only with all 52 letters and a glyph named "one".
bool FindGlyphs(FontAccess& fonts, QVFontHandle font, Glyphs& g) {
  uint32_t glyph = 0;
  for (const char* c = kAlphabet; *c; ++c)
    if (!fonts.GlyphByCode(font, uint32_t(*c), glyph)) return false;
  for (int i = 0; i < kSampleLength; ++i)
    if (!fonts.GlyphByCode(font, uint32_t(kSampleWord[i]), g.sample[i])) return false;
  return fonts.GlyphByCode(font, 'x', g.x) && fonts.GlyphByCode(font, 'X', g.X) && fonts.GlyphByCode(font, 'L', g.L) &&
         fonts.GlyphByCode(font, 'l', g.l) && fonts.GlyphByCode(font, 'I', g.I) &&
         fonts.GlyphByName(font, "one", g.one);
}

bool FetchLines(FontAccess& fonts, QVFontHandle font, uint32_t glyph, double spacing, double scale,
                std::vector<Polyline>& lines, GlyphPath* fetched = nullptr) {
  GlyphPath path;
  if (!fonts.Outline(font, glyph, kOutlineMatrix, path)) return false;
  lines = ResamplePath(path, spacing, scale);
  if (fetched) *fetched = std::move(path);
  return true;
}

// The 29-value record of one glyph of the sample word.
std::array<double, kRecordSize> OutlineRecord(const GlyphPath& path, const std::vector<Polyline>& lines) {
  std::array<double, kRecordSize> r{};
  r[0] = double(lines.size());
  for (const auto& s : path.segments) {
    r[1] += s.kind == GlyphPath::kLine;
    r[2] += s.kind == GlyphPath::kCurve;
  }
  for (const auto& line : lines)
    for (size_t i = 1; i < line.size(); ++i) r[3] += Distance(line[i - 1], line[i]);
  const PrincipalAxes axes = ComputePrincipalAxes(lines);
  r[4] = axes.eig0, r[5] = axes.eig1, r[6] = axes.angle;
  const auto angles = AngleHistogram(lines);
  const auto curves = CurvatureHistogram(lines, kCurvatureBins);
  r[7] = HistogramEntropy(angles.data(), kAngleBins);
  r[8] = HistogramEntropy(curves.data(), kCurvatureBins);
  std::copy(angles.begin(), angles.end(), r.begin() + kOutlineValues);
  std::copy(curves.begin(), curves.end(), r.begin() + kOutlineValues + kAngleBins);
  return r;
}

// The sample deviation is used here on purpose: the model was trained on it. No clamp, as
// the trainer had none for the raster values.
double SampleDeviation(double sum, double squares, double count) {
  return std::sqrt((squares - sum * sum / count) / (count - 1));
}

bool Compute(FontAccess& fonts, QVFontHandle font, std::array<double, kFeatureCount>& f) {
  Glyphs g;
  if (!FindGlyphs(fonts, font, g)) return false;

  QVFontMetrics metrics{};
  double underlinePosition = 0, underlineThickness = 0;
  QVFontStyle style{};
  if (!fonts.Metrics(font, metrics) || !fonts.Underline(font, underlinePosition, underlineThickness) ||
      !fonts.Style(font, style))
    return false;
  f[0] = metrics.ascent, f[1] = metrics.descent, f[2] = metrics.stemV, f[3] = metrics.xHeight;
  f[4] = metrics.italicAngle, f[5] = underlinePosition, f[6] = underlineThickness;
  f[7] = (style.flags & kQVFontFlagSerif) ? 1.0 : 0.0;
  f[8] = style.style == kQVFontStyleItalic || style.style == kQVFontStyleBoldItalic ? 1.0 : 0.0;
  f[9] = style.style == kQVFontStyleBold || style.style == kQVFontStyleBoldItalic ? 1.0 : 0.0;

  // Zero widths are not guarded: the infinity or NaN flows into the score as it did in training.
  QVGlyphBox xBox{}, XBox{};
  if (!fonts.GlyphBox(font, g.x, xBox) || !fonts.GlyphBox(font, g.X, XBox)) return false;
  const double xWidth = xBox.right - xBox.left, XWidth = XBox.right - XBox.left;
  const double xHeight = xBox.top - xBox.bottom, XHeight = XBox.top - XBox.bottom;
  f[10] = xWidth, f[11] = XWidth, f[12] = xHeight / xWidth;
  f[13] = xHeight, f[14] = XHeight, f[15] = XHeight / XWidth;

  // Advances relative to "X"'s, with the population deviation the model was trained on.
  double XAdvance = 0;
  if (!fonts.AdvanceWidth(font, g.X, XAdvance)) return false;
  XAdvance = std::max(XAdvance, 0.001);
  double sum = 0, squares = 0;
  for (uint32_t glyph : g.sample) {
    double advance = 0;
    if (!fonts.AdvanceWidth(font, glyph, advance)) return false;
    sum += advance / XAdvance, squares += (advance / XAdvance) * (advance / XAdvance);
  }
  const double mean = sum / kSampleLength;
  f[16] = mean, f[17] = std::sqrt(squares / kSampleLength - mean * mean);

  double rasterSum[3] = {}, rasterSquares[3] = {};
  for (uint32_t glyph : g.sample) {
    GlyphBitmap bitmap;
    RasterRates rates;
    if (!fonts.Bitmap(font, glyph, kRasterMatrix, bitmap) || !ComputeRasterRates(bitmap, rates)) return false;
    const double values[3] = {rates.share, rates.horizontal, rates.vertical};
    for (int i = 0; i < 3; ++i) rasterSum[i] += values[i], rasterSquares[i] += values[i] * values[i];
  }
  for (int i = 0; i < 3; ++i) {
    f[18 + 2 * i] = rasterSum[i] / kSampleLength;
    f[19 + 2 * i] = SampleDeviation(rasterSum[i], rasterSquares[i], kSampleLength);
  }

  // Outlines are measured in "X" widths; the factor is single precision as in training.
  const double scale = double(1.0f / float(XWidth));
  std::vector<Polyline> lines;
  if (!FetchLines(fonts, font, g.L, kCoarseSpacing, scale, lines)) return false;
  const PrincipalAxes L = ComputePrincipalAxes(lines);
  f[24] = std::sqrt(L.eig0), f[25] = std::sqrt(L.eig1), f[26] = L.angle;
  const auto LCurvature = CurvatureHistogram(lines, kLCurvatureBins);
  std::copy(LCurvature.begin(), LCurvature.end(), f.begin() + kLCurvature);

  const uint32_t strokes[3] = {g.l, g.I, g.one};
  for (int i = 0; i < 3; ++i) {
    if (!FetchLines(fonts, font, strokes[i], kFineSpacing, scale, lines)) return false;
    f[27 + i] = StrokeThickness(lines);
  }

  std::array<double, kRecordSize> recordSum{}, recordSquares{};
  for (uint32_t glyph : g.sample) {
    GlyphPath path;
    if (!FetchLines(fonts, font, glyph, kCoarseSpacing, scale, lines, &path)) return false;
    const auto record = OutlineRecord(path, lines);
    for (int k = 0; k < kRecordSize; ++k) recordSum[k] += record[k], recordSquares[k] += record[k] * record[k];
  }
  for (int k = 0; k < kRecordSize; ++k) {
    const double variance = (recordSquares[k] - recordSum[k] * recordSum[k] / kSampleLength) / (kSampleLength - 1);
    f[kRecordMeans + k] = recordSum[k] / kSampleLength;
    f[kRecordDeviations + k] = std::sqrt(std::max(variance, 0.0));
  }
  return true;
}

}  // namespace

std::string FeatureName(int index) {
  static const char* const kFixed[kRecordMeans] = {"ascent",
                                                   "descent",
                                                   "stemV",
                                                   "tectxHeight",
                                                   "italicAngle2",
                                                   "underlinePosition",
                                                   "underlineThickness",
                                                   "IsSerif",
                                                   "IsItalic",
                                                   "IsBold",
                                                   "xWidth",
                                                   "XWidth",
                                                   "xAspectRatio",
                                                   "xHeight",
                                                   "XHeight",
                                                   "XAspectRatio",
                                                   "horizWidth_mean",
                                                   "horizWidth_std",
                                                   "percentPixelsOn_mean",
                                                   "percentPixelsOn_std",
                                                   "horizGradientHist_mean",
                                                   "horizGradientHist_std",
                                                   "vertGradientHist_mean",
                                                   "vertGradientHist_std",
                                                   "Leig0",
                                                   "Leig1",
                                                   "LPCAAngle",
                                                   "lThickness",
                                                   "IThickness",
                                                   "1Thickness"};
  if (index < 0 || index >= kFeatureCount) return {};
  if (index < kRecordMeans) return kFixed[index];
  if (index >= kLCurvature) return "LcurvHist" + std::to_string(index - kLCurvature);
  const bool mean = index < kRecordDeviations;
  const int k = index - (mean ? kRecordMeans : kRecordDeviations);
  const std::string suffix = mean ? "_mean" : "_std";
  if (k < kOutlineValues) return kOutlineNames[k] + suffix;
  if (k < kOutlineValues + kAngleBins) return "angleHist" + std::to_string(k - kOutlineValues) + suffix;
  return "curvHist" + std::to_string(k - kOutlineValues - kAngleBins) + suffix;
}

bool ComputeFontFeatures(FontAccess& fonts, QVFontHandle font, std::array<double, kFeatureCount>& features) {
  try {
    return Compute(fonts, font, features);
  } catch (...) {  // out of memory on a pathological outline: the font simply gets no features
    return false;
  }
}

void WriteDebugRaster(const std::string& folder, const std::string& suffix, const GlyphBitmap& bitmap) {
  try {
    const std::string file = (std::filesystem::path(folder) / ("Raster" + suffix + ".pgm")).string();
    std::FILE* out = std::fopen(file.c_str(), "w");
    if (!out) return;
    std::fprintf(out, "P2\n# CREATOR: The GIMP's PNM Filter Version 1.0\n%d %d\n255\n", bitmap.width, bitmap.height);
    // Ink black on white paper, like every other raster of the module.
    for (int32_t y = 0; y < bitmap.height; ++y)
      for (int32_t x = 0; x < bitmap.width; ++x) {
        const size_t at = size_t(y) * size_t(bitmap.stride) + size_t(x) / 8;
        const bool ink = at < bitmap.bits.size() && (bitmap.bits[at] >> (7 - x % 8)) & 1;
        std::fprintf(out, "%d\n", ink ? 0 : 255);
      }
    std::fclose(out);
  } catch (...) {  // debug output never disturbs the computation
  }
}

namespace glyph_geometry {

std::vector<Polyline> ResamplePath(const GlyphPath& path, double spacing, double scale) {
  std::vector<Polyline> lines;
  Polyline line;
  bool open = false;
  Point start{0, 0}, pen{0, 0};
  auto line_to = [&](Point end) {
    Sample(line, spacing, Distance(pen, end), [&](double t) {
      return Point{pen.x + t * (end.x - pen.x), pen.y + t * (end.y - pen.y)};
    });
    pen = end;
  };
  // A contour left open ends at its last point.
  auto end_open = [&] {
    if (!open) return;
    line.push_back(pen);
    lines.push_back(std::move(line));
    line.clear();
    open = false;
  };
  for (const auto& s : path.segments) {
    switch (s.kind) {
      case GlyphPath::kMove:
        end_open();
        start = pen = {s.x[0], s.y[0]};
        open = true;
        break;
      case GlyphPath::kLine:
        open = true;
        line_to({s.x[0], s.y[0]});
        break;
      case GlyphPath::kCurve: {
        open = true;
        const Point p0 = pen, p1{s.x[0], s.y[0]}, p2{s.x[1], s.y[1]}, p3{s.x[2], s.y[2]};
        Sample(line, spacing, Distance(p0, p1) + Distance(p1, p2) + Distance(p2, p3), [&](double t) {
          const double u = 1 - t, a = u * u * u, b = 3 * u * u * t, c = 3 * u * t * t, d = t * t * t;
          return Point{a * p0.x + b * p1.x + c * p2.x + d * p3.x, a * p0.y + b * p1.y + c * p2.y + d * p3.y};
        });
        pen = p3;
        break;
      }
      case GlyphPath::kClose:
        if (open) {
          line_to(start);
          lines.push_back(std::move(line));
          line.clear();
          open = false;
        }
        pen = start;
        break;
      default:
        std::fputs("DUNNO\n", stdout);
        break;
    }
  }
  end_open();
  for (auto& l : lines)
    for (auto& p : l) p.x *= scale, p.y *= scale;
  return lines;
}

std::string SegmentName(int kind) {
  switch (kind) {
    case GlyphPath::kMove:
      return "move";
    case GlyphPath::kLine:
      return "line";
    case GlyphPath::kCurve:
      return "curve";
    case GlyphPath::kClose:
      return "closepath";
    default:
      return "DONT KNOW";
  }
}

PrincipalAxes ComputePrincipalAxes(const std::vector<Polyline>& lines) {
  double n = 0, sx = 0, sy = 0, sxx = 0, syy = 0, sxy = 0;
  for (const auto& line : lines)
    for (const Point& p : line) n += 1, sx += p.x, sy += p.y, sxx += p.x * p.x, syy += p.y * p.y, sxy += p.x * p.y;
  PrincipalAxes axes;
  if (n <= 1) return axes;
  const double vxx = (sxx - sx * sx / n) / (n - 1), vyy = (syy - sy * sy / n) / (n - 1);
  const double vxy = (sxy - sx * sy / n) / (n - 1);
  const double m = (vxx + vyy) / 2, r = std::sqrt(4 * vxy * vxy + (vxx - vyy) * (vxx - vyy));
  axes.eig0 = m + r / 2;
  axes.eig1 = m - r / 2;
  axes.angle = std::atan2(vxx - axes.eig0, -vxy);
  if (axes.angle < 0) axes.angle += kPi;
  return axes;
}

double StrokeThickness(const std::vector<Polyline>& lines) {
  double low = DBL_MAX, high = kMaxStart;
  for (const auto& line : lines)
    for (const Point& p : line) low = std::min(low, p.y), high = std::max(high, p.y);
  const double bandLow = low + 0.45 * (high - low), bandHigh = low + 0.55 * (high - low);
  double left = DBL_MAX, right = kMaxStart;
  for (const auto& line : lines)
    for (const Point& p : line)
      if (p.y >= bandLow && p.y <= bandHigh) left = std::min(left, p.x), right = std::max(right, p.x);
  return right == kMaxStart ? 0.0 : right - left;
}

std::array<double, 16> AngleHistogram(const std::vector<Polyline>& lines) {
  std::array<double, 16> bins{};
  for (const auto& line : lines)
    for (size_t i = 1; i < line.size(); ++i) {
      const double angle = SingleAngle(std::atan2(line[i].y - line[i - 1].y, line[i].x - line[i - 1].x));
      const int bin = Bin((angle + kPi) / kTwoPi, 16);
      if (bin >= 0) bins[size_t(bin)] += 1;
    }
  Normalise(bins.data(), 16);
  return bins;
}

std::vector<double> CurvatureHistogram(const std::vector<Polyline>& lines, int bins) {
  std::vector<double> hist(size_t(std::max(bins, 0)), 0.0);
  for (const auto& line : lines)
    for (size_t i = 2; i < line.size(); ++i) {
      const Point a = line[i - 2], b = line[i - 1], c = line[i];
      const double ux = a.x - b.x, uy = a.y - b.y, vx = c.x - b.x, vy = c.y - b.y;
      const double uu = ux * ux + uy * uy, vv = vx * vx + vy * vy;
      if (uu == 0 || vv == 0) continue;
      const double cosine = std::clamp((ux * vx + uy * vy) / std::sqrt(uu * vv), -1.0, 1.0);
      const int bin = Bin(SingleAngle(std::acos(cosine)) / kPi, bins);
      if (bin >= 0) hist[size_t(bin)] += 1;
    }
  Normalise(hist.data(), int(hist.size()));
  return hist;
}

double HistogramEntropy(const double* bins, int count) {
  double entropy = 0;
  for (int i = 0; i < count; ++i) entropy -= bins[i] * std::log(bins[i] + 0.00001);
  return entropy;
}

bool ComputeRasterRates(const GlyphBitmap& bitmap, RasterRates& rates) {
  const int64_t W = bitmap.width, stride = bitmap.stride;
  if (W < 0 || stride < 0 || stride * 8 < W) return false;
  // The height is what the buffer holds, not what the raster claims.
  const int64_t H = stride > 0 ? int64_t(bitmap.bits.size()) / stride : 0;
  auto set = [&](int64_t x, int64_t y) {
    return x >= 0 && y >= 0 && x < W && y < H && (bitmap.bits[size_t(y * stride + x / 8)] >> (7 - x % 8)) & 1;
  };
  double on = 0, horizontal = 0, vertical = 0;
  for (int64_t y = 0; y <= H; ++y)
    for (int64_t x = 0; x <= W; ++x) {
      const bool here = set(x, y);
      on += here;
      if (y < H) horizontal += here != set(x - 1, y);
      if (x < W) vertical += here != set(x, y - 1);
    }
  rates.share = on / double(W * H);
  rates.horizontal = horizontal / double(H * (W + 1));
  rates.vertical = vertical / double(W * (H + 1));
  return true;
}

}  // namespace glyph_geometry
}  // namespace fontrix
