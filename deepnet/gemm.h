#pragma once
// Single-precision matrix products on the engine's own kernels (deepnet/kernels/), blocked and
// packed as in the GotoBLAS design: B in panels of the micro-tile's width that stay in the
// first-level cache, A in blocks that stay in the second, and one register-blocked micro-kernel
// per instruction set. Products run on the calling thread; the engine runs several at once.
#include <cstdint>

#include "deepnet/aligned_buffer.h"
#include "deepnet/cpu_isa.h"
#include "deepnet/kernels/isa_kernels.h"

namespace deepnet {

/// The kernels of one instruction set, and of the one the engine uses.
const isa_kernels& kernels_for(isa which);
const isa_kernels& active_kernels();

/// B (k × n) packed once for many products, as a layer packs its constant weights. Element
/// (p, j) is b[p·ldb + j], or b[j·ldb + p] when `transposed`.
class packed_rhs {
 public:
  packed_rhs() = default;
  packed_rhs(uint64_t k, uint64_t n, const float* b, uint64_t ldb, bool transposed,
             const isa_kernels& kernels = active_kernels());
  uint64_t k() const { return k_; }
  uint64_t n() const { return n_; }
  const isa_kernels& kernels() const { return *kernels_; }
  /// The panels of rows [pc, pc + kc) from column jc (a multiple of the micro-tile width).
  const float* block(uint64_t pc, uint64_t jc) const;

 private:
  uint64_t k_ = 0, n_ = 0, padded_n_ = 0;
  const isa_kernels* kernels_ = nullptr;
  aligned_buffer<float> panels_;
};

/// A (m × k, value (i, p) at a[i·lda + p]) packed once for many products, as a convolution packs
/// its constant weights.
class packed_lhs {
 public:
  packed_lhs() = default;
  packed_lhs(uint64_t m, uint64_t k, const float* a, uint64_t lda, const isa_kernels& kernels = active_kernels());
  uint64_t m() const { return m_; }
  uint64_t k() const { return k_; }
  const isa_kernels& kernels() const { return *kernels_; }
  /// The panels of rows from ic (a multiple of the micro-tile height) and depth [pc, pc + kc).
  const float* block(uint64_t ic, uint64_t pc) const;

 private:
  uint64_t m_ = 0, k_ = 0, padded_m_ = 0;
  const isa_kernels* kernels_ = nullptr;
  aligned_buffer<float> panels_;
};

/// Row-major C (m × n) = A (m × k) · B (k × n), plus C's old values when `accumulate`.
/// Element (i, p) of A is a[i·lda + p]; B as in packed_rhs; C's rows are ldc apart.
void gemm(uint64_t m, uint64_t n, uint64_t k, const float* a, uint64_t lda, const float* b, uint64_t ldb,
          bool b_transposed, float* c, uint64_t ldc, bool accumulate, const isa_kernels& kernels = active_kernels());

/// The same with B packed beforehand, on B's kernels.
void gemm(uint64_t m, const float* a, uint64_t lda, const packed_rhs& b, float* c, uint64_t ldc, bool accumulate);

/// The same with A packed beforehand, on A's kernels; B as stored, k rows of n.
void gemm(const packed_lhs& a, uint64_t n, const float* b, uint64_t ldb, float* c, uint64_t ldc, bool accumulate);

}  // namespace deepnet
