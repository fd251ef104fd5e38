#pragma once
#include "deepnet/layer_test.h"

namespace deepnet {

/// Fully connected layer over one or more inputs.
class layer_model_fc : public layer_model_base {
 public:
  layer_model_fc() : layer_model_base(layer_type_fc) {}
  std::vector<uint32_t> input_sizes;  ///< one per input; sizes the weights at load time only
  uint32_t num_output = 0;
  /// One block per input: num_output rows of that input's size.
  std::vector<float> weights;
  std::vector<float> biases;
  void deserialize(byte_reader& in, const layer_model_list& layers) override;
  void serialize(byte_writer& out) const override;
};

/// One matrix product per input for the whole batch. The products use the inputs' actual
/// sizes, not input_sizes; inputs needing more weights than the model holds are refused.
class layer_test_fc : public layer_test_base<float> {
 public:
  void allocate(const layer_model_base& model) override;
  void fprop_test(uint64_t batch_count, const layer_model_base& model) override;
};

}  // namespace deepnet
