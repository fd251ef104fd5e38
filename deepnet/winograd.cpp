#include "deepnet/winograd.h"

#include <algorithm>
#include <stdexcept>

#include "deepnet/layer_test.h"

namespace deepnet {

namespace {

// Tiles transformed and multiplied together: a whole number of every kernel's micro-tile rows
// (12 and 6), so that each of the n² products packs its rows as one block.
constexpr uint64_t kTileBlock = 96;
// Channels are padded to whole vectors of the widest kernels.
constexpr uint64_t kChannelAlign = 16;

uint64_t round_up(uint64_t v, uint64_t to) { return (v + to - 1) / to * to; }

struct tile_geometry {
  uint64_t m, n, r;
};

tile_geometry geometry(winograd_kind kind) {
  switch (kind) {
    case winograd_f4x3:
      return {4, 6, 3};
    case winograd_f2x5:
      return {2, 6, 5};
    case winograd_f2x3:
      break;
  }
  return {2, 4, 3};
}

// G: the kernel transform (n × r) for the points 0, ±1, ±2 and infinity, matching the input
// and output transforms in kernels/isa_kernels.inc.
std::vector<double> kernel_transform(winograd_kind kind) {
  const double s = 1.0 / 6, t = 1.0 / 12, u = 1.0 / 24, q = 1.0 / 3, h = 2.0 / 3;
  switch (kind) {
    case winograd_f4x3:
      return {0.25, 0, 0, -s, -s, -s, -s, s, -s, u, t, s, u, -t, s, 0, 0, 1};
    case winograd_f2x5:
      return {0.25, 0, 0, 0, 0, -s, -s, -s, -s, -s, -s, s, -s, s, -s, u, t, s, q, h, u, -t, s, -q, h, 0, 0, 0, 0, 1};
    case winograd_f2x3:
      break;
  }
  return {1, 0, 0, 0.5, 0.5, 0.5, 0.5, -0.5, 0.5, 0, 0, 1};
}

}  // namespace

std::optional<winograd_kind> choose_winograd(const winograd_shape& s) {
  const uint64_t in_c = round_up(s.in_c, kChannelAlign), out_c = round_up(s.out_c, kChannelAlign);
  const double direct = double(s.kernel * s.kernel) * double(s.out_w * s.out_h) * double(s.in_c * s.out_c);
  std::optional<winograd_kind> best;
  double best_cost = direct;
  for (winograd_kind kind : {winograd_f2x3, winograd_f4x3, winograd_f2x5}) {
    const tile_geometry g = geometry(kind);
    if (g.r != s.kernel) continue;
    const double tiles = double((s.out_w + g.m - 1) / g.m) * double((s.out_h + g.m - 1) / g.m);
    // The transforms cost a few additions per value on each side of the products.
    const double cost = double(g.n * g.n) * tiles * (double(in_c * out_c) + 4.0 * double(in_c + out_c));
    if (cost < best_cost) {
      best = kind;
      best_cost = cost;
    }
  }
  return best;
}

winograd_weights::winograd_weights(winograd_kind kind_, uint64_t in_c, uint64_t out_c, const float* weights,
                                   const float* biases_, const isa_kernels& kernels_)
    : kind(kind_),
      kernels(&kernels_),
      in_channels(round_up(in_c, kChannelAlign)),
      out_channels(round_up(out_c, kChannelAlign)) {
  // U_ξ(c, o) = (G g_oc Gᵀ)(i, j), ξ = i·n + j, in double; padded channels stay zero.
  const tile_geometry g = geometry(kind);
  const std::vector<double> G = kernel_transform(kind);
  const uint64_t n = g.n, r = g.r, xis = n * n;
  std::vector<float> u(xis * in_channels * out_channels, 0.0f);
  std::vector<double> gg(n * r);
  for (uint64_t o = 0; o < out_c; ++o)
    for (uint64_t c = 0; c < in_c; ++c) {
      const float* w = weights + (o * in_c + c) * r * r;
      for (uint64_t i = 0; i < n; ++i)
        for (uint64_t b = 0; b < r; ++b) {
          double sum = 0;
          for (uint64_t a = 0; a < r; ++a) sum += G[i * r + a] * w[a * r + b];
          gg[i * r + b] = sum;
        }
      for (uint64_t i = 0; i < n; ++i)
        for (uint64_t j = 0; j < n; ++j) {
          double sum = 0;
          for (uint64_t b = 0; b < r; ++b) sum += gg[i * r + b] * G[j * r + b];
          u[((i * n + j) * in_channels + c) * out_channels + o] = float(sum);
        }
    }
  matrices.reserve(xis);
  for (uint64_t xi = 0; xi < xis; ++xi)
    matrices.emplace_back(in_channels, out_channels, u.data() + xi * in_channels * out_channels, out_channels, false,
                          kernels_);
  biases.assign_zero(out_channels);
  std::copy(biases_, biases_ + out_c, biases.data());
}

void winograd_conv::prepare(const winograd_shape& shape, std::shared_ptr<const winograd_weights> weights) {
  const tile_geometry g = geometry(weights->kind);
  if (g.r != shape.kernel) throw std::logic_error("winograd_conv::prepare(): kernel size does not fit the tiles");
  shape_ = shape;
  weights_ = std::move(weights);
  m_ = g.m;
  n_ = g.n;
  tiles_x_ = (shape.out_w + m_ - 1) / m_;
  tiles_y_ = (shape.out_h + m_ - 1) / m_;
  padded_w_ = tiles_x_ * m_ + g.r - 1;
  padded_h_ = tiles_y_ * m_ + g.r - 1;
}

void winograd_conv::reserve(winograd_scratch& s, uint64_t max_samples) const {
  const uint64_t xis = n_ * n_;
  const uint64_t block = std::min(kTileBlock, round_up(max_samples * tiles_x_ * tiles_y_, 12));
  // Shapes a model asks for are bounded as every layer's buffers are.
  const char* who = "winograd_conv::reserve()";
  s.input.resize_uninitialized(deepnet_checked_size({max_samples, padded_w_, padded_h_, weights_->in_channels}, who));
  s.transformed.resize_uninitialized(deepnet_checked_size({xis, block, weights_->in_channels}, who));
  s.products.resize_uninitialized(deepnet_checked_size({xis, block, weights_->out_channels}, who));
}

void winograd_conv::run(const float* input, uint64_t samples, float* output, winograd_scratch& s) const {
  const winograd_shape& sh = shape_;
  const uint64_t xis = n_ * n_, per_sample = tiles_x_ * tiles_y_, total = samples * per_sample;
  const winograd_weights& w = *weights_;
  const uint64_t Cp = w.in_channels, Op = w.out_channels;
  const uint64_t row_stride = padded_w_ * Cp, sample_stride = padded_h_ * row_stride;
  const uint64_t block = s.transformed.size() / (xis * Cp);
  const uint64_t in_plane = sh.in_w * sh.in_h, out_plane = sh.out_w * sh.out_h;

  // Channel-last copy with the padding, the partial last tiles and the padded channels as zeros,
  // each value written once (a buffer cleared first would cost as much again). Sixteen channels
  // are moved at a time, so the reads run along sixteen rows and the writes are contiguous.
  float* buf = s.input.data();
  // Input rows and columns that no tile reads (past the padded extent) are skipped.
  const uint64_t width = std::min(sh.in_w, padded_w_ - std::min(padded_w_, sh.pad_w));
  const uint64_t height = std::min(sh.in_h, padded_h_ - std::min(padded_h_, sh.pad_h));
  const uint64_t top = std::min(sh.pad_h, padded_h_), left = std::min(sh.pad_w, padded_w_);
  for (uint64_t b = 0; b < samples; ++b) {
    float* sample = buf + b * sample_stride;
    std::fill(sample, sample + top * row_stride, 0.0f);
    std::fill(sample + (top + height) * row_stride, sample + sample_stride, 0.0f);
    for (uint64_t y = 0; y < height; ++y) {
      float* row = sample + (y + top) * row_stride;
      std::fill(row, row + left * Cp, 0.0f);
      std::fill(row + (left + width) * Cp, row + row_stride, 0.0f);
      row += left * Cp;
      for (uint64_t c0 = 0; c0 < Cp; c0 += kChannelAlign) {
        const uint64_t channels = std::min(kChannelAlign, sh.in_c - std::min(sh.in_c, c0));
        w.kernels->channels_last_row(input + (b * sh.in_c + c0) * in_plane + y * sh.in_w, in_plane, channels, width,
                                     row + c0, Cp);
      }
    }
  }

  for (uint64_t t0 = 0; t0 < total; t0 += block) {
    const uint64_t count = std::min(block, total - t0);
    for (uint64_t t = 0; t < count; ++t) {
      const uint64_t b = (t0 + t) / per_sample, ty = (t0 + t) % per_sample / tiles_x_, tx = (t0 + t) % tiles_x_;
      w.kernels->winograd_input(w.kind, buf + b * sample_stride + ty * m_ * row_stride + tx * m_ * Cp, row_stride, Cp,
                                s.transformed.data() + t * Cp, block * Cp);
    }
    for (uint64_t xi = 0; xi < xis; ++xi)
      gemm(count, s.transformed.data() + xi * block * Cp, Cp, w.matrices[xi], s.products.data() + xi * block * Op, Op,
           false);
    for (uint64_t t = 0; t < count; ++t) {
      const uint64_t b = (t0 + t) / per_sample, ty = (t0 + t) % per_sample / tiles_x_, tx = (t0 + t) % tiles_x_;
      const uint64_t y0 = ty * m_, x0 = tx * m_;
      w.kernels->winograd_output(w.kind, s.products.data() + t * Op, block * Op, sh.out_c, w.biases.data(),
                                 output + b * sh.out_c * out_plane + y0 * sh.out_w + x0, out_plane, sh.out_w,
                                 std::min(m_, sh.out_h - y0), std::min(m_, sh.out_w - x0));
    }
  }
}

}  // namespace deepnet
