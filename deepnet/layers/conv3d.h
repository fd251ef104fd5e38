#pragma once
#include <optional>

#include "deepnet/derived_cache.h"
#include "deepnet/layer_test.h"
#include "deepnet/winograd.h"

namespace deepnet {

/// Two-dimensional convolution with groups, asymmetric padding and an optional ceiling rule.
class layer_model_conv3d : public layer_model_base {
 public:
  layer_model_conv3d() : layer_model_base(layer_type_conv3d) {}
  uint32_t ceil_mode = 0, num_output = 0, group = 1, kernel_w = 0, kernel_h = 0, num_input = 0;
  uint32_t stride_w = 1, stride_h = 1, pad_w_begin = 0, pad_w_end = 0, pad_h_begin = 0, pad_h_end = 0;
  /// num_output rows; row o: for each input channel of o's group, kernel_h rows of kernel_w.
  std::vector<float> weights;
  std::vector<float> biases;

  /// kernel_h × num_input × kernel_w / group × num_output, as the file sizes it.
  uint64_t weight_count() const;
  /// The weights transformed for Winograd tiles, per tile size and kernels.
  derived_cache<winograd_weights> winograd_cache;
  /// The weights packed for the unfolded products, per kernels and channel block.
  struct packed_weights {
    const isa_kernels* kernels;
    uint64_t channels_per_block;
    std::vector<packed_lhs> blocks;  ///< group after group, channel block after channel block
  };
  derived_cache<packed_weights> packed_cache;
  void deserialize(byte_reader& in, const layer_model_list& layers) override;
  void serialize(byte_writer& out) const override;
};

/// Output extent along one axis; `ceil` adds the partial window the floor rule drops.
/// Throws when the kernel is larger than the padded input or the stride is 0.
uint64_t conv_output_extent(uint64_t in, uint64_t pad_begin, uint64_t pad_end, uint64_t kernel, uint64_t stride,
                            bool ceil, const char* who);

/// Whether layers allocated from now on may compute 3×3 and 5×5 stride-1 convolutions on
/// Winograd tiles (the default); tests and benchmarks compare both paths.
void conv3d_allow_winograd(bool allowed);

/// Convolution as unfolding plus matrix products per group: the input channels are unfolded in
/// blocks whose products accumulate, and small planes are unfolded for several samples side by
/// side so that one product covers them all. Stride-1 3×3 and 5×5 kernels of one group run on
/// Winograd tiles instead where that needs fewer multiplies.
class layer_test_conv3d : public layer_test_base<float> {
 public:
  void allocate(const layer_model_base& model) override;
  void fprop_test(uint64_t batch_count, const layer_model_base& model) override;

 private:
  struct scratch {
    aligned_buffer<float> unfolded;  ///< one channel block's rows of (samples × M) values
    aligned_buffer<float> product;   ///< Og rows of (samples × M) values, when samples > 1
    winograd_scratch winograd;
  };
  void run_samples(const layer_model_conv3d& m, uint64_t first, uint64_t last, scratch& s);
  void unfold(const layer_model_conv3d& m, const float* planes, uint64_t channels, float* out, uint64_t ld) const;

  uint64_t in_w_ = 0, in_h_ = 0, in_c_ = 0, out_w_ = 0, out_h_ = 0;
  uint64_t samples_per_product_ = 1;
  uint64_t channels_per_block_ = 1;  ///< input channels unfolded per partial product
  bool direct_ = false;              ///< 1×1 kernel, stride 1, no padding: the input already is unfolded
  uint64_t chunks_ = 1;
  std::vector<scratch> scratch_;
  std::optional<winograd_conv> winograd_;
  std::shared_ptr<const layer_model_conv3d::packed_weights> packed_;  ///< when not on Winograd tiles
};

}  // namespace deepnet
