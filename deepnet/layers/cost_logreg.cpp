#include "deepnet/layers/cost_logreg.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace deepnet {

void layer_test_cost_logreg::allocate(const layer_model_base&) {
  if (inputs.size() != 2) throw std::runtime_error("layer_test_logreg::allocate(): Incorrect input size");
  // The labels are read as the first batch values of input 1.
  if (inputs[1]->y.size() < batch) throw std::runtime_error("layer_test_logreg::allocate(): too few labels");
  set_output(1, 1);
}

void layer_test_cost_logreg::fprop_test(uint64_t batch_count, const layer_model_base&) {
  const uint64_t B = std::min(batch_count, batch);
  const uint64_t n = inputs[0]->y_size_1d();
  const float* prob = inputs[0]->y.data();
  const float* labels = inputs[1]->y.data();
  float loss = 0.0f;
  for (uint64_t b = 0; b < B; ++b) {
    const float label = labels[b];
    // Truncation toward zero; NaN and values outside [0, n) have no probability to read.
    const uint64_t index = label > -1.0f && label < 1e19f ? static_cast<uint64_t>(label) : n;
    if (index >= n) throw std::runtime_error("layer_test_logreg::fprop_test(): label outside the class range");
    loss -= std::log(prob[b * n + index]);
  }
  if (y.size() == 0) return;
  std::fill(y.begin(), y.end(), 0.0f);
  y[0] = loss / static_cast<float>(B);
}

}  // namespace deepnet
