#include "deepnet/layers/activation.h"

#include <stdexcept>

#include "deepnet/byte_io.h"
#include "deepnet/gemm.h"

namespace deepnet {

void layer_model_activation::deserialize(byte_reader& in, const layer_model_list& layers) {
  layer_model_base::deserialize(in, layers);
  activation_type = in.u32();
}

void layer_model_activation::serialize(byte_writer& out) const {
  layer_model_base::serialize(out);
  out.u32(activation_type);
}

void layer_test_activation::allocate(const layer_model_base&) {
  if (inputs.size() != 1) throw std::runtime_error("layer_test_activation::allocate(): Incorrect input size");
  const auto* in = inputs[0];
  set_output(in->ndim, in->dims[0], in->dims[1], in->dims[2], in->dims[3]);
}

void layer_test_activation::fprop_test(uint64_t batch_count, const layer_model_base& model) {
  const auto& m = static_cast<const layer_model_activation&>(model);
  if (m.activation_type != 0)
    throw std::runtime_error("layer_test_activation::fprop_test(): Unsupported activation type");
  const uint64_t n = std::min(batch_count, batch) * y_size_1d();
  active_kernels().rectify(inputs[0]->y.data(), y.data(), n);
}

}  // namespace deepnet
