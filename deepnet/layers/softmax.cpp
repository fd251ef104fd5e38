#include "deepnet/layers/softmax.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace deepnet {

void layer_test_softmax::allocate(const layer_model_base&) {
  if (inputs.size() != 1) throw std::runtime_error("layer_test_softmax::allocate(): Incorrect input size");
  set_output(1, inputs[0]->y_size_1d());
}

void layer_test_softmax::fprop_test(uint64_t batch_count, const layer_model_base&) {
  const uint64_t n = dims[0];
  for (uint64_t b = 0; b < std::min(batch_count, batch); ++b) {
    const float* x = inputs[0]->y.data() + b * n;
    float* out = y.data() + b * n;
    if (n == 0) continue;
    float top = x[0];
    for (uint64_t i = 1; i < n; ++i)
      if (x[i] > top) top = x[i];
    float sum = 0.0f;
    for (uint64_t i = 0; i < n; ++i) sum += std::exp(x[i] - top);
    for (uint64_t i = 0; i < n; ++i) out[i] = std::exp(x[i] - top) / sum;
  }
}

}  // namespace deepnet
