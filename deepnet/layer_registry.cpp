// The one written-out table of layer types: adding a layer means one line here.
#include "deepnet/layer_registry.h"

#include <type_traits>

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

struct layer_entry {
  uint32_t type;
  std::shared_ptr<layer_model_base> (*model)();
  std::shared_ptr<layer_test_base<float>> (*test)(const input_view*);
};

template <typename Model, typename Test>
constexpr layer_entry entry(uint32_t type) {
  return {type, [] { return std::shared_ptr<layer_model_base>(std::make_shared<Model>()); },
          [](const input_view* view) {
            if constexpr (std::is_constructible_v<Test, const input_view*>)
              return std::shared_ptr<layer_test_base<float>>(std::make_shared<Test>(view));
            else
              return std::shared_ptr<layer_test_base<float>>(std::make_shared<Test>());
          }};
}

const layer_entry registry[] = {
    entry<layer_model_data, layer_test_data>(layer_type_data),
    entry<layer_model_conv3d, layer_test_conv3d>(layer_type_conv3d),
    entry<layer_model_fc, layer_test_fc>(layer_type_fc),
    entry<layer_model_normcross3d, layer_test_normcross3d>(layer_type_normcross3d),
    entry<layer_model_poolmax3d, layer_test_poolmax3d>(layer_type_poolmax3d),
    entry<layer_model_poolavg3d, layer_test_poolavg3d>(layer_type_poolavg3d),
    entry<layer_model_activation, layer_test_activation>(layer_type_activation),
    entry<layer_model_concat, layer_test_concat>(layer_type_concat),
    entry<layer_model_softmax, layer_test_softmax>(layer_type_softmax),
    entry<layer_model_cost_logreg, layer_test_cost_logreg>(layer_type_cost_logreg),
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
