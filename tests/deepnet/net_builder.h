#pragma once
// Builds small model lists in code and runs them, for the engine's tests.
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "deepnet/layers/activation.h"
#include "deepnet/layers/concat.h"
#include "deepnet/layers/conv3d.h"
#include "deepnet/layers/cost_logreg.h"
#include "deepnet/layers/data.h"
#include "deepnet/layers/fc.h"
#include "deepnet/layers/normcross3d.h"
#include "deepnet/layers/pool3d.h"
#include "deepnet/layers/softmax.h"
#include "deepnet/network.h"

namespace deepnet::testing {

/// Appends layers to a model list, binding inputs by name as the reader does.
class net_builder {
 public:
  template <typename Model>
  Model& add(const std::string& name, std::vector<std::string> input_names = {}) {
    auto layer = std::make_shared<Model>();
    layer->name = name;
    for (const auto& in : input_names) layer->inputs.push_back(layer_model_base::find(models, in));
    models.push_back(layer);
    return *layer;
  }

  layer_model_list models;
};

/// The message of the std::runtime_error that `f` throws, or "no error".
inline std::string error_text(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "no error";
}

inline std::vector<float> random_values(size_t n, unsigned seed, float lo = -1.0f, float hi = 1.0f) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(lo, hi);
  std::vector<float> v(n);
  for (auto& x : v) x = dist(gen);
  return v;
}

/// The output of one forward pass up to `layer`, with its shape.
struct run_result {
  std::vector<float> y;
  std::vector<uint64_t> dims;
};

inline run_result run(const layer_model_list& models, const std::vector<float>& pixels, uint64_t width, uint64_t height,
                      uint64_t count, const char* layer, uint64_t channels = 1) {
  input_view view;
  view.width = width;
  view.height = height;
  view.channels = channels;
  view.count = count;
  view.data = pixels.data();
  layer_test_list tests;
  deepnet_construct_layer_test(tests, models, view, count);
  const size_t i = deepnet_compute_feature(models, tests, count, layer);
  run_result r;
  r.y.assign(tests[i]->y.begin(), tests[i]->y.end());
  r.dims.assign(tests[i]->dims, tests[i]->dims + tests[i]->ndim);
  return r;
}

}  // namespace deepnet::testing

namespace deepnet::testing {

/// A runnable layer whose output is set by the test: feeds any tensor to the layer under test.
class fixed_input : public layer_test_base<float> {
 public:
  fixed_input(uint64_t batch_count, std::vector<uint64_t> shape, const std::vector<float>& values) {
    batch = batch_count;
    ndim = shape.size();
    for (size_t i = 0; i < shape.size(); ++i) dims[i] = shape[i];
    y.assign_zero(values.size());
    std::copy(values.begin(), values.end(), y.begin());
  }
  void allocate(const layer_model_base&) override {}
  void fprop_test(uint64_t, const layer_model_base&) override {}
};

/// Allocates `layer` over `inputs` for `batch` samples, runs it once and returns its output.
template <typename Test>
std::vector<float> run_layer(Test& layer, const layer_model_base& model, std::vector<layer_test_base<float>*> inputs,
                             uint64_t batch) {
  layer.batch = batch;
  layer.inputs = std::move(inputs);
  layer.allocate(model);
  layer.fprop_test(batch, model);
  return std::vector<float>(layer.y.begin(), layer.y.end());
}

}  // namespace deepnet::testing
