#pragma once
// The geometry of recognition: the text band of a raster, brought to the network's height,
// resampled at two scales, tiled and cropped, and scored by the recognition network.
#include <cstdint>
#include <vector>

#include "deepnet/layer_model.h"

namespace fontrix {

constexpr int kLineHeight = 109;
/// What a picture may make the recognition resample: a line at most this many times as wide as
/// high (the leftmost part of a longer one is read), and at 109 rows at least this many columns
/// wide (a narrower band is taller than any line of text and gets no answer).
constexpr int32_t kMaxLineAspect = 128, kNarrowestLine = 16;
constexpr double kRecognitionScales[2] = {1.0, 1.5};

/// An 8-bit grey raster: `height` rows of `width` bytes.
struct GreyRaster {
  int32_t width = 0, height = 0;
  std::vector<uint8_t> pixels;
};

/// The band of rows [left, right) that detections of (start, end) rows point at: each clamped
/// to [0, height], the median start and median end (element n / 2 of each sorted list), swapped
/// when reversed, the whole raster when they meet or there are none.
std::pair<uint32_t, uint32_t> BandFromDetections(const std::vector<std::pair<float, float>>& detections,
                                                 uint32_t height);

/// Narrowest and widest lines (at 109 rows) the localisation network is run on; a narrower
/// raster is not a line of text, and past the widest the network's pooling over the whole width
/// no longer reaches every column. Either goes on whole.
constexpr int32_t kNarrowestLocalisedLine = 32, kWidestLocalisedLine = 65536;

/// The text band of `raster` found by the localisation network: the network reads the raster
/// brought to 109 rows (values 0..255) and gives, in its layer "detections", triples (start, end,
/// confidence) with start and end as fractions of the raster's height; the band is
/// BandFromDetections of those.
std::pair<uint32_t, uint32_t> LocaliseBand(const deepnet::layer_model_list& network, const GreyRaster& raster);

/// The band brought to 109 rows: unchanged when it has 109, else resampled bilinearly to
/// width × 109 / height columns (truncated) and 109 rows. Values stay 0..255, as floats.
std::vector<float> ToLineHeight(const GreyRaster& band, int32_t& width);

/// One row resampled at `scale`: n = floor(width / scale) values; output j reads x = j × scale
/// (rounded to float) and interpolates from i' = min(width - 2, floor(x)) with the fraction of
/// floor(x), so the right edge extrapolates as the recognition network was trained.
std::vector<float> ResampleRow(const float* row, int32_t width, double scale);

/// The crops of a line image (109 rows of `width` values): per scale, five 109 × 109 crops of the
/// resampled, tiled rows, each value minus 128; the scales' crops one after another.
std::vector<float> LineCrops(const std::vector<float>& line, int32_t width);

/// What the recognition network reads in a line: the mean of its "prob" over the ten crops, and
/// the mean of its "pool4" (the trunk's values before the class layer) over them, empty for a
/// network without a layer of that name.
struct LineReading {
  std::vector<float> prob, features;
  /// Width over height of the letters of x-height in the lines read (letter_proportions.h).
  std::vector<float> letterProportions;
};

/// Reads the ten crops of a line, run in two batches of five.
LineReading ReadLine(const deepnet::layer_model_list& network, const std::vector<float>& line, int32_t width);

}  // namespace fontrix
