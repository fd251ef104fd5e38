#pragma once
#include "deepnet/layer_test.h"

namespace deepnet {

/// Network input: image tensors (is_1d = 0) or one-dimensional labels.
class layer_model_data : public layer_model_base {
 public:
  layer_model_data() : layer_model_base(layer_type_data) {}
  uint32_t is_1d = 0;
  void deserialize(byte_reader& in, const layer_model_list& layers) override;
  void serialize(byte_writer& out) const override;
};

/// Copies the caller's images unchanged (pixel values are prepared by the caller); label
/// input is all zeros.
class layer_test_data : public layer_test_base<float> {
 public:
  explicit layer_test_data(const input_view* view) : view_(view) {}
  void allocate(const layer_model_base& model) override;
  void fprop_test(uint64_t batch_count, const layer_model_base& model) override;

 private:
  const input_view* view_;
};

}  // namespace deepnet
