#pragma once
// Runnable layers: one per layer model, sized for one batch, inference only.
//
// "test" here is not about testing: the engine's runnable layers are named layer_test_* and
// their forward pass fprop_test ("test time", inference, as against training), names the
// module's engine is defined with and error texts carry ("layer_test_conv3d::allocate(): …").
// They stay; the tests of these layers are in tests/deepnet/.
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <vector>

#include "deepnet/aligned_buffer.h"
#include "deepnet/layer_model.h"

namespace deepnet {

/// What the caller hands to construction: `count` single-channel images of
/// `width` × `height` f32 values, image after image, row after row.
struct input_view {
  uint64_t width = 0;
  uint64_t height = 0;
  uint64_t channels = 1;
  uint64_t count = 0;
  const float* data = nullptr;
};

template <typename T>
class layer_test_base {
 public:
  virtual ~layer_test_base() = default;

  uint64_t batch = 0;
  uint64_t ndim = 0;
  uint64_t dims[4] = {0, 0, 0, 0};  ///< width, height, channels for image tensors
  aligned_buffer<T> y;              ///< batch × y_size_1d() values, sample after sample;
                                    ///< unspecified until the layer has run
  std::vector<layer_test_base*> inputs;

  /// Checks the inputs against the model, sets ndim and dims, sizes y and scratch buffers.
  virtual void allocate(const layer_model_base& model) = 0;
  /// Computes the whole of y from the inputs' y.
  virtual void fprop_test(uint64_t batch_count, const layer_model_base& model) = 0;

  /// Values per sample: the product of the ndim extents.
  uint64_t y_size_1d() const;

 protected:
  /// Sets the output shape and sizes y to batch × y_size_1d(), refusing sizes past the
  /// engine's buffer limit. y is not cleared: every layer writes all of it when it runs.
  void set_output(uint64_t n, uint64_t d0, uint64_t d1 = 0, uint64_t d2 = 0, uint64_t d3 = 0);
};

using layer_test_list = std::vector<std::shared_ptr<layer_test_base<float>>>;

/// Largest buffer, in floats, that construction will allocate for one layer; a model whose
/// shapes need more is refused with an error instead of exhausting memory.
uint64_t deepnet_max_buffer_floats();
void deepnet_set_max_buffer_floats(uint64_t n);

/// Multiplies extents, throwing `what` when the product overflows or passes the buffer limit.
uint64_t deepnet_checked_size(std::initializer_list<uint64_t> factors, const char* what);

}  // namespace deepnet
