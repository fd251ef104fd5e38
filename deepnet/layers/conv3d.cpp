#include "deepnet/layers/conv3d.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>

#include "deepnet/byte_io.h"
#include "deepnet/gemm.h"
#include "deepnet/parallel.h"

namespace deepnet {

namespace {
// The input is unfolded a block of input channels at a time, each block followed by its share
// of the product (the shares accumulate). Blocks of about this many kernel taps (product depth,
// one block of the product's own) keep the unfolded rows in the core's cache until the product
// reads them.
constexpr uint64_t kTargetBlockDepth = 256;
std::atomic<bool> winograd_allowed{true};
// Planes of fewer output positions than this are unfolded for several samples side by side,
// so one product is wide enough to run at full speed; larger planes already are.
constexpr uint64_t kWideProductPositions = 512;
}  // namespace

void conv3d_allow_winograd(bool allowed) { winograd_allowed = allowed; }

uint64_t layer_model_conv3d::weight_count() const {
  // Every factor is 32-bit, so the three-term product fits in 96 bits; done in steps that
  // saturate instead of wrapping, the caller compares the result with the bytes present.
  const uint64_t limit = std::numeric_limits<uint64_t>::max();
  uint64_t n = uint64_t{kernel_h} * num_input;
  n = (kernel_w && n > limit / kernel_w) ? limit : n * kernel_w;
  n /= group;
  return (num_output && n > limit / num_output) ? limit : n * num_output;
}

void layer_model_conv3d::deserialize(byte_reader& in, const layer_model_list& layers) {
  layer_model_base::deserialize(in, layers);
  for (uint32_t* field : {&ceil_mode, &num_output, &group, &kernel_w, &kernel_h, &num_input, &stride_w, &stride_h,
                          &pad_w_begin, &pad_w_end, &pad_h_begin, &pad_h_end})
    *field = in.u32();
  if (group == 0) throw std::runtime_error("layer_model_conv3d::deserialize(): group is 0");
  in.floats(weights, weight_count());
  in.floats(biases, num_output);
}

void layer_model_conv3d::serialize(byte_writer& out) const {
  layer_model_base::serialize(out);
  for (uint32_t field : {ceil_mode, num_output, group, kernel_w, kernel_h, num_input, stride_w, stride_h, pad_w_begin,
                         pad_w_end, pad_h_begin, pad_h_end})
    out.u32(field);
  out.floats(weights);
  out.floats(biases);
}

uint64_t conv_output_extent(uint64_t in, uint64_t pad_begin, uint64_t pad_end, uint64_t kernel, uint64_t stride,
                            bool ceil, const char* who) {
  const uint64_t padded = in + pad_begin + pad_end;
  if (stride == 0) throw std::runtime_error(std::string(who) + ": stride is 0");
  if (kernel > padded) throw std::runtime_error(std::string(who) + ": kernel larger than the padded input");
  uint64_t out = (padded - kernel) / stride + 1;
  if (ceil && (padded - kernel) % stride != 0) ++out;
  return out;
}

void layer_test_conv3d::allocate(const layer_model_base& model) {
  const auto& m = static_cast<const layer_model_conv3d&>(model);
  if (inputs.empty()) throw std::runtime_error("layer_test_conv3d::allocate(): Input size mismatch");
  const auto* first = inputs[0];
  for (const auto* in : inputs)
    if (in->ndim != 3 || in->dims[0] != first->dims[0] || in->dims[1] != first->dims[1] ||
        in->dims[2] != first->dims[2])
      throw std::runtime_error("layer_test_conv3d::allocate(): Input size mismatch");
  if (m.num_input != first->dims[2])
    throw std::runtime_error("layer_test_conv3d::allocate(): input and model mismatch");
  // Input k would use weight block k, but a model file stores exactly one block.
  if (inputs.size() > 1)
    throw std::runtime_error("layer_test_conv3d::allocate(): the model holds weights for one input only");

  in_w_ = first->dims[0];
  in_h_ = first->dims[1];
  in_c_ = first->dims[2];
  const char* who = "layer_test_conv3d::allocate()";
  out_w_ = conv_output_extent(in_w_, m.pad_w_begin, m.pad_w_end, m.kernel_w, m.stride_w, m.ceil_mode != 0, who);
  out_h_ = conv_output_extent(in_h_, m.pad_h_begin, m.pad_h_end, m.kernel_h, m.stride_h, m.ceil_mode != 0, who);
  set_output(3, out_w_, out_h_, m.num_output);

  const uint64_t M = out_w_ * out_h_;
  const uint64_t K = deepnet_checked_size({m.kernel_w, m.kernel_h, in_c_ / m.group}, who);
  const uint64_t Og = m.num_output / m.group;
  direct_ = m.kernel_w == 1 && m.kernel_h == 1 && m.stride_w == 1 && m.stride_h == 1 && m.pad_w_begin == 0 &&
            m.pad_w_end == 0 && m.pad_h_begin == 0 && m.pad_h_end == 0;
  // Unfolded buffers stay under 2^31 values.
  if (deepnet_checked_size({M, std::max<uint64_t>(K, Og)}, who) > uint64_t{std::numeric_limits<int>::max()})
    throw std::runtime_error(std::string(who) + ": buffer too large");

  chunks_ = deepnet_chunk_count(batch);
  const uint64_t per_chunk = (batch + chunks_ - 1) / chunks_;
  samples_per_product_ = std::clamp<uint64_t>((kWideProductPositions + M - 1) / M, 1, std::max<uint64_t>(1, per_chunk));
  const uint64_t taps = uint64_t(m.kernel_w) * m.kernel_h;
  channels_per_block_ = direct_ ? std::max<uint64_t>(1, in_c_ / m.group)
                                : std::clamp<uint64_t>(kTargetBlockDepth / std::max<uint64_t>(1, taps), 1,
                                                       std::max<uint64_t>(1, in_c_ / m.group));
  winograd_.reset();
  if (winograd_allowed && m.group == 1 && m.kernel_w == m.kernel_h && m.stride_w == 1 && m.stride_h == 1) {
    const winograd_shape shape{m.kernel_w, in_w_,        in_h_,         in_c_,        out_w_,
                               out_h_,     m.num_output, m.pad_w_begin, m.pad_h_begin};
    if (const auto kind = choose_winograd(shape)) {
      winograd_.emplace();
      const isa_kernels& kernels = active_kernels();
      winograd_->prepare(shape, m.winograd_cache.get(
                                    [&](const winograd_weights& w) { return w.kind == *kind && w.kernels == &kernels; },
                                    [&] {
                                      return std::make_shared<const winograd_weights>(
                                          *kind, in_c_, m.num_output, m.weights.data(), m.biases.data(), kernels);
                                    }));
    }
  }
  packed_.reset();
  if (!winograd_ && K > 0 && Og > 0) {
    const isa_kernels& kernels = active_kernels();
    const uint64_t cpb = channels_per_block_, Cg = in_c_ / m.group;
    packed_ = m.packed_cache.get(
        [&](const layer_model_conv3d::packed_weights& p) {
          return p.kernels == &kernels && p.channels_per_block == cpb;
        },
        [&] {
          auto p = std::make_shared<layer_model_conv3d::packed_weights>();
          p->kernels = &kernels;
          p->channels_per_block = cpb;
          for (uint64_t g = 0; g < m.group; ++g)
            for (uint64_t c0 = 0; c0 < Cg; c0 += cpb)
              p->blocks.emplace_back(Og, std::min(cpb, Cg - c0) * taps, m.weights.data() + g * Og * K + c0 * taps, K,
                                     kernels);
          return std::shared_ptr<const layer_model_conv3d::packed_weights>(std::move(p));
        });
  }
  scratch_.clear();
  scratch_.resize(chunks_);
  for (auto& s : scratch_) {
    if (winograd_) {
      winograd_->reserve(s.winograd, per_chunk);
      continue;
    }
    if (!direct_ || samples_per_product_ > 1)
      s.unfolded.resize_uninitialized(
          deepnet_checked_size({std::min(K, channels_per_block_ * taps), M, samples_per_product_}, who));
    if (samples_per_product_ > 1)
      s.product.resize_uninitialized(deepnet_checked_size({Og, M, samples_per_product_}, who));
  }
}

namespace {

// One unfolded row of a stride-1 convolution whose output is as wide as its input: the input
// plane shifted by dy rows and dx columns. The rows inside the plane are one contiguous copy;
// the dx columns that wrapped around from the neighbouring row are then cleared.
void unfold_shifted_plane(const float* plane, float* row, int64_t W, int64_t H, int64_t oH, int64_t dy, int64_t dx) {
  const int64_t oy0 = std::clamp<int64_t>(-dy, 0, oH), oy1 = std::clamp<int64_t>(H - dy, oy0, oH);
  std::memset(row, 0, sizeof(float) * oy0 * W);
  std::memset(row + oy1 * W, 0, sizeof(float) * (oH - oy1) * W);
  if (oy1 == oy0) return;
  // Output index i reads input index i + dy·W + dx; clip the copy to the plane's bounds.
  const int64_t offset = dy * W + dx;
  const int64_t begin = std::max(oy0 * W, -offset), end = std::min(oy1 * W, H * W - offset);
  if (end > begin) std::memcpy(row + begin, plane + begin + offset, sizeof(float) * (end - begin));
  const int64_t lo = std::min(std::max<int64_t>(0, -dx), W), hi = std::max(std::min(W, W - dx), lo);
  for (int64_t oy = oy0; oy < oy1; ++oy) {
    float* r = row + oy * W;
    for (int64_t ox = 0; ox < lo; ++ox) r[ox] = 0.0f;
    for (int64_t ox = hi; ox < W; ++ox) r[ox] = 0.0f;
  }
  // Copies clipped at the plane's ends leave the first or last row's outer columns unwritten;
  // those are exactly the wrapped columns cleared above.
}

}  // namespace

// Unfolds the Cg input planes of one sample into K rows (row (c, ky, kx)) of M values (one per
// output position), writing row j at out + j × ld. Padding positions become 0.
void layer_test_conv3d::unfold(const layer_model_conv3d& m, const float* planes, uint64_t channels, float* out,
                               uint64_t ld) const {
  const int64_t W = static_cast<int64_t>(in_w_), H = static_cast<int64_t>(in_h_);
  const int64_t oW = static_cast<int64_t>(out_w_), oH = static_cast<int64_t>(out_h_);
  const int64_t sw = m.stride_w, sh = m.stride_h, pw = m.pad_w_begin, ph = m.pad_h_begin;
  const int64_t Cg = static_cast<int64_t>(channels);
  const isa_kernels& kernels = active_kernels();
  for (int64_t c = 0; c < Cg; ++c) {
    const float* plane = planes + c * W * H;
    for (int64_t ky = 0; ky < m.kernel_h; ++ky) {
      for (int64_t kx = 0; kx < m.kernel_w; ++kx) {
        float* row = out + static_cast<uint64_t>((c * m.kernel_h + ky) * m.kernel_w + kx) * ld;
        if (sw == 1 && sh == 1 && oW == W) {
          unfold_shifted_plane(plane, row, W, H, oH, ky - ph, kx - pw);
          continue;
        }
        // Output columns whose input column x = ox·sw − pw + kx lies inside [0, W).
        const int64_t lo = std::min(oW, std::max<int64_t>(0, (pw - kx + sw - 1) / sw));
        const int64_t hi = std::min(oW, std::max<int64_t>(lo, W - 1 + pw - kx >= 0 ? (W - 1 + pw - kx) / sw + 1 : 0));
        for (int64_t oy = 0; oy < oH; ++oy) {
          float* dst = row + oy * oW;
          const int64_t y = oy * sh - ph + ky;
          if (y < 0 || y >= H) {
            std::memset(dst, 0, sizeof(float) * oW);
            continue;
          }
          // Input column of output column ox is ox·sw + shift; it is inside the row for lo ≤ ox < hi.
          const float* src = plane + y * W;
          const int64_t shift = kx - pw;
          std::memset(dst, 0, sizeof(float) * lo);
          if (sw == 1) {
            if (hi > lo) std::memcpy(dst + lo, src + lo + shift, sizeof(float) * (hi - lo));
          } else {
            if (hi > lo) kernels.strided_copy(src + lo * sw + shift, uint64_t(sw), uint64_t(hi - lo), dst + lo);
          }
          std::memset(dst + hi, 0, sizeof(float) * (oW - hi));
        }
      }
    }
  }
}

void layer_test_conv3d::run_samples(const layer_model_conv3d& m, uint64_t first, uint64_t last, scratch& s) {
  const uint64_t M = out_w_ * out_h_, plane_in = in_w_ * in_h_;
  const uint64_t G = m.group, Cg = in_c_ / G, Og = m.num_output / G, O = m.num_output;
  const uint64_t K = m.kernel_w * m.kernel_h * Cg;
  const float* x = inputs[0]->y.data();
  // With no input channel per group (group > channels) there is nothing to multiply: the
  // outputs are their biases.
  const uint64_t groups = (K == 0 || M == 0 || Og == 0) ? 0 : G;
  if (winograd_) {
    winograd_->run(x + first * in_c_ * plane_in, last - first, y.data() + first * O * M, s.winograd);
    return;
  }
  for (uint64_t b = first; b < last; b += samples_per_product_) {
    const uint64_t n = std::min(samples_per_product_, last - b);
    const uint64_t ld = n * M;
    for (uint64_t g = 0; g < groups; ++g) {
      const float* planes = x + b * in_c_ * plane_in + g * Cg * plane_in;
      // One sample writes straight into its output planes; several write side by side into
      // the product buffer, per output channel, and are moved into place afterwards.
      float* out = n == 1 ? y.data() + b * O * M + g * Og * M : s.product.data();
      // Row-major: out (Og × ld) = w (Og × K) · unfolded (K × ld).
      const packed_lhs* blocks = packed_->blocks.data() + g * ((Cg + channels_per_block_ - 1) / channels_per_block_);
      if (direct_ && n == 1) {
        gemm(blocks[0], M, planes, M, out, M, false);
        continue;
      }
      for (uint64_t c0 = 0; c0 < Cg; c0 += channels_per_block_) {
        const uint64_t nc = std::min(channels_per_block_, Cg - c0);
        for (uint64_t i = 0; i < n; ++i)
          unfold(m, planes + i * in_c_ * plane_in + c0 * plane_in, nc, s.unfolded.data() + i * M, ld);
        gemm(blocks[c0 / channels_per_block_], ld, s.unfolded.data(), ld, out, ld, c0 != 0);
      }
      if (n > 1)
        for (uint64_t o = 0; o < Og; ++o)
          for (uint64_t i = 0; i < n; ++i)
            std::memcpy(y.data() + (b + i) * O * M + (g * Og + o) * M, out + o * ld + i * M, sizeof(float) * M);
    }
    for (uint64_t i = b; i < b + n; ++i)
      for (uint64_t o = 0; o < O; ++o) {
        float* plane = y.data() + i * O * M + o * M;
        const float bias = m.biases[o];
        for (uint64_t p = 0; p < M; ++p) plane[p] += bias;
      }
  }
}

void layer_test_conv3d::fprop_test(uint64_t batch_count, const layer_model_base& model) {
  const auto& m = static_cast<const layer_model_conv3d&>(model);
  // Channels past group × (num_output / group), and all channels when a group has no input
  // channel, get no product, only their bias; every other value is overwritten by its product.
  if (m.num_output % m.group != 0 || in_c_ < m.group) std::fill(y.begin(), y.end(), 0.0f);
  const uint64_t count = std::min(batch_count, batch);
  deepnet_parallel_chunks(count, chunks_,
                          [&](uint64_t c, uint64_t first, uint64_t last) { run_samples(m, first, last, scratch_[c]); });
}

}  // namespace deepnet
