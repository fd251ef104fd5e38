#pragma once
// The 96 numeric features a font is classified by: its metrics and style flags, the boxes and
// advances of a few glyphs, and statistics of glyph outlines and rasters over the word
// "Handgloves". The model was trained on exactly these values, quirks included, so every
// formula here is kept as the model saw it.
#include <array>
#include <string>
#include <vector>

#include "classification/labels.h"
#include "hostglue/font_access.h"

namespace fontrix {

/// The feature's name ("ascent", ..., "LcurvHist7").
std::string FeatureName(int index);
/// The 96 features of `font`; false when the font lacks a required glyph or the engine refuses a request.
bool ComputeFontFeatures(hostglue::FontAccess& fonts, QVFontHandle font, std::array<double, kFeatureCount>& features);
/// Writes `bitmap` as a plain PGM ("Raster" + suffix + ".pgm" in `folder`); silently skipped when it cannot be opened.
void WriteDebugRaster(const std::string& folder, const std::string& suffix, const hostglue::GlyphBitmap& bitmap);

// The building blocks of the outline and raster features: glyph outlines resampled, their
// curvature and direction, raster runs.
namespace glyph_geometry {

/// Pi as the model's trainer had it: the single-precision value, widened.
constexpr double kPi = 3.1415927410125732;
constexpr double kTwoPi = 6.2831854820251465;

struct Point {
  double x, y;
};
using Polyline = std::vector<Point>;

/// One polyline per contour of `path`, sampled every `spacing` path units along each segment
/// (a close path is a line back to the contour's start), then multiplied by `scale`. Segments
/// of an unknown kind print "DUNNO" and are skipped.
std::vector<Polyline> ResamplePath(const hostglue::GlyphPath& path, double spacing, double scale);

/// The debug name of a segment kind ("move", "line", "curve", "closepath"; "DONT KNOW" otherwise).
std::string SegmentName(int kind);

/// Variances along the principal axes of all points (eig0 >= eig1) and the angle of the first
/// axis in 0..pi; all zero for at most one point.
struct PrincipalAxes {
  double eig0 = 0, eig1 = 0, angle = 0;
};
PrincipalAxes ComputePrincipalAxes(const std::vector<Polyline>& lines);

/// Horizontal extent of the points in the 45..55 % height band; 0 when none lies there.
double StrokeThickness(const std::vector<Polyline>& lines);

/// Edge directions in 16 bins, normalised to sum 1 (all zero without edges).
std::array<double, 16> AngleHistogram(const std::vector<Polyline>& lines);

/// Turning angles at each inner point in `bins` bins, normalised; a straight continuation
/// counts in bin 0 with the sharpest turns.
std::vector<double> CurvatureHistogram(const std::vector<Polyline>& lines, int bins);

/// Minus the sum of p ln(p + 0.00001) over the bins.
double HistogramEntropy(const double* bins, int count);

/// Share of set pixels and the horizontal and vertical change rates of a 1-bit raster, with
/// the pixels around it counted as unset.
struct RasterRates {
  double share = 0, horizontal = 0, vertical = 0;
};
/// False for a raster whose rows are too short for its width.
bool ComputeRasterRates(const hostglue::GlyphBitmap& bitmap, RasterRates& rates);

}  // namespace glyph_geometry
}  // namespace fontrix
