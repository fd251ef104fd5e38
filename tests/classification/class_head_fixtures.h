#pragma once
// Class head networks for tests, built as the engine reads them.
#include <memory>
#include <vector>

#include "classification/class_head.h"
#include "deepnet/layers/activation.h"
#include "deepnet/layers/data.h"
#include "deepnet/layers/fc.h"

namespace fontrix::testing {

/// "data" (`dim` values) -> "class_hidden" (fc, one row of `dim` weights and a bias per hidden
/// unit) -> its ReLU -> `output` (fc, one row of hidden-unit weights and a bias per logit).
inline deepnet::layer_model_list HeadNetwork(uint32_t dim, std::vector<float> hiddenWeights,
                                             std::vector<float> hiddenBiases, std::vector<float> logitWeights,
                                             std::vector<float> logitBiases, const char* output = kClassHeadOutput) {
  auto data = std::make_shared<deepnet::layer_model_data>();
  data->name = "data";
  auto hidden = std::make_shared<deepnet::layer_model_fc>();
  hidden->name = "class_hidden";
  hidden->inputs.push_back(data.get());
  hidden->input_sizes = {dim};
  hidden->num_output = uint32_t(hiddenBiases.size());
  hidden->weights = std::move(hiddenWeights);
  hidden->biases = std::move(hiddenBiases);
  auto relu = std::make_shared<deepnet::layer_model_activation>();
  relu->name = "class_hidden_relu";
  relu->inputs.push_back(hidden.get());
  auto logits = std::make_shared<deepnet::layer_model_fc>();
  logits->name = output;
  logits->inputs.push_back(relu.get());
  logits->input_sizes = {hidden->num_output};
  logits->num_output = uint32_t(logitBiases.size());
  logits->weights = std::move(logitWeights);
  logits->biases = std::move(logitBiases);
  return {data, hidden, relu, logits};
}

}  // namespace fontrix::testing
