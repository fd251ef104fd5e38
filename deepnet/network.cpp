#include "deepnet/network.h"

#include <cstring>
#include <stdexcept>
#include <string>

#include "deepnet/layer_registry.h"

namespace deepnet {

void deepnet_construct_layer_test(layer_test_list& tests, const layer_model_list& models, const input_view& view,
                                  uint64_t batch) {
  for (size_t i = 0; i < models.size(); ++i) {
    const auto& model = models[i];
    auto layer = deepnet_create_layer_test(model->type, &view);
    if (!layer) throw std::runtime_error("deepnet_construct_layer_test(): unknown layer type");
    layer->batch = batch;
    for (const auto* input : model->inputs) {
      size_t index = 0;
      while (index < models.size() && models[index].get() != input) ++index;
      // A layer may name itself or a later layer only through a corrupt file; there is no
      // runnable layer to read from yet.
      if (index >= i) throw std::runtime_error("deepnet_construct_layer_test(): input is not an earlier layer");
      layer->inputs.push_back(tests[index].get());
    }
    layer->allocate(*model);
    tests.push_back(layer);
  }
}

size_t deepnet_compute_feature(const layer_model_list& models, layer_test_list& tests, uint64_t batch,
                               const char* name) {
  const std::string wanted(name, std::strlen(name));
  size_t i = 0;
  while (i < models.size() && models[i]->name != wanted) ++i;
  if (i == models.size()) throw std::runtime_error("deepnet_compute_feature(): Cannot find a layer with matching name");
  if (i >= tests.size()) throw std::runtime_error("deepnet_compute_feature(): network not constructed for this model");
  for (size_t j = 0; j <= i; ++j) tests[j]->fprop_test(batch, *models[j]);
  return i;
}

}  // namespace deepnet
