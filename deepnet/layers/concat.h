#pragma once
#include "deepnet/layer_test.h"

namespace deepnet {

/// Joins its inputs along one dimension (0 width, 1 height, 2 channels; 0 for 1-D inputs).
class layer_model_concat : public layer_model_base {
 public:
  layer_model_concat() : layer_model_base(layer_type_concat) {}
  uint32_t axis = 0;
  void deserialize(byte_reader& in, const layer_model_list& layers) override;
  void serialize(byte_writer& out) const override;
};

/// Per slice outside the axis, the inputs' runs one after another, in input order.
class layer_test_concat : public layer_test_base<float> {
 public:
  void allocate(const layer_model_base& model) override;
  void fprop_test(uint64_t batch_count, const layer_model_base& model) override;
};

}  // namespace deepnet
