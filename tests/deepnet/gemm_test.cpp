#include "deepnet/gemm.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "tests/deepnet/net_builder.h"

namespace deepnet {
namespace {

using testing::random_values;

// The kernel families this processor can run; the others cannot be tested here.
std::vector<isa> runnable_isas() {
  std::vector<isa> out;
  for (isa which : {isa::sse2, isa::avx2, isa::avx512})
    if (which <= detected_isa()) out.push_back(which);
  return out;
}

struct product_case {
  uint64_t m, n, k;
  uint64_t pad = 0;  ///< extra elements at the end of every row of A, B and C
  bool transposed = false, accumulate = false;
};

// C from the definition in double, over the same strided storage.
std::vector<double> naive(const product_case& p, const std::vector<float>& a, uint64_t lda, const std::vector<float>& b,
                          uint64_t ldb, const std::vector<float>& c, uint64_t ldc) {
  std::vector<double> out(c.begin(), c.end());
  for (uint64_t i = 0; i < p.m; ++i)
    for (uint64_t j = 0; j < p.n; ++j) {
      double sum = p.accumulate ? c[i * ldc + j] : 0.0;
      for (uint64_t q = 0; q < p.k; ++q)
        sum += double(a[i * lda + q]) * (p.transposed ? b[j * ldb + q] : b[q * ldb + j]);
      out[i * ldc + j] = sum;
    }
  return out;
}

void check(const product_case& p, const isa_kernels& kernels, bool prepacked) {
  const uint64_t lda = p.k + p.pad, ldb = (p.transposed ? p.k : p.n) + p.pad, ldc = p.n + p.pad;
  const auto a = random_values(p.m * lda + 1, unsigned(p.m * 7 + p.k));
  const auto b = random_values((p.transposed ? p.n : p.k) * ldb + 1, unsigned(p.n * 3 + p.k));
  auto c = random_values(p.m * ldc + 1, 11);
  const auto want = naive(p, a, lda, b, ldb, c, ldc);
  if (prepacked) {
    const packed_rhs packed(p.k, p.n, b.data(), ldb, p.transposed, kernels);
    gemm(p.m, a.data(), lda, packed, c.data(), ldc, p.accumulate);
  } else {
    gemm(p.m, p.n, p.k, a.data(), lda, b.data(), ldb, p.transposed, c.data(), ldc, p.accumulate, kernels);
  }
  for (uint64_t i = 0; i < c.size(); ++i) {
    // Values past each row's n columns (the padding) must be left as they were.
    const double tolerance = 1e-5 * (1.0 + double(p.k));
    ASSERT_NEAR(c[i], want[i], tolerance)
        << kernels.name << " m=" << p.m << " n=" << p.n << " k=" << p.k << " pad=" << p.pad
        << " transposed=" << p.transposed << " accumulate=" << p.accumulate << " prepacked=" << prepacked << " at "
        << i;
  }
}

// Every kernel family against the definition: extents around the micro-tile's and the blocks'
// edges (1, the tile ± 1, past one depth block and one row block), strided rows, B stored
// either way, overwriting or accumulating, B packed here or beforehand.
TEST(Gemm, EveryKernelMatchesTheDefinition) {
  const std::vector<uint64_t> rows = {1, 5, 6, 7, 11, 12, 13, 97, 200};
  const std::vector<uint64_t> cols = {1, 7, 8, 15, 16, 17, 31, 32, 33, 64, 100};
  const std::vector<uint64_t> depths = {1, 3, 255, 256, 257, 600};
  for (isa which : runnable_isas()) {
    const isa_kernels& kernels = kernels_for(which);
    int cases = 0;
    for (uint64_t m : rows)
      for (uint64_t n : cols)
        for (uint64_t k : depths) {
          // A spread of the flag combinations without running every one of every size.
          const int v = cases++;
          product_case p{m, n, k, uint64_t(v % 3), v % 2 == 0, v % 5 == 0};
          check(p, kernels, v % 4 == 1);
        }
    check({3000, 5, 7}, kernels, false);  // more columns than one packed block of B
    check({4, 2100, 9}, kernels, false);
  }
}

// No depth: C is cleared, or kept when accumulating; no rows or columns: nothing is touched.
TEST(Gemm, EmptyExtents) {
  for (isa which : runnable_isas()) {
    const isa_kernels& kernels = kernels_for(which);
    std::vector<float> c(6, 5.0f);
    gemm(2, 3, 0, nullptr, 0, nullptr, 3, false, c.data(), 3, true, kernels);
    EXPECT_EQ(c, std::vector<float>(6, 5.0f));
    gemm(2, 3, 0, nullptr, 0, nullptr, 3, false, c.data(), 3, false, kernels);
    EXPECT_EQ(c, std::vector<float>(6, 0.0f));
    c.assign(6, 5.0f);
    gemm(0, 3, 4, nullptr, 4, nullptr, 3, false, c.data(), 3, false, kernels);
    gemm(2, 0, 4, nullptr, 4, nullptr, 3, false, c.data(), 3, false, kernels);
    EXPECT_EQ(c, std::vector<float>(6, 5.0f));
  }
}

// NaN and infinity in an operand reach exactly the outputs they belong to.
TEST(Gemm, NonFiniteValuesStayInTheirRowsAndColumns) {
  for (isa which : runnable_isas()) {
    const isa_kernels& kernels = kernels_for(which);
    const uint64_t m = 13, n = 33, k = 5;
    std::vector<float> a(m * k, 1.0f), b(k * n, 1.0f), c(m * n);
    a[4 * k + 2] = NAN;
    b[1 * n + 20] = INFINITY;
    gemm(m, n, k, a.data(), k, b.data(), n, false, c.data(), n, false, kernels);
    for (uint64_t i = 0; i < m; ++i)
      for (uint64_t j = 0; j < n; ++j) {
        const float v = c[i * n + j];
        if (i == 4)
          EXPECT_TRUE(std::isnan(v)) << kernels.name << " " << i << "," << j;
        else if (j == 20)
          EXPECT_TRUE(std::isinf(v)) << kernels.name << " " << i << "," << j;
        else
          EXPECT_EQ(v, float(k)) << kernels.name << " " << i << "," << j;
      }
  }
}

TEST(CpuIsa, NamesRoundTripAndUnknownNamesAreRefused) {
  for (isa which : {isa::sse2, isa::avx2, isa::avx512}) EXPECT_EQ(parse_isa(isa_name(which)), which);
  EXPECT_FALSE(parse_isa("avx"));
  EXPECT_FALSE(parse_isa(""));
  EXPECT_LE(active_isa(), detected_isa());
}

}  // namespace
}  // namespace deepnet
