#pragma once
// A small recognition network for tests and the benchmark: the similarity test trunk, then
// one class per font through a fully connected layer and "prob".
#include <random>

#include "deepnet/layers/fc.h"
#include "deepnet/layers/softmax.h"
#include "recognition/line_scoring.h"
#include "tests/similarity/similarity_fixtures.h"

namespace fontrix::testing {

inline deepnet::layer_model_list RecognitionNetwork(uint32_t classes, float spread = 0.05f) {
  auto m = MakeTestNetwork(3);
  auto fc = std::make_shared<deepnet::layer_model_fc>();
  fc->name = "fc";
  fc->inputs.push_back(m.back().get());
  fc->input_sizes = {768};
  fc->num_output = classes;
  std::mt19937 gen(9);
  std::normal_distribution<float> w(0.0f, spread);
  fc->weights.resize(size_t(768) * classes);
  for (auto& v : fc->weights) v = w(gen);
  fc->biases.assign(classes, 0.0f);
  m.push_back(fc);
  auto prob = std::make_shared<deepnet::layer_model_softmax>();
  prob->name = "prob";
  prob->inputs.push_back(fc.get());
  m.push_back(prob);
  return m;
}

/// A localisation network shaped like the trained one at its end: per row, the max over the
/// whole width (two poolings), then "detections" = (start, share × sum of the row maxima / 255 /
/// 109, 1). With share 1 the end is the share of rows holding something bright.
inline deepnet::layer_model_list LocalisationNetwork(float start, float share) {
  using namespace deepnet;
  layer_model_list m;
  auto data = std::make_shared<layer_model_data>();
  data->name = "data";
  m.push_back(data);
  auto split = std::make_shared<layer_model_poolmax3d>();
  split->name = "width_max_split";
  split->inputs.push_back(data.get());
  split->kernel_w = split->stride_w = 16384;
  split->pad_w_begin = 16383;
  split->kernel_h = split->stride_h = 1;
  m.push_back(split);
  auto max = std::make_shared<layer_model_poolmax3d>();
  max->name = "width_max";
  max->inputs.push_back(split.get());
  max->kernel_w = max->stride_w = 2;
  max->kernel_h = max->stride_h = 1;
  m.push_back(max);
  auto fc = std::make_shared<layer_model_fc>();
  fc->name = "detections";
  fc->inputs.push_back(max.get());
  fc->input_sizes = {uint32_t(kLineHeight)};
  fc->num_output = 3;
  fc->weights.assign(size_t(3) * kLineHeight, 0.0f);
  for (int r = 0; r < kLineHeight; ++r) fc->weights[size_t(kLineHeight) + size_t(r)] = share / 255.0f / kLineHeight;
  fc->biases = {start, 0.0f, 1.0f};
  m.push_back(fc);
  return m;
}

}  // namespace fontrix::testing
