#include "deepnet/layers/pool3d.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "deepnet/byte_io.h"
#include "deepnet/gemm.h"
#include "deepnet/layers/conv3d.h"
#include "deepnet/parallel.h"

namespace deepnet {

void layer_model_pool3d::deserialize(byte_reader& in, const layer_model_list& layers) {
  layer_model_base::deserialize(in, layers);
  for (uint32_t* field :
       {&kernel_w, &kernel_h, &stride_w, &stride_h, &pad_w_begin, &pad_w_end, &pad_h_begin, &pad_h_end})
    *field = in.u32();
}

void layer_model_pool3d::serialize(byte_writer& out) const {
  layer_model_base::serialize(out);
  for (uint32_t field : {kernel_w, kernel_h, stride_w, stride_h, pad_w_begin, pad_w_end, pad_h_begin, pad_h_end})
    out.u32(field);
}

uint64_t pool_output_extent(uint64_t in, uint64_t pad_begin, uint64_t pad_end, uint64_t kernel, uint64_t stride) {
  return conv_output_extent(in, pad_begin, pad_end, kernel, stride, true, "layer_test_pool_3d_base::allocate()");
}

template <typename T, typename pool_type>
void layer_test_pool_3d_base<T, pool_type>::allocate(const layer_model_base& model) {
  const auto& m = static_cast<const layer_model_pool3d&>(model);
  if (this->inputs.size() != 1 || this->inputs[0]->ndim != 3)
    throw std::runtime_error("layer_test_pool_3d_base::allocate(): Input mismatch");
  const auto* in = this->inputs[0];
  // Window bounds are computed in 32-bit signed arithmetic.
  const uint64_t int_max = uint64_t{std::numeric_limits<int32_t>::max()};
  for (uint64_t v : {in->dims[0], in->dims[1], uint64_t{m.kernel_w}, uint64_t{m.kernel_h}, uint64_t{m.pad_w_begin},
                     uint64_t{m.pad_h_begin}})
    if (v > int_max) throw std::runtime_error("layer_test_pool_3d_base::allocate(): Input mismatch");
  const uint64_t ow = pool_output_extent(in->dims[0], m.pad_w_begin, m.pad_w_end, m.kernel_w, m.stride_w);
  const uint64_t oh = pool_output_extent(in->dims[1], m.pad_h_begin, m.pad_h_end, m.kernel_h, m.stride_h);
  if (ow * m.stride_w > int_max || oh * m.stride_h > int_max)
    throw std::runtime_error("layer_test_pool_3d_base::allocate(): Input mismatch");
  this->set_output(3, ow, oh, in->dims[2]);
  chunks_ = deepnet_chunk_count(this->batch);
  scratch_.clear();
  scratch_.resize(chunks_);
  for (auto& s : scratch_)
    s.resize_uninitialized(deepnet_checked_size({ow, in->dims[1]}, "layer_test_pool_3d_base::allocate()"));
}

// Rows of at least this many outputs go to the vectorised kernels; shorter ones (a 6 × 6 window
// over a 6 × 6 plane) cost less inline than the call.
constexpr int64_t kWideRow = 8;

// Separable pooling: a horizontal pass reduces each input row over every output column's window
// into the scratch (output width × input height), then a vertical pass combines the rows of each
// output row's window. The reduction order per window is the one of a row-by-row loop.
template <typename T, typename pool_type>
void layer_test_pool_3d_base<T, pool_type>::fprop_test(uint64_t batch_count, const layer_model_base& model) {
  constexpr bool is_max = std::is_same_v<pool_type, pool_type_max>;
  const auto& m = static_cast<const layer_model_pool3d&>(model);
  const auto* in = this->inputs[0];
  // Bounds in 64 bits: start + kernel can pass the 32-bit range even when each term fits.
  const int64_t W = int64_t(in->dims[0]), H = int64_t(in->dims[1]);
  const int64_t oW = int64_t(this->dims[0]), oH = int64_t(this->dims[1]);
  const uint64_t C = this->dims[2];
  const int64_t kw = m.kernel_w, kh = m.kernel_h, sw = m.stride_w, sh = m.stride_h;
  const int64_t pw = m.pad_w_begin, ph = m.pad_h_begin;
  const T area = T(m.kernel_w) * T(m.kernel_h);
  const T empty = is_max ? -std::numeric_limits<T>::max() : T(0);
  const uint64_t count = std::min(batch_count, this->batch);
  const isa_kernels& kernels = active_kernels();
  // Output columns [ox_lo, ox_hi) have windows wholly inside the row.
  const int64_t ox_lo = std::min(oW, (pw + sw - 1) / sw);
  const int64_t ox_hi = std::max(ox_lo, std::min(oW, W - kw + pw >= 0 ? (W - kw + pw) / sw + 1 : 0));

  // One window over each whole plane, the last layer of many networks: planes side by side.
  const bool whole_planes = is_max && oW == 1 && oH == 1 && pw == 0 && ph == 0 && kw >= W && kh >= H;
  deepnet_parallel_chunks(count, chunks_, [&](uint64_t chunk, uint64_t first, uint64_t last) {
    if (whole_planes) {
      kernels.max_pool_planes(in->y.data() + first * C * uint64_t(W * H), (last - first) * C, uint64_t(W), uint64_t(H),
                              this->y.data() + first * C);
      return;
    }
    T* __restrict rows = scratch_[chunk].data();
    for (uint64_t plane = first * C; plane < last * C; ++plane) {
      const T* __restrict x = in->y.data() + plane * uint64_t(W) * uint64_t(H);
      T* __restrict out = this->y.data() + plane * uint64_t(oW) * uint64_t(oH);
      for (int64_t r = 0; r < H; ++r) {
        const T* __restrict row = x + r * W;
        T* __restrict dst = rows + r * oW;
        auto edge = [&](int64_t ox) {
          const int64_t ws = ox * sw - pw;
          const int64_t w0 = std::max<int64_t>(ws, 0), w1 = std::min(W, ws + kw);
          if (w0 >= w1) return empty;
          T v = row[w0];
          for (int64_t c = w0 + 1; c < w1; ++c) v = is_max ? (row[c] > v ? row[c] : v) : v + row[c];
          return v;
        };
        for (int64_t ox = 0; ox < ox_lo; ++ox) dst[ox] = edge(ox);
        const T* __restrict base = row + ox_lo * sw - pw;
        if (is_max && ox_hi - ox_lo >= kWideRow) {
          kernels.max_pool_row(base, uint64_t(ox_hi - ox_lo), uint64_t(sw), uint64_t(kw), dst + ox_lo);
        } else {
          for (int64_t ox = ox_lo; ox < ox_hi; ++ox) dst[ox] = base[(ox - ox_lo) * sw];
          for (int64_t kx = 1; kx < kw; ++kx)
            for (int64_t ox = ox_lo; ox < ox_hi; ++ox) {
              const T v = base[(ox - ox_lo) * sw + kx];
              dst[ox] = is_max ? (v > dst[ox] ? v : dst[ox]) : dst[ox] + v;
            }
        }
        for (int64_t ox = ox_hi; ox < oW; ++ox) dst[ox] = edge(ox);
      }
      for (int64_t oy = 0; oy < oH; ++oy, out += oW) {
        const int64_t hs = oy * sh - ph;
        const int64_t h0 = std::max<int64_t>(hs, 0), h1 = std::min(H, hs + kh);
        // The row loop visits at least one row: a window wholly in the top padding reads the
        // first row. A window wholly past the last row has no row to read and reads nothing.
        const int64_t rows_end = h1 > h0 ? h1 : (h0 < H ? h0 + 1 : h0);
        for (int64_t ox = 0; ox < oW; ++ox) out[ox] = empty;
        for (int64_t r = h0; r < rows_end; ++r) {
          const T* __restrict src = rows + r * oW;
          if (is_max && oW >= kWideRow)
            kernels.max_pool_combine(out, src, uint64_t(oW));
          else
            for (int64_t ox = 0; ox < oW; ++ox)
              out[ox] = is_max ? (out[ox] >= src[ox] ? out[ox] : src[ox]) : out[ox] + src[ox];
        }
        if (!is_max)
          for (int64_t ox = 0; ox < oW; ++ox) out[ox] /= area;
      }
    }
  });
}

template class layer_test_pool_3d_base<float, pool_type_max>;
template class layer_test_pool_3d_base<float, pool_type_avg>;

}  // namespace deepnet
