#pragma once
#include "deepnet/layer_test.h"

namespace deepnet {

/// Pooling parameters, shared by max (code 5) and average (code 6) pooling.
class layer_model_pool3d : public layer_model_base {
 public:
  explicit layer_model_pool3d(uint32_t t) : layer_model_base(t) {}
  uint32_t kernel_w = 0, kernel_h = 0, stride_w = 1, stride_h = 1;
  uint32_t pad_w_begin = 0, pad_w_end = 0, pad_h_begin = 0, pad_h_end = 0;
  void deserialize(byte_reader& in, const layer_model_list& layers) override;
  void serialize(byte_writer& out) const override;
};
class layer_model_poolmax3d : public layer_model_pool3d {
 public:
  layer_model_poolmax3d() : layer_model_pool3d(layer_type_poolmax3d) {}
};
class layer_model_poolavg3d : public layer_model_pool3d {
 public:
  layer_model_poolavg3d() : layer_model_pool3d(layer_type_poolavg3d) {}
};

struct pool_type_max {};
struct pool_type_avg {};

/// Pooling over width and height. The output extent always rounds up; windows are clipped to
/// the input, so padding is never read. Average pooling divides by the full kernel area.
template <typename T, typename pool_type>
class layer_test_pool_3d_base : public layer_test_base<T> {
 public:
  void allocate(const layer_model_base& model) override;
  void fprop_test(uint64_t batch_count, const layer_model_base& model) override;

 private:
  uint64_t chunks_ = 1;
  std::vector<aligned_buffer<T>> scratch_;  ///< per chunk: output width × input height
};

class layer_test_poolmax3d : public layer_test_pool_3d_base<float, pool_type_max> {};
class layer_test_poolavg3d : public layer_test_pool_3d_base<float, pool_type_avg> {};

/// Pooling output extent: like the convolution's ceiling rule, but always on.
uint64_t pool_output_extent(uint64_t in, uint64_t pad_begin, uint64_t pad_end, uint64_t kernel, uint64_t stride);

}  // namespace deepnet
