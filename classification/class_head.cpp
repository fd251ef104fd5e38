#include "classification/class_head.h"

#include <algorithm>
#include <cmath>

#include "deepnet/model_io.h"
#include "deepnet/network.h"
#include "shell/check_sum.h"
#include "shell/file_bytes.h"

namespace fontrix {

namespace {

// Vectors run through the engine this many at a time: the layers' buffers stay small however
// many fonts are installed.
constexpr size_t kBatch = 256;

}  // namespace

ClassHead::ClassHead(const std::string& path, size_t dim) : dim_(dim) {
  const std::string bytes = ReadDataFile<ClassHeadError>(path);
  identity_ = CheckSum(bytes.data(), bytes.size(), 0);
  try {
    const auto* begin = reinterpret_cast<const uint8_t*>(bytes.data());
    const uint8_t* end = begin + bytes.size();
    if (deepnet::deepnet_deserialize_layer_model(begin, end, layers_) != end)
      throw std::runtime_error("bytes after the last layer");
    // One zero vector through the network proves its shape and that every layer runs.
    const std::vector<float> zero(dim_, 0.0f);
    deepnet::input_view view{dim_, 1, 1, 1, zero.data()};
    deepnet::layer_test_list tests;
    deepnet::deepnet_construct_layer_test(tests, layers_, view, 1);
    const auto& out = *tests[deepnet::deepnet_compute_feature(layers_, tests, 1, kClassHeadOutput)];
    if (out.y_size_1d() != kStyleClassCount)
      throw std::runtime_error("'" + std::string(kClassHeadOutput) + "' gives " + std::to_string(out.y_size_1d()) +
                               " values, not one per style class");
    for (uint64_t c = 0; c < kStyleClassCount; ++c)
      if (!std::isfinite(out.y[c])) throw std::runtime_error("a zero vector gives a logit that is not a number");
  } catch (const std::exception& e) {
    throw ClassHeadError(path + " cannot be used: " + e.what());
  }
}

std::vector<ClassProbabilities> ClassHead::Probabilities(const float* vectors, size_t count) const {
  std::vector<ClassProbabilities> out(count);
  for (size_t first = 0; first < count; first += kBatch) {
    const size_t n = std::min(kBatch, count - first);
    // A vector goes in as one row of `dim` values: the data layer copies one plane a sample.
    deepnet::input_view view{dim_, 1, 1, n, vectors + first * dim_};
    deepnet::layer_test_list tests;
    deepnet::deepnet_construct_layer_test(tests, layers_, view, n);
    const auto& logits = *tests[deepnet::deepnet_compute_feature(layers_, tests, n, kClassHeadOutput)];
    for (size_t i = 0; i < n; ++i)
      for (size_t c = 0; c < kStyleClassCount; ++c)
        out[first + i][c] = 1.0 / (1.0 + std::exp(-double(logits.y[i * kStyleClassCount + c])));
  }
  return out;
}

}  // namespace fontrix
