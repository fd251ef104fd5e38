#pragma once
// Small generated data for the similarity tests: a network whose "pool4" gives 768 values per
// 109 x 109 crop, and shipped pairs of any size with vectors of our choosing.
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "deepnet/layers/activation.h"
#include "deepnet/layers/conv3d.h"
#include "deepnet/layers/data.h"
#include "deepnet/layers/pool3d.h"
#include "deepnet/model_io.h"
#include "similarity/similarity_table.h"

namespace fontrix::testing {

/// data -> max-pool 3/3 (37 x 37) -> conv 5/5 to 192 channels (7 x 7) -> rectifier -> "pool4":
/// max-pool 4/3 (2 x 2 x 192 = 768).
inline deepnet::layer_model_list MakeTestNetwork(unsigned seed = 1) {
  using namespace deepnet;
  layer_model_list m;
  auto add = [&](std::shared_ptr<layer_model_base> layer, const char* name, const char* input) {
    layer->name = name;
    if (input) layer->inputs.push_back(layer_model_base::find(m, input));
    m.push_back(layer);
  };
  add(std::make_shared<layer_model_data>(), "data", nullptr);
  auto p0 = std::make_shared<layer_model_poolmax3d>();
  p0->kernel_w = p0->kernel_h = p0->stride_w = p0->stride_h = 3;
  add(p0, "pool0", "data");
  auto conv = std::make_shared<layer_model_conv3d>();
  conv->num_input = 1;
  conv->num_output = 192;
  conv->kernel_w = conv->kernel_h = conv->stride_w = conv->stride_h = 5;
  std::mt19937 gen(seed);
  std::normal_distribution<float> w(0.0f, 0.02f);
  conv->weights.resize(conv->weight_count());
  for (auto& v : conv->weights) v = w(gen);
  conv->biases.assign(192, 0.5f);
  add(conv, "conv", "pool0");
  add(std::make_shared<layer_model_activation>(), "relu", "conv");
  auto p4 = std::make_shared<layer_model_poolmax3d>();
  p4->kernel_w = p4->kernel_h = 4;
  p4->stride_w = p4->stride_h = 3;
  add(p4, "pool4", "relu");
  return m;
}

/// Writes a meta/feature pair: for entry i, identifier id(i), name name(i), vector vec(i). A
/// cache pair (field 3 "0") gets its check sums, as a save writes them.
inline void WritePair(const std::string& meta, const std::string& feature, size_t n,
                      const std::function<std::string(size_t)>& id, const std::function<std::string(size_t)>& name,
                      const std::function<std::vector<float>(size_t)>& vec, const char* field3 = "1") {
  std::ofstream m(meta, std::ios::binary), f(feature, std::ios::binary);
  std::ofstream sums;
  if (std::string(field3) == "0") {
    sums.open(CacheSumsPath(meta), std::ios::binary | std::ios::trunc);
    sums << kCacheSumsHeader << '\n';
  }
  for (size_t i = 0; i < n; ++i) {
    m << id(i) << "\n0\n" << field3 << "\n" << name(i) << "\nFamily " << i << "\nRegular\n";
    const auto v = vec(i);
    f.write(reinterpret_cast<const char*>(v.data()), std::streamsize(v.size() * sizeof(float)));
    if (sums.is_open()) sums << SumText(EntrySum(name(i), v.data())) << '\n';
  }
}

/// A unit-half vector pointing mostly along axis `axis` of each half.
inline std::vector<float> AxisVector(size_t axis, float spread = 0.1f) {
  std::vector<float> v(kFeatureDim, spread / 20);
  v[axis % 384] = 1.0f;
  v[384 + axis % 384] = 1.0f;
  for (size_t half = 0; half < 2; ++half) {
    double s = 0;
    for (size_t i = 0; i < 384; ++i) s += double(v[half * 384 + i]) * v[half * 384 + i];
    for (size_t i = 0; i < 384; ++i) v[half * 384 + i] = float(v[half * 384 + i] / std::sqrt(s));
  }
  return v;
}

}  // namespace fontrix::testing
