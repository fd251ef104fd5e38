#pragma once
#include "deepnet/layer_test.h"

namespace deepnet {

class layer_model_softmax : public layer_model_base {
 public:
  layer_model_softmax() : layer_model_base(layer_type_softmax) {}
};

/// Softmax per sample over all of the input's values, shifted by the largest for range.
class layer_test_softmax : public layer_test_base<float> {
 public:
  void allocate(const layer_model_base& model) override;
  void fprop_test(uint64_t batch_count, const layer_model_base& model) override;
};

}  // namespace deepnet
