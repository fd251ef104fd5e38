#include "recognition/line_scoring.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "deepnet/network.h"
#include "similarity/specimen.h"

namespace fontrix {

std::pair<uint32_t, uint32_t> BandFromDetections(const std::vector<std::pair<float, float>>& detections,
                                                 uint32_t height) {
  if (detections.empty()) return {0, height};
  std::vector<float> starts, ends;
  auto clamp = [&](float v) { return std::min(std::max(v, 0.0f), float(height)); };
  for (const auto& [start, end] : detections) {
    starts.push_back(clamp(start));
    ends.push_back(clamp(end));
  }
  std::sort(starts.begin(), starts.end());
  std::sort(ends.begin(), ends.end());
  uint32_t left = uint32_t(starts[starts.size() / 2]), right = uint32_t(ends[ends.size() / 2]);
  if (left > right) std::swap(left, right);
  if (left == right) return {0, height};
  return {left, right};
}

std::pair<uint32_t, uint32_t> LocaliseBand(const deepnet::layer_model_list& network, const GreyRaster& raster) {
  int32_t width = 0;
  const std::vector<float> line = ToLineHeight(raster, width);
  if (width < kNarrowestLocalisedLine || width > kWidestLocalisedLine) return {0, uint32_t(raster.height)};
  deepnet::input_view view{uint64_t(width), kLineHeight, 1, 1, line.data()};
  deepnet::layer_test_list tests;
  deepnet::deepnet_construct_layer_test(tests, network, view, 1);
  const auto& out = *tests[deepnet::deepnet_compute_feature(network, tests, 1, "detections")];
  std::vector<std::pair<float, float>> detections;
  for (uint64_t i = 0; i + 2 < out.y_size_1d(); i += 3)
    detections.emplace_back(out.y[i] * float(raster.height), out.y[i + 1] * float(raster.height));
  return BandFromDetections(detections, uint32_t(raster.height));
}

std::vector<float> ToLineHeight(const GreyRaster& band, int32_t& width) {
  const int32_t H = band.height, W = band.width;
  if (H < 1 || W < 1) throw std::runtime_error("ToLineHeight(): empty band");
  if (H == kLineHeight) {
    width = W;
    return std::vector<float>(band.pixels.begin(), band.pixels.end());
  }
  width = int32_t(uint64_t(W) * kLineHeight / uint64_t(H));
  if (width < 1) width = 1;
  std::vector<float> out(size_t(width) * kLineHeight);
  // Bilinear, sampling at pixel centres.
  const double sy = double(H) / kLineHeight, sx = double(W) / width;
  for (int32_t y = 0; y < kLineHeight; ++y) {
    const double fy = std::max(0.0, (y + 0.5) * sy - 0.5);
    const int32_t y0 = std::min(H - 1, int32_t(fy)), y1 = std::min(H - 1, y0 + 1);
    const double wy = fy - y0;
    for (int32_t x = 0; x < width; ++x) {
      const double fx = std::max(0.0, (x + 0.5) * sx - 0.5);
      const int32_t x0 = std::min(W - 1, int32_t(fx)), x1 = std::min(W - 1, x0 + 1);
      const double wx = fx - x0;
      auto p = [&](int32_t yy, int32_t xx) { return double(band.pixels[size_t(yy) * size_t(W) + size_t(xx)]); };
      out[size_t(y) * size_t(width) + size_t(x)] =
          float((p(y0, x0) * (1 - wx) + p(y0, x1) * wx) * (1 - wy) + (p(y1, x0) * (1 - wx) + p(y1, x1) * wx) * wy);
    }
  }
  return out;
}

std::vector<float> ResampleRow(const float* row, int32_t width, double scale) {
  const int32_t n = int32_t(std::floor(double(width) / scale));
  std::vector<float> out(size_t(std::max(n, 0)));
  for (int32_t j = 0; j < n; ++j) {
    const float x = float(double(j) * scale);
    const int32_t i = int32_t(std::floor(x));
    const float f = x - float(i);
    if (f == 0.0f) {
      out[size_t(j)] = row[i];
    } else {
      const int32_t k = std::min(width - 2, i);
      out[size_t(j)] = row[k] + (row[k + 1] - row[k]) * f;
    }
  }
  return out;
}

std::vector<float> LineCrops(const std::vector<float>& line, int32_t width) {
  std::vector<float> crops;
  crops.reserve(size_t(2 * kCropsPerSpecimen) * kLineHeight * kLineHeight);
  for (double scale : kRecognitionScales) {
    const int32_t n = int32_t(std::floor(double(width) / scale));
    if (n < 1) throw std::runtime_error("LineCrops(): line too narrow for the scale");
    const int32_t repeats = (kLineHeight + n - 1) / n, tiled = repeats * n;
    const std::vector<int> offsets = CropOffsets(tiled);
    std::vector<std::vector<float>> rows(kLineHeight);
    for (int32_t r = 0; r < kLineHeight; ++r) {
      const std::vector<float> resampled = ResampleRow(line.data() + size_t(r) * size_t(width), width, scale);
      rows[size_t(r)].reserve(size_t(tiled));
      for (int32_t t = 0; t < repeats; ++t)
        rows[size_t(r)].insert(rows[size_t(r)].end(), resampled.begin(), resampled.end());
    }
    for (int c = 0; c < kCropsPerSpecimen; ++c)
      for (int32_t r = 0; r < kLineHeight; ++r)
        for (int32_t k = 0; k < kLineHeight; ++k)
          crops.push_back(rows[size_t(r)][size_t(offsets[size_t(c)] + k)] - 128.0f);
  }
  return crops;
}

LineReading ReadLine(const deepnet::layer_model_list& network, const std::vector<float>& line, int32_t width) {
  const std::vector<float> crops = LineCrops(line, width);
  const uint64_t total = crops.size() / (kLineHeight * kLineHeight);
  size_t pool4 = network.size();
  for (size_t i = 0; i < network.size(); ++i)
    if (network[i]->name == "pool4") pool4 = i;
  LineReading reading;
  for (uint64_t first = 0; first < total;) {
    const uint64_t count = first == 0 ? total / 2 : total - first;
    deepnet::input_view view{kLineHeight, kLineHeight, 1, count, crops.data() + first * kLineHeight * kLineHeight};
    deepnet::layer_test_list tests;
    deepnet::deepnet_construct_layer_test(tests, network, view, count);
    const size_t top = deepnet::deepnet_compute_feature(network, tests, count, "prob");
    const auto& prob = *tests[top];
    const uint64_t classes = prob.y_size_1d();
    reading.prob.resize(classes, 0.0f);
    for (uint64_t c = 0; c < count; ++c)
      for (uint64_t k = 0; k < classes; ++k) reading.prob[k] += prob.y[c * classes + k];
    // "pool4" comes before "prob", so the run above has computed it.
    if (pool4 < top) {
      const auto& features = *tests[pool4];
      const uint64_t n = features.y_size_1d();
      reading.features.resize(n, 0.0f);
      for (uint64_t c = 0; c < count; ++c)
        for (uint64_t k = 0; k < n; ++k) reading.features[k] += features.y[c * n + k];
    }
    first += count;
  }
  const float mean = float(1.0 / double(total));
  for (float& v : reading.prob) v *= mean;
  for (float& v : reading.features) v *= mean;
  return reading;
}

}  // namespace fontrix
