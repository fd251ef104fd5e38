#pragma once
// A small recognition network for tests and the benchmark: the similarity test trunk, then
// one class per font through a fully connected layer and "prob".
#include <random>

#include "deepnet/layers/fc.h"
#include "deepnet/layers/softmax.h"
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

}  // namespace fontrix::testing
