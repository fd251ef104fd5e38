#pragma once
#include <memory>

#include "deepnet/derived_cache.h"
#include "deepnet/gemm.h"
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

  /// The weights packed for the products, per kernels and actual input sizes.
  struct packed_weights {
    const isa_kernels* kernels;
    std::vector<uint64_t> input_sizes;
    std::vector<packed_rhs> blocks;  ///< one per input: its size × num_output
  };
  derived_cache<packed_weights> packed_cache;
};

/// One matrix product per input for the whole batch. The products use the inputs' actual
/// sizes, not input_sizes; inputs needing more weights than the model holds are refused.
class layer_test_fc : public layer_test_base<float> {
 public:
  void allocate(const layer_model_base& model) override;
  void fprop_test(uint64_t batch_count, const layer_model_base& model) override;

 private:
  std::shared_ptr<const layer_model_fc::packed_weights> packed_;
};

}  // namespace deepnet
