// The one written-out table of layer types: adding a layer means one line here.
#include "deepnet/layer_registry.h"

#include "deepnet/layers/activation.h"
#include "deepnet/layers/concat.h"
#include "deepnet/layers/conv3d.h"
#include "deepnet/layers/cost_logreg.h"
#include "deepnet/layers/data.h"
#include "deepnet/layers/fc.h"
#include "deepnet/layers/normcross3d.h"
#include "deepnet/layers/pool3d.h"
#include "deepnet/layers/softmax.h"

namespace deepnet {

namespace {

using model_factory = std::shared_ptr<layer_model_base> (*)();
using test_factory = std::shared_ptr<layer_test_base<float>> (*)(const input_view*);

template <typename Model, typename Test>
struct entry_for {
  static std::shared_ptr<layer_model_base> model() { return std::make_shared<Model>(); }
  static std::shared_ptr<layer_test_base<float>> test(const input_view*) { return std::make_shared<Test>(); }
};

struct layer_entry {
  uint32_t type;
  model_factory model;
  test_factory test;
};

std::shared_ptr<layer_test_base<float>> make_data(const input_view* view) {
  return std::make_shared<layer_test_data>(view);
}

const layer_entry registry[] = {
    {layer_type_data, entry_for<layer_model_data, layer_test_data>::model, make_data},
    {layer_type_conv3d, entry_for<layer_model_conv3d, layer_test_conv3d>::model,
     entry_for<layer_model_conv3d, layer_test_conv3d>::test},
    {layer_type_fc, entry_for<layer_model_fc, layer_test_fc>::model, entry_for<layer_model_fc, layer_test_fc>::test},
    {layer_type_normcross3d, entry_for<layer_model_normcross3d, layer_test_normcross3d>::model,
     entry_for<layer_model_normcross3d, layer_test_normcross3d>::test},
    {layer_type_poolmax3d, entry_for<layer_model_poolmax3d, layer_test_poolmax3d>::model,
     entry_for<layer_model_poolmax3d, layer_test_poolmax3d>::test},
    {layer_type_poolavg3d, entry_for<layer_model_poolavg3d, layer_test_poolavg3d>::model,
     entry_for<layer_model_poolavg3d, layer_test_poolavg3d>::test},
    {layer_type_activation, entry_for<layer_model_activation, layer_test_activation>::model,
     entry_for<layer_model_activation, layer_test_activation>::test},
    {layer_type_concat, entry_for<layer_model_concat, layer_test_concat>::model,
     entry_for<layer_model_concat, layer_test_concat>::test},
    {layer_type_softmax, entry_for<layer_model_softmax, layer_test_softmax>::model,
     entry_for<layer_model_softmax, layer_test_softmax>::test},
    {layer_type_cost_logreg, entry_for<layer_model_cost_logreg, layer_test_cost_logreg>::model,
     entry_for<layer_model_cost_logreg, layer_test_cost_logreg>::test},
};

const layer_entry* find_entry(uint32_t type) {
  for (const auto& e : registry)
    if (e.type == type) return &e;
  return nullptr;
}

}  // namespace

std::shared_ptr<layer_model_base> deepnet_create_layer_model(uint32_t type) {
  const layer_entry* e = find_entry(type);
  return e ? e->model() : nullptr;
}

std::shared_ptr<layer_test_base<float>> deepnet_create_layer_test(uint32_t type, const input_view* view) {
  const layer_entry* e = find_entry(type);
  return e ? e->test(view) : nullptr;
}

}  // namespace deepnet
