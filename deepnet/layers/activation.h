#pragma once
#include "deepnet/layer_test.h"

namespace deepnet {

/// Element-wise activation; type 0 is the rectifier, the only one that runs.
class layer_model_activation : public layer_model_base {
 public:
  layer_model_activation() : layer_model_base(layer_type_activation) {}
  uint32_t activation_type = 0;
  void deserialize(byte_reader& in, const layer_model_list& layers) override;
  void serialize(byte_writer& out) const override;
};

/// Rectifier: values below 0 become 0; negative zero and NaN pass unchanged. Other types are
/// accepted by construction and refused by the first forward pass that reaches them.
class layer_test_activation : public layer_test_base<float> {
 public:
  void allocate(const layer_model_base& model) override;
  void fprop_test(uint64_t batch_count, const layer_model_base& model) override;
};

}  // namespace deepnet
