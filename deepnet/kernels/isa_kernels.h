#pragma once
// The engine's innermost loops, compiled once per instruction set from isa_kernels.inc and
// chosen at run time (deepnet/cpu_isa.h). Only this table crosses between the per-instruction-set
// files and the rest of the engine, so no code built for a wide instruction set is reachable on
// a processor that lacks it.
#include <cstdint>

namespace deepnet {

/// Winograd tile sizes: F(m×m, r×r) computes an m×m output tile of an r×r kernel from an
/// (m + r − 1)² input tile.
enum winograd_kind : int { winograd_f2x3 = 0, winograd_f4x3 = 1, winograd_f2x5 = 2 };

struct isa_kernels {
  const char* name;
  uint32_t mr;  ///< rows of a product's micro-tile (rows of A)
  uint32_t nr;  ///< columns of a product's micro-tile (columns of B)

  /// c[i·ldc + j] = (accumulate ? c[i·ldc + j] : 0) + Σ_p a[p·mr + i] · b[p·nr + j] for the whole
  /// mr × nr tile: `a` and `b` are packed panels (read with unaligned loads: a panel starts kc
  /// rows into its block).
  void (*micro_kernel)(uint64_t kc, const float* a, const float* b, float* c, uint64_t ldc, bool accumulate);
  /// The same with A unpacked: value (i, p) at a[i·lda + p].
  void (*micro_kernel_rows)(uint64_t kc, const float* a, uint64_t lda, const float* b, float* c, uint64_t ldc,
                            bool accumulate);

  /// Transforms the n×n input tile at `src` (channel-last: value (y, x, c) at
  /// src[y·row_stride + x·channels + c]) into n² rows dst[ξ·xi_stride + c], ξ = i·n + j.
  /// `channels` is a multiple of 16.
  void (*winograd_input)(winograd_kind kind, const float* src, uint64_t row_stride, uint64_t channels, float* dst,
                         uint64_t xi_stride);

  /// Transforms the n² product rows src[ξ·xi_stride + o] back into an m×m output tile, adds
  /// bias[o] and writes its first `rows` × `cols` values into planar output: value (y, x) of
  /// channel o < channels at dst[o·plane + y·width + x]. `bias` holds a multiple of 16 values.
  void (*winograd_output)(winograd_kind kind, const float* src, uint64_t xi_stride, uint64_t channels,
                          const float* bias, float* dst, uint64_t plane, uint64_t width, uint64_t rows, uint64_t cols);

  /// For each of `width` columns x, 16 values at dst[x·stride]: src[c·plane + x] for c <
  /// channels (at most 16), then zeros.
  void (*channels_last_row)(const float* src, uint64_t plane, uint64_t channels, uint64_t width, float* dst,
                            uint64_t stride);
  /// dst[i] = src[i·stride] for i < n.
  void (*strided_copy)(const float* src, uint64_t stride, uint64_t n, float* dst);

  /// y[i] = max(x[i], 0) over n values (NaN stays NaN).
  void (*rectify)(const float* x, float* y, uint64_t n);
  /// y[i] = x[i]² over n values.
  void (*square)(const float* x, float* y, uint64_t n);
  /// sum[i] += x[i] over n values.
  void (*add_to)(float* sum, const float* x, uint64_t n);

  /// Cross-channel normalisation with exponent 0.75, in place over n values:
  /// sum[p] = x[p] · (k + scale · sum[p])^−0.75, and 0 where x[p] is 0.
  void (*normalise_075)(const float* x, float* sum, uint64_t n, float k, float scale);

  /// Max pooling's horizontal pass: dst[o] = max over kx < kernel of base[o·stride + kx], in
  /// that order, a value replacing the running one only when greater.
  void (*max_pool_row)(const float* base, uint64_t n, uint64_t stride, uint64_t kernel, float* dst);
  /// Max pooling's vertical pass: running[p] = running[p] ≥ row[p] ? running[p] : row[p].
  void (*max_pool_combine)(float* running, const float* row, uint64_t n);
  /// Max pooling of `planes` whole width × height planes into one value each, as the two passes
  /// above would compute it.
  void (*max_pool_planes)(const float* x, uint64_t planes, uint64_t width, uint64_t height, float* out);
};

extern const isa_kernels kernels_sse2;
extern const isa_kernels kernels_avx2;
extern const isa_kernels kernels_avx512;

}  // namespace deepnet
