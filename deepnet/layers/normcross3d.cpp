#include "deepnet/layers/normcross3d.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "deepnet/byte_io.h"
#include "deepnet/gemm.h"
#include "deepnet/parallel.h"

namespace deepnet {

void layer_model_normcross3d::deserialize(byte_reader& in, const layer_model_list& layers) {
  layer_model_base::deserialize(in, layers);
  local_size = in.u32();
  k = in.f32();
  alpha = in.f32();
  beta = in.f32();
}

void layer_model_normcross3d::serialize(byte_writer& out) const {
  layer_model_base::serialize(out);
  out.u32(local_size);
  out.f32(k);
  out.f32(alpha);
  out.f32(beta);
}

void layer_test_normcross3d::allocate(const layer_model_base&) {
  if (inputs.size() != 1 || inputs[0]->ndim != 3)
    throw std::runtime_error("layer_test_normcross3d::allocate(): Input mismatch");
  const auto* in = inputs[0];
  set_output(3, in->dims[0], in->dims[1], in->dims[2]);
  chunks_ = deepnet_chunk_count(batch);
  squares_.clear();
  squares_.resize(chunks_);
  for (auto& s : squares_) s.resize_uninitialized(in->y_size_1d());
}

namespace {

// v, or 0 where the input x is 0 (where k + scale * sum may be 0 and v NaN).
inline float zero_where_zero(float x, float v) { return x == 0.0f ? 0.0f : v; }

}  // namespace

void layer_test_normcross3d::fprop_test(uint64_t batch_count, const layer_model_base& model) {
  const auto& m = static_cast<const layer_model_normcross3d&>(model);
  const uint64_t P = dims[0] * dims[1], C = dims[2];
  const int64_t half = m.local_size / 2;
  const float scale = m.alpha / static_cast<float>(m.local_size);
  const float k = m.k, beta = m.beta;
  const uint64_t count = std::min(batch_count, batch);
  const isa_kernels& kernels = active_kernels();

  deepnet_parallel_chunks(count, chunks_, [&](uint64_t chunk, uint64_t first, uint64_t last) {
    float* __restrict sq = squares_[chunk].data();
    for (uint64_t b = first; b < last; ++b) {
      const float* __restrict x = inputs[0]->y.data() + b * C * P;
      float* __restrict out = y.data() + b * C * P;
      kernels.square(x, sq, C * P);
      for (uint64_t c = 0; c < C; ++c) {
        const uint64_t lo = uint64_t(std::max<int64_t>(0, int64_t(c) - half));
        const uint64_t hi = uint64_t(std::min<int64_t>(int64_t(C) - 1, int64_t(c) + half));
        // The window sum is accumulated in the output plane, lowest channel first, then turned
        // into the normalised value in place. Every lane is computed and zeros masked after,
        // so the loops vectorise.
        float* __restrict sum = out + c * P;
        const float* __restrict xc = x + c * P;
        std::copy(sq + lo * P, sq + lo * P + P, sum);
        for (uint64_t j = lo + 1; j <= hi; ++j) kernels.add_to(sum, sq + j * P, P);
        if (beta == 0.75f) {
          kernels.normalise_075(xc, sum, P, k, scale);
        } else {
          for (uint64_t p = 0; p < P; ++p) {
            const float v = xc[p] / std::pow(k + scale * sum[p], beta);
            sum[p] = zero_where_zero(xc[p], v);
          }
        }
      }
    }
  });
}

}  // namespace deepnet
