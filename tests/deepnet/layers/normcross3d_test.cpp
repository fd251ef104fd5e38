#include "deepnet/layers/normcross3d.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/deepnet/net_builder.h"

namespace deepnet {
namespace {

using testing::fixed_input;
using testing::random_values;
using testing::run_layer;

// Written from the definition with powf and a clipped window, for any beta.
float reference(const std::vector<float>& x, uint64_t C, uint64_t P, uint64_t c, uint64_t p,
                const layer_model_normcross3d& m) {
  const float v = x[c * P + p];
  if (v == 0.0f) return 0.0f;
  const int64_t half = m.local_size / 2;
  float s = 0;
  for (int64_t j = std::max<int64_t>(0, int64_t(c) - half); j <= std::min<int64_t>(int64_t(C) - 1, int64_t(c) + half);
       ++j)
    s += x[j * P + p] * x[j * P + p];
  return v / std::pow(m.k + m.alpha / float(m.local_size) * s, m.beta);
}

TEST(NormCross3d, ClippedWindowAndFixedDivisor) {
  for (float beta : {0.75f, 0.5f, 1.3f}) {
    layer_model_normcross3d m;
    m.local_size = 5;
    m.k = 2.0f;
    m.alpha = 3.0f;  // large enough that every neighbour changes the result visibly
    m.beta = beta;
    const uint64_t C = 8, P = 6, B = 2;
    auto x = random_values(B * C * P, 5);
    x[3] = 0.0f;
    fixed_input in(B, {3, 2, C}, x);
    layer_test_normcross3d layer;
    const auto y = run_layer(layer, m, {&in}, B);
    EXPECT_EQ(y[3], 0.0f);
    for (uint64_t b = 0; b < B; ++b) {
      const std::vector<float> sample(x.begin() + b * C * P, x.begin() + (b + 1) * C * P);
      for (uint64_t c = 0; c < C; ++c)
        for (uint64_t p = 0; p < P; ++p)
          ASSERT_NEAR(y[(b * C + c) * P + p], reference(sample, C, P, c, p, m), 1e-6f) << c << " " << p;
    }
    // Channel 0 sums channels 0 to 2 only; the last channel sums 5 to 7; divisor stays 5.
    const float s0 = x[0] * x[0] + x[P] * x[P] + x[2 * P] * x[2 * P];
    EXPECT_NEAR(y[0], x[0] / std::pow(2.0f + 3.0f / 5.0f * s0, beta), 1e-6f);
    float s7 = 0;
    for (int j = 5; j < 8; ++j) s7 += x[j * P] * x[j * P];
    EXPECT_NEAR(y[7 * P], x[7 * P] / std::pow(2.0f + 3.0f / 5.0f * s7, beta), 1e-6f);
  }
}

TEST(NormCross3d, NeedsOneImageInput) {
  layer_model_normcross3d m;
  fixed_input flat(1, {4}, {1, 2, 3, 4});
  layer_test_normcross3d layer;
  EXPECT_EQ(testing::error_text([&] { run_layer(layer, m, {&flat}, 1); }),
            "layer_test_normcross3d::allocate(): Input mismatch");
}

}  // namespace
}  // namespace deepnet
