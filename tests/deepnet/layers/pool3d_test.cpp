#include "deepnet/layers/pool3d.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <tuple>

#include "deepnet/parallel.h"
#include "tests/deepnet/net_builder.h"

namespace deepnet {
namespace {

using testing::fixed_input;
using testing::random_values;
using testing::run_layer;

layer_model_poolmax3d max_pool(uint32_t k, uint32_t s) {
  layer_model_poolmax3d m;
  m.kernel_w = m.kernel_h = k;
  m.stride_w = m.stride_h = s;
  return m;
}

// Pooling written from the definition: every window position of the padded frame that falls
// inside the image counts; max starts from the most negative float, average divides by the
// full kernel area.
std::vector<float> naive_pool(const layer_model_pool3d& m, bool is_max, uint64_t B, int64_t W, int64_t H, int64_t C,
                              const std::vector<float>& x, int64_t& oW, int64_t& oH) {
  auto extent = [](int64_t in, int64_t pb, int64_t pe, int64_t k, int64_t s) {
    return (in + pb + pe - k) / s + 1 + ((in + pb + pe - k) % s ? 1 : 0);
  };
  oW = extent(W, m.pad_w_begin, m.pad_w_end, m.kernel_w, m.stride_w);
  oH = extent(H, m.pad_h_begin, m.pad_h_end, m.kernel_h, m.stride_h);
  std::vector<float> y;
  for (uint64_t p = 0; p < B * C; ++p)
    for (int64_t oy = 0; oy < oH; ++oy)
      for (int64_t ox = 0; ox < oW; ++ox) {
        float best = -FLT_MAX;
        double sum = 0;
        for (int64_t ky = 0; ky < m.kernel_h; ++ky)
          for (int64_t kx = 0; kx < m.kernel_w; ++kx) {
            const int64_t yy = oy * m.stride_h - m.pad_h_begin + ky, xx = ox * m.stride_w - m.pad_w_begin + kx;
            if (yy < 0 || yy >= H || xx < 0 || xx >= W) continue;
            const float v = x[(p * H + yy) * W + xx];
            best = std::max(best, v);
            sum += v;
          }
        y.push_back(is_max ? best : float(sum / (m.kernel_w * m.kernel_h)));
      }
  return y;
}

TEST(Pool3d, MatchesDirectPoolingOverManyShapes) {
  std::mt19937 gen(11);
  auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(gen); };
  for (int threads : {1, 2}) {
    deepnet_set_num_threads(threads);
    for (int trial = 0; trial < 400; ++trial) {
      const bool is_max = trial % 2 == 0;
      layer_model_poolmax3d mx;
      layer_model_poolavg3d av;
      layer_model_pool3d& m = is_max ? static_cast<layer_model_pool3d&>(mx) : av;
      m.kernel_w = pick(1, 4);
      m.kernel_h = pick(1, 4);
      m.stride_w = pick(1, 3);
      m.stride_h = pick(1, 3);
      // Pads below the kernel keep every window on the image (see the padding quirk below).
      m.pad_w_begin = pick(0, m.kernel_w - 1);
      m.pad_h_begin = pick(0, m.kernel_h - 1);
      m.pad_w_end = pick(0, 2);
      m.pad_h_end = pick(0, 2);
      const uint64_t B = pick(1, 4), C = pick(1, 3);
      const int64_t W = pick(int(m.kernel_w), 13), H = pick(int(m.kernel_h), 13);
      const auto x = random_values(B * C * W * H, trial);
      int64_t oW, oH;
      const auto want = naive_pool(m, is_max, B, W, H, C, x, oW, oH);
      fixed_input in(B, {uint64_t(W), uint64_t(H), C}, x);
      layer_test_poolmax3d pmax;
      layer_test_poolavg3d pavg;
      const auto got = is_max ? run_layer(pmax, m, {&in}, B) : run_layer(pavg, m, {&in}, B);
      const uint64_t* dims = is_max ? pmax.dims : pavg.dims;
      ASSERT_EQ(dims[0], uint64_t(oW));
      ASSERT_EQ(dims[1], uint64_t(oH));
      ASSERT_EQ(dims[2], C);
      ASSERT_EQ(got.size(), want.size());
      for (size_t i = 0; i < want.size(); ++i) ASSERT_NEAR(got[i], want[i], 1e-5f) << "trial " << trial;
    }
  }
  deepnet_set_num_threads(1);
}

// Rows wide enough for the vectorised passes, with the shipped networks' 3-wide, stride-2 window
// (a pass of its own) and others, odd and even widths.
TEST(Pool3d, WideRowsMatchDirectPooling) {
  for (const auto& [k, s, side] :
       {std::tuple<uint32_t, uint32_t, int64_t>{3, 2, 55}, {3, 2, 28}, {2, 2, 40}, {3, 1, 30}, {5, 3, 47}}) {
    layer_model_poolmax3d m = max_pool(k, s);
    const uint64_t B = 2, C = 3;
    const auto x = random_values(B * C * side * side, unsigned(side));
    int64_t oW, oH;
    const auto want = naive_pool(m, true, B, side, side, C, x, oW, oH);
    fixed_input in(B, {uint64_t(side), uint64_t(side), C}, x);
    layer_test_poolmax3d pool;
    EXPECT_EQ(run_layer(pool, m, {&in}, B), want) << k << "/" << s << " over " << side;
  }
}

// A window over each whole plane (the last pooling of the shipped networks) takes its own path,
// many planes at once: the same values as the row-by-row passes, NaN included: within a row a
// value replaces the running one only when greater (a NaN first in its row stays), and a row's
// result replaces the plane's unless the plane's is greater or equal.
TEST(Pool3d, WholePlaneWindowsOverManyPlanes) {
  for (int threads : {1, 2})
    for (const auto& [W, H] : {std::pair<uint32_t, uint32_t>{6, 6}, {5, 3}, {1, 1}}) {
      deepnet_set_num_threads(threads);
      const uint64_t B = 3, C = 37;
      auto x = random_values(B * C * W * H, W * H, -5.0f, 5.0f);
      for (uint64_t p = 0; p < B * C; p += 5) x[p * W * H + (p % 3) * W * (H > 1)] = NAN;  // first of a row
      for (uint64_t p = 1; p < B * C; p += 7) x[p * W * H + W * H - 1] = NAN;              // last of the plane
      layer_model_poolmax3d m;
      m.kernel_w = W;
      m.kernel_h = H;
      m.stride_w = W;
      m.stride_h = H;
      fixed_input in(B, {W, H, C}, x);
      layer_test_poolmax3d pool;
      const auto got = run_layer(pool, m, {&in}, B);
      ASSERT_EQ(got.size(), B * C);
      for (uint64_t p = 0; p < B * C; ++p) {
        float plane = -FLT_MAX;
        for (uint32_t y = 0; y < H; ++y) {
          float row = x[p * W * H + y * W];
          for (uint32_t i = 1; i < W; ++i) row = x[p * W * H + y * W + i] > row ? x[p * W * H + y * W + i] : row;
          plane = plane >= row ? plane : row;
        }
        if (std::isnan(plane))
          EXPECT_TRUE(std::isnan(got[p])) << W << "x" << H << " plane " << p;
        else
          EXPECT_EQ(got[p], plane) << W << "x" << H << " plane " << p;
      }
    }
  deepnet_set_num_threads(1);
}

TEST(Pool3d, EdgeWindowsOfAFiveByFivePlane) {
  std::vector<float> x(25);
  for (int i = 0; i < 25; ++i) x[i] = float(i + 1);
  fixed_input in(1, {5, 5, 1}, x);
  layer_test_poolmax3d pmax;
  EXPECT_EQ(run_layer(pmax, max_pool(2, 2), {&in}, 1), (std::vector<float>{7, 9, 10, 17, 19, 20, 22, 24, 25}));
  layer_model_poolavg3d avg;
  avg.kernel_w = avg.kernel_h = avg.stride_w = avg.stride_h = 2;
  layer_test_poolavg3d pavg;
  const auto y = run_layer(pavg, avg, {&in}, 1);
  ASSERT_EQ(y.size(), 9u);
  EXPECT_FLOAT_EQ(y[8], 25.0f / 4);  // the lone corner value over the full kernel area
  EXPECT_FLOAT_EQ(y[2], (5.0f + 10.0f) / 4);
}

// The row loop visits at least one row: a window wholly inside the top padding reads the first
// image row; a window wholly past the last row reads nothing and keeps the starting value.
TEST(Pool3d, WindowsOutsideTheImage) {
  fixed_input in(1, {2, 2, 1}, {1, 2, 3, 4});
  layer_model_poolmax3d top = max_pool(1, 1);
  top.pad_h_begin = 1;
  layer_test_poolmax3d a;
  EXPECT_EQ(run_layer(a, top, {&in}, 1), (std::vector<float>{1, 2, 1, 2, 3, 4}));

  layer_model_poolmax3d bottom = max_pool(1, 3);
  bottom.stride_w = 1;
  bottom.pad_h_end = 2;  // padded height 4, kernel 1, stride 3: rows 0 and 3, row 3 is padding
  layer_test_poolmax3d b;
  EXPECT_EQ(run_layer(b, bottom, {&in}, 1), (std::vector<float>{1, 2, -FLT_MAX, -FLT_MAX}));
}

TEST(Pool3d, RefusesBadInputs) {
  fixed_input flat(1, {4}, {1, 2, 3, 4});
  fixed_input plane(1, {2, 2, 1}, {1, 2, 3, 4});
  layer_test_poolavg3d p;
  EXPECT_EQ(testing::error_text([&] { run_layer(p, max_pool(1, 1), {&flat}, 1); }),
            "layer_test_pool_3d_base::allocate(): Input mismatch");
  layer_test_poolmax3d q;
  EXPECT_THROW(run_layer(q, max_pool(1, 1), {&plane, &plane}, 1), std::runtime_error);
  layer_test_poolmax3d r;
  EXPECT_THROW(run_layer(r, max_pool(3, 1), {&plane}, 1), std::runtime_error);  // kernel past the plane
}

}  // namespace
}  // namespace deepnet
