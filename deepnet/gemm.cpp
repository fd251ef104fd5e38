#include "deepnet/gemm.h"

#include <algorithm>
#include <cstring>

namespace deepnet {

namespace {

// Product depth per block: a B panel of kKc rows by 32 columns (32 KiB) stays in a 48 KiB
// first-level cache beside the A panel the micro-kernel streams past it.
constexpr uint64_t kKc = 256;
// Rows of A per block (rounded down to whole micro-tiles): 96 × 256 floats, 96 KiB, stay in the
// second-level cache while every B panel of the block passes.
constexpr uint64_t kMc = 96;
// Columns of B packed at a time when B is not packed beforehand.
constexpr uint64_t kNc = 2048;

uint64_t round_up(uint64_t v, uint64_t to) { return (v + to - 1) / to * to; }

// Packs rows [0, mc) and columns [0, kc) of A into micro-panels of mr rows, column by column
// (value (i, p) of panel r at out[r·kc·mr + p·mr + i]); rows past mc are zeros. Whole panels
// take the loop with mr known when compiled: it reads mr rows side by side and writes each
// column of the panel as one contiguous run.
template <uint64_t mr>
void pack_whole_panel(const float* __restrict a, uint64_t lda, uint64_t kc, float* __restrict panel) {
  for (uint64_t p = 0; p < kc; ++p)
    for (uint64_t i = 0; i < mr; ++i) panel[p * mr + i] = a[i * lda + p];
}

void pack_lhs(const float* a, uint64_t lda, uint64_t mc, uint64_t kc, uint64_t mr, float* out) {
  for (uint64_t r = 0; r < mc; r += mr) {
    const uint64_t rows = std::min(mr, mc - r);
    float* panel = out + r * kc;
    if (rows == mr && mr == 12) {
      pack_whole_panel<12>(a + r * lda, lda, kc, panel);
      continue;
    }
    if (rows == mr && mr == 6) {
      pack_whole_panel<6>(a + r * lda, lda, kc, panel);
      continue;
    }
    for (uint64_t i = 0; i < rows; ++i) {
      const float* row = a + (r + i) * lda;
      for (uint64_t p = 0; p < kc; ++p) panel[p * mr + i] = row[p];
    }
    for (uint64_t i = rows; i < mr; ++i)
      for (uint64_t p = 0; p < kc; ++p) panel[p * mr + i] = 0.0f;
  }
}

// Packs rows [0, kc) and columns [0, nc) of B into micro-panels of nr columns, row by row
// (value (p, j) of panel q at out[q·kc·nr + p·nr + j]); columns past nc are zeros.
void pack_rhs(const float* b, uint64_t ldb, bool transposed, uint64_t kc, uint64_t nc, uint64_t nr, float* out) {
  for (uint64_t q = 0; q < nc; q += nr) {
    const uint64_t cols = std::min(nr, nc - q);
    float* panel = out + q * kc;
    if (!transposed) {
      for (uint64_t p = 0; p < kc; ++p) {
        std::memcpy(panel + p * nr, b + p * ldb + q, cols * sizeof(float));
        std::fill(panel + p * nr + cols, panel + (p + 1) * nr, 0.0f);
      }
    } else {
      for (uint64_t j = 0; j < cols; ++j) {
        const float* column = b + (q + j) * ldb;
        for (uint64_t p = 0; p < kc; ++p) panel[p * nr + j] = column[p];
      }
      for (uint64_t j = cols; j < nr; ++j)
        for (uint64_t p = 0; p < kc; ++p) panel[p * nr + j] = 0.0f;
    }
  }
}

// Packing space of the calling thread; grows, never shrinks.
struct packing_space {
  aligned_buffer<float> lhs, rhs;
};
packing_space& thread_packing_space() {
  thread_local packing_space space;
  return space;
}

// C[rows × cols] (+)= the micro-kernel's result kept in `tile` (ld nr).
void store_edge(const float* tile, uint64_t nr, uint64_t rows, uint64_t cols, float* c, uint64_t ldc, bool accumulate) {
  for (uint64_t i = 0; i < rows; ++i)
    for (uint64_t j = 0; j < cols; ++j) c[i * ldc + j] = (accumulate ? c[i * ldc + j] : 0.0f) + tile[i * nr + j];
}

// One block of C: rows [0, mc) by columns [0, nc) from packed panels of depth kc. With
// `a_rows`, whole panels of A are read unpacked from a_rows (lda apart) and only a last partial
// panel comes from a_panels.
void multiply_block(const isa_kernels& kernels, uint64_t mc, uint64_t nc, uint64_t kc, const float* a_panels,
                    const float* a_rows, uint64_t lda, const float* b_panels, float* c, uint64_t ldc, bool accumulate) {
  const uint64_t mr = kernels.mr, nr = kernels.nr;
  alignas(64) float tile[16 * 64];
  for (uint64_t jr = 0; jr < nc; jr += nr) {
    const uint64_t cols = std::min(nr, nc - jr);
    const float* b = b_panels + jr * kc;
    for (uint64_t ir = 0; ir < mc; ir += mr) {
      const uint64_t rows = std::min(mr, mc - ir);
      const float* a = a_panels + ir * kc;
      float* cc = c + ir * ldc + jr;
      const bool unpacked = a_rows && rows == mr;
      float* out = rows == mr && cols == nr ? cc : tile;
      const uint64_t ld_out = out == cc ? ldc : nr;
      if (unpacked)
        kernels.micro_kernel_rows(kc, a_rows + ir * lda, lda, b, out, ld_out, accumulate && out == cc);
      else
        kernels.micro_kernel(kc, a, b, out, ld_out, accumulate && out == cc);
      if (out == tile) store_edge(tile, nr, rows, cols, cc, ldc, accumulate);
    }
  }
}

void clear_or_keep(uint64_t m, uint64_t n, float* c, uint64_t ldc, bool accumulate) {
  if (accumulate) return;
  for (uint64_t i = 0; i < m; ++i) std::fill(c + i * ldc, c + i * ldc + n, 0.0f);
}

// The blocked product, A and B each either packed here block by block or given packed.
void run(uint64_t m, uint64_t n, uint64_t k, const float* a, uint64_t lda, const packed_lhs* packed_a, const float* b,
         uint64_t ldb, bool b_transposed, const packed_rhs* packed, float* c, uint64_t ldc, bool accumulate,
         const isa_kernels& kernels) {
  if (m == 0 || n == 0) return;
  if (k == 0) return clear_or_keep(m, n, c, ldc, accumulate);
  const uint64_t mr = kernels.mr, nr = kernels.nr;
  const uint64_t mc_max = std::max(mr, kMc / mr * mr);
  packing_space& space = thread_packing_space();
  if (!packed_a && space.lhs.size() < mc_max * kKc) space.lhs.resize_uninitialized(mc_max * kKc);
  if (!packed && space.rhs.size() < kNc * kKc) space.rhs.resize_uninitialized(kNc * kKc);
  for (uint64_t jc = 0; jc < n; jc += kNc) {
    const uint64_t nc = std::min(kNc, n - jc);
    for (uint64_t pc = 0; pc < k; pc += kKc) {
      const uint64_t kc = std::min(kKc, k - pc);
      const float* b_panels;
      if (packed) {
        b_panels = packed->block(pc, jc);
      } else {
        pack_rhs(b_transposed ? b + jc * ldb + pc : b + pc * ldb + jc, ldb, b_transposed, kc, nc, nr, space.rhs.data());
        b_panels = space.rhs.data();
      }
      for (uint64_t ic = 0; ic < m; ic += mc_max) {
        const uint64_t mc = std::min(mc_max, m - ic);
        if (packed_a) {
          multiply_block(kernels, mc, nc, kc, packed_a->block(ic, pc), nullptr, 0, b_panels, c + ic * ldc + jc, ldc,
                         accumulate || pc > 0);
          continue;
        }
        // With B packed beforehand (a layer's weights), A is the layer's data, just written and
        // still in cache: whole panels are read where they lie, only a partial one is packed.
        const uint64_t whole = packed ? mc / mr * mr : 0;
        pack_lhs(a + (ic + whole) * lda + pc, lda, mc - whole, kc, mr, space.lhs.data() + whole * kc);
        multiply_block(kernels, mc, nc, kc, space.lhs.data(), packed ? a + ic * lda + pc : nullptr, lda, b_panels,
                       c + ic * ldc + jc, ldc, accumulate || pc > 0);
      }
    }
  }
}

}  // namespace

const isa_kernels& kernels_for(isa which) {
  switch (which) {
    case isa::avx512:
      return kernels_avx512;
    case isa::avx2:
      return kernels_avx2;
    case isa::sse2:
      break;
  }
  return kernels_sse2;
}

const isa_kernels& active_kernels() {
  static const isa_kernels& active = kernels_for(active_isa());
  return active;
}

packed_lhs::packed_lhs(uint64_t m, uint64_t k, const float* a, uint64_t lda, const isa_kernels& kernels)
    : m_(m), k_(k), padded_m_(round_up(m, kernels.mr)), kernels_(&kernels) {
  panels_.resize_uninitialized(k * padded_m_);
  // Block pc holds columns [pc, pc + kc) of every row, panel after panel, as run() packs them.
  for (uint64_t pc = 0; pc < k; pc += kKc) {
    const uint64_t kc = std::min(kKc, k - pc);
    pack_lhs(a + pc, lda, m, kc, kernels.mr, panels_.data() + pc * padded_m_);
  }
}

const float* packed_lhs::block(uint64_t ic, uint64_t pc) const {
  const uint64_t kc = std::min(kKc, k_ - pc);
  return panels_.data() + pc * padded_m_ + ic * kc;
}

packed_rhs::packed_rhs(uint64_t k, uint64_t n, const float* b, uint64_t ldb, bool transposed,
                       const isa_kernels& kernels)
    : k_(k), n_(n), padded_n_(round_up(n, kernels.nr)), kernels_(&kernels) {
  panels_.resize_uninitialized(k * padded_n_);
  // Block pc holds rows [pc, pc + kc) of every column, panel after panel, as run() packs them.
  for (uint64_t pc = 0; pc < k; pc += kKc) {
    const uint64_t kc = std::min(kKc, k - pc);
    pack_rhs(transposed ? b + pc : b + pc * ldb, ldb, transposed, kc, n, kernels.nr, panels_.data() + pc * padded_n_);
  }
}

const float* packed_rhs::block(uint64_t pc, uint64_t jc) const {
  const uint64_t kc = std::min(kKc, k_ - pc);
  return panels_.data() + pc * padded_n_ + jc * kc;
}

void gemm(uint64_t m, uint64_t n, uint64_t k, const float* a, uint64_t lda, const float* b, uint64_t ldb,
          bool b_transposed, float* c, uint64_t ldc, bool accumulate, const isa_kernels& kernels) {
  run(m, n, k, a, lda, nullptr, b, ldb, b_transposed, nullptr, c, ldc, accumulate, kernels);
}

void gemm(uint64_t m, const float* a, uint64_t lda, const packed_rhs& b, float* c, uint64_t ldc, bool accumulate) {
  run(m, b.n(), b.k(), a, lda, nullptr, nullptr, 0, false, &b, c, ldc, accumulate, b.kernels());
}

void gemm(const packed_lhs& a, uint64_t n, const float* b, uint64_t ldb, float* c, uint64_t ldc, bool accumulate) {
  run(a.m(), n, a.k(), nullptr, 0, &a, b, ldb, false, nullptr, c, ldc, accumulate, a.kernels());
}

}  // namespace deepnet
