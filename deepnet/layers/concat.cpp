#include "deepnet/layers/concat.h"

#include <algorithm>
#include <stdexcept>

#include "deepnet/byte_io.h"

namespace deepnet {

void layer_model_concat::deserialize(byte_reader& in, const layer_model_list& layers) {
  layer_model_base::deserialize(in, layers);
  axis = in.u32();
}

void layer_model_concat::serialize(byte_writer& out) const {
  layer_model_base::serialize(out);
  out.u32(axis);
}

void layer_test_concat::allocate(const layer_model_base& model) {
  const auto& m = static_cast<const layer_model_concat&>(model);
  if (inputs.empty()) throw std::runtime_error("layer_test_concat::allocate(): incorrect input size");
  const auto* first = inputs[0];
  uint64_t d[4] = {first->dims[0], first->dims[1], first->dims[2], first->dims[3]};
  if (m.axis >= first->ndim)
    throw std::runtime_error("layer_test_concat::allocate(): axis outside the input's dimensions");
  d[m.axis] = 0;
  for (const auto* in : inputs) {
    if (in->ndim != first->ndim) throw std::runtime_error("layer_test_concat::allocate(): dimension mismatch");
    for (uint64_t i = 0; i < first->ndim; ++i)
      if (i != m.axis && in->dims[i] != first->dims[i])
        throw std::runtime_error("layer_test_concat::allocate(): output size mismatch");
    d[m.axis] += in->dims[m.axis];
  }
  set_output(first->ndim, d[0], d[1], d[2], d[3]);
}

void layer_test_concat::fprop_test(uint64_t batch_count, const layer_model_base& model) {
  const auto& m = static_cast<const layer_model_concat&>(model);
  uint64_t inner = 1, outer = std::min(batch_count, batch);
  for (uint64_t i = 0; i < m.axis; ++i) inner *= dims[i];
  for (uint64_t i = m.axis + 1; i < ndim; ++i) outer *= dims[i];
  float* out = y.data();
  for (uint64_t t = 0; t < outer; ++t)
    for (const auto* in : inputs) {
      const uint64_t n = in->dims[m.axis] * inner;
      out = std::copy(in->y.data() + t * n, in->y.data() + (t + 1) * n, out);
    }
}

}  // namespace deepnet
