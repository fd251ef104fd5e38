#include "deepnet/layer_test.h"

#include <atomic>
#include <stdexcept>
#include <string>

namespace deepnet {

namespace {
// 2^28 floats (1 GiB) per buffer: far above any font network, far below a corrupt model's ask.
std::atomic<uint64_t> max_buffer_floats{uint64_t{1} << 28};
}  // namespace

uint64_t deepnet_max_buffer_floats() { return max_buffer_floats.load(); }
void deepnet_set_max_buffer_floats(uint64_t n) { max_buffer_floats.store(n); }

uint64_t deepnet_checked_size(std::initializer_list<uint64_t> factors, const char* what) {
  const uint64_t limit = deepnet_max_buffer_floats();
  uint64_t product = 1;
  for (uint64_t f : factors) {
    if (f != 0 && product > limit / f) throw std::runtime_error(std::string(what) + ": buffer too large");
    product *= f;
  }
  return product;
}

template <typename T>
uint64_t layer_test_base<T>::y_size_1d() const {
  if (ndim < 1 || ndim > 4) throw std::runtime_error("layer_test_base::y_size_1d(): Incorrect output dimension");
  uint64_t n = 1;
  for (uint64_t i = 0; i < ndim; ++i) n *= dims[i];
  return n;
}

template <typename T>
void layer_test_base<T>::set_output(uint64_t n, uint64_t d0, uint64_t d1, uint64_t d2, uint64_t d3) {
  ndim = n;
  dims[0] = d0;
  dims[1] = d1;
  dims[2] = d2;
  dims[3] = d3;
  uint64_t per_sample = deepnet_checked_size({n > 0 ? d0 : 1, n > 1 ? d1 : 1, n > 2 ? d2 : 1, n > 3 ? d3 : 1},
                                             "layer_test_base::allocate()");
  y.resize_uninitialized(deepnet_checked_size({batch, per_sample}, "layer_test_base::allocate()"));
}

template class layer_test_base<float>;

}  // namespace deepnet
