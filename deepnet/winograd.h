#pragma once
// Stride-1 convolutions with 3×3 or 5×5 kernels on Winograd tiles: each m×m block of output is
// computed from an n×n block of input (n = m + r − 1) with n² products per channel pair instead
// of m²·r², as n² matrix products over all tiles at once. The input is first copied channel-last
// with its padding, so the tile transforms read whole vectors of channels.
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "deepnet/aligned_buffer.h"
#include "deepnet/gemm.h"

namespace deepnet {

/// The shape of one convolution the tiles would compute.
struct winograd_shape {
  uint64_t kernel = 0;  ///< r: the kernel is r × r
  uint64_t in_w = 0, in_h = 0, in_c = 0;
  uint64_t out_w = 0, out_h = 0, out_c = 0;
  uint64_t pad_w = 0, pad_h = 0;  ///< padding before the first column and row
};

/// The tile size with the fewest multiplies for this shape, transforms and channel padding
/// counted, or none when the unfolded product needs fewer.
std::optional<winograd_kind> choose_winograd(const winograd_shape& shape);

/// Per-thread working space of winograd_conv::run.
struct winograd_scratch {
  aligned_buffer<float> input;        ///< the samples channel-last, padded to whole tiles with zeros
  aligned_buffer<float> transformed;  ///< n² rows of tiles × channels
  aligned_buffer<float> products;     ///< n² rows of tiles × output channels
};

/// A layer's weights transformed for one tile size, packed for one instruction set's products.
struct winograd_weights {
  /// Transforms `weights` (out_c rows of in_c × r × r, r fixed by `kind`) and copies `biases`.
  winograd_weights(winograd_kind kind, uint64_t in_c, uint64_t out_c, const float* weights, const float* biases,
                   const isa_kernels& kernels);
  winograd_kind kind;
  const isa_kernels* kernels;
  uint64_t in_channels, out_channels;  ///< in_c and out_c rounded up to 16
  std::vector<packed_rhs> matrices;    ///< n² matrices of in_channels × out_channels
  aligned_buffer<float> biases;        ///< out_channels values, zeros past out_c
};

class winograd_conv {
 public:
  /// Takes the transformed weights of a layer of this shape.
  void prepare(const winograd_shape& shape, std::shared_ptr<const winograd_weights> weights);
  /// Sizes `scratch` for runs of up to `max_samples` samples.
  void reserve(winograd_scratch& scratch, uint64_t max_samples) const;
  /// Convolves `samples` planar inputs (in_c planes each) into planar outputs (out_c planes each).
  void run(const float* input, uint64_t samples, float* output, winograd_scratch& scratch) const;

 private:
  winograd_shape shape_;
  std::shared_ptr<const winograd_weights> weights_;
  uint64_t m_ = 0, n_ = 0;                ///< output and input tile sides
  uint64_t tiles_x_ = 0, tiles_y_ = 0;    ///< tiles per sample along each axis
  uint64_t padded_w_ = 0, padded_h_ = 0;  ///< the channel-last copy's extents
};

}  // namespace deepnet
