#include "deepnet/winograd.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "deepnet/layers/conv3d.h"
#include "deepnet/parallel.h"
#include "tests/deepnet/net_builder.h"

namespace deepnet {
namespace {

using testing::random_values;

uint64_t kernel_of(winograd_kind kind) { return kind == winograd_f2x5 ? 5 : 3; }

// One-group stride-1 convolution from the definition, in double.
std::vector<double> naive(const winograd_shape& s, uint64_t samples, const std::vector<float>& x,
                          const std::vector<float>& w, const std::vector<float>& bias) {
  const uint64_t r = s.kernel;
  std::vector<double> y(samples * s.out_c * s.out_h * s.out_w);
  for (uint64_t b = 0; b < samples; ++b)
    for (uint64_t o = 0; o < s.out_c; ++o)
      for (uint64_t oy = 0; oy < s.out_h; ++oy)
        for (uint64_t ox = 0; ox < s.out_w; ++ox) {
          double sum = bias[o];
          for (uint64_t c = 0; c < s.in_c; ++c)
            for (uint64_t ky = 0; ky < r; ++ky)
              for (uint64_t kx = 0; kx < r; ++kx) {
                const int64_t iy = int64_t(oy + ky) - int64_t(s.pad_h), ix = int64_t(ox + kx) - int64_t(s.pad_w);
                if (iy < 0 || ix < 0 || iy >= int64_t(s.in_h) || ix >= int64_t(s.in_w)) continue;
                sum +=
                    double(w[((o * s.in_c + c) * r + ky) * r + kx]) * x[((b * s.in_c + c) * s.in_h + iy) * s.in_w + ix];
              }
          y[((b * s.out_c + o) * s.out_h + oy) * s.out_w + ox] = sum;
        }
  return y;
}

// Every tile size on every kernel family against the definition: channel counts on and off the
// vector width, planes that end inside a tile, padding on one side or both, more tiles than one
// block (so blocks cross from one sample to the next).
TEST(Winograd, EveryTileSizeAndKernelFamilyMatchesTheDefinition) {
  std::mt19937 gen(17);
  auto pick = [&](int lo, int hi) { return uint64_t(std::uniform_int_distribution<int>(lo, hi)(gen)); };
  for (isa which : {isa::sse2, isa::avx2, isa::avx512}) {
    if (which > detected_isa()) continue;
    const isa_kernels& kernels = kernels_for(which);
    for (winograd_kind kind : {winograd_f2x3, winograd_f4x3, winograd_f2x5})
      for (int trial = 0; trial < 12; ++trial) {
        winograd_shape s;
        s.kernel = kernel_of(kind);
        s.in_c = trial == 0 ? 1 : pick(1, 40);
        s.out_c = trial == 1 ? 1 : pick(1, 40);
        s.in_w = pick(1, 20);
        s.in_h = pick(1, 20);
        s.pad_w = pick(0, s.kernel - 1);
        s.pad_h = pick(0, s.kernel - 1);
        const uint64_t pad_w_end = pick(0, s.kernel - 1), pad_h_end = pick(0, s.kernel - 1);
        if (s.in_w + s.pad_w + pad_w_end < s.kernel || s.in_h + s.pad_h + pad_h_end < s.kernel) continue;
        s.out_w = s.in_w + s.pad_w + pad_w_end - s.kernel + 1;
        s.out_h = s.in_h + s.pad_h + pad_h_end - s.kernel + 1;
        const uint64_t samples = trial == 2 ? 9 : pick(1, 3);
        const auto x = random_values(samples * s.in_c * s.in_w * s.in_h, unsigned(trial));
        const auto w = random_values(s.out_c * s.in_c * s.kernel * s.kernel, unsigned(trial + 100));
        const auto bias = random_values(s.out_c, unsigned(trial + 200));
        winograd_conv conv;
        conv.prepare(s,
                     std::make_shared<const winograd_weights>(kind, s.in_c, s.out_c, w.data(), bias.data(), kernels));
        winograd_scratch scratch;
        conv.reserve(scratch, samples);
        // Scratch comes recycled: whatever it held must not reach the outputs.
        std::fill(scratch.input.begin(), scratch.input.end(), NAN);
        std::vector<float> y(samples * s.out_c * s.out_w * s.out_h, NAN);
        conv.run(x.data(), samples, y.data(), scratch);
        const auto want = naive(s, samples, x, w, bias);
        // The transforms' rounding grows with the number of terms summed.
        const double tolerance = 2e-5 * double(s.in_c * s.kernel * s.kernel);
        for (size_t i = 0; i < want.size(); ++i)
          ASSERT_NEAR(y[i], want[i], tolerance)
              << kernels.name << " kind " << kind << " trial " << trial << " at " << i;
      }
  }
}

// The tile size follows the shape: large tiles on large planes, small ones where large tiles
// would mostly cover padding, none where channels are too few to repay the transforms.
TEST(Winograd, TileSizeFollowsTheShape) {
  auto choose = [](uint64_t r, uint64_t side, uint64_t in_c, uint64_t out_c) {
    return choose_winograd({r, side, side, in_c, side, side, out_c, r / 2, r / 2});
  };
  EXPECT_EQ(choose(3, 27, 24, 48), winograd_f4x3);
  EXPECT_EQ(choose(3, 12, 256, 256), winograd_f4x3);
  EXPECT_EQ(choose(3, 6, 112, 256), winograd_f2x3);
  EXPECT_EQ(choose(5, 25, 64, 128), winograd_f2x5);
  EXPECT_EQ(choose(3, 27, 1, 4), std::nullopt);
  EXPECT_EQ(choose(7, 27, 64, 64), std::nullopt);
}

// The tile buffers are bounded like every layer's: a shape whose channel-last copy would pass
// the engine's limit is refused when the network is built, not allocated.
TEST(Winograd, TileBuffersPastTheLimitAreRefused) {
  layer_model_conv3d m;
  m.num_input = 17;  // padded to 32 channels in the tiles' copy
  m.num_output = 16;
  m.kernel_w = m.kernel_h = 3;
  m.pad_w_begin = m.pad_w_end = m.pad_h_begin = m.pad_h_end = 1;
  m.weights = random_values(m.weight_count(), 1);
  m.biases = random_values(16, 2);
  ASSERT_TRUE(choose_winograd({3, 64, 64, 17, 64, 64, 16, 1, 1}));
  const uint64_t batch = 20;  // the copy: 20 × 66 × 66 × 32 floats; outputs 20 × 16 × 64 × 64
  const auto x = random_values(batch * 17 * 64 * 64, 3);
  const uint64_t limit = deepnet_max_buffer_floats();
  deepnet_set_max_buffer_floats(2000000);
  testing::fixed_input in(batch, {64, 64, 17}, x);
  layer_test_conv3d conv;
  EXPECT_EQ(testing::error_text([&] { testing::run_layer(conv, m, {&in}, batch); }).rfind("winograd_conv", 0), 0u);
  deepnet_set_max_buffer_floats(limit);
}

// Through the convolution layer: the Winograd and unfolded paths give the same outputs for the
// shapes of the shipped networks, in one chunk and two.
TEST(Winograd, LayerPathsAgree) {
  struct shape {
    uint32_t in_c, out_c, side, kernel;
  };
  for (int threads : {1, 2})
    for (const shape& s : {shape{24, 48, 27, 3}, shape{48, 128, 13, 3}, shape{112, 256, 6, 3}, shape{20, 40, 25, 5}}) {
      deepnet_set_num_threads(threads);
      layer_model_conv3d m;
      m.num_input = s.in_c;
      m.num_output = s.out_c;
      m.kernel_w = m.kernel_h = s.kernel;
      m.pad_w_begin = m.pad_w_end = m.pad_h_begin = m.pad_h_end = s.kernel / 2;
      m.weights = random_values(m.weight_count(), s.in_c, -0.2f, 0.2f);
      m.biases = random_values(s.out_c, s.out_c);
      const uint64_t batch = 5;
      const auto x = random_values(batch * s.in_c * s.side * s.side, 3);
      std::vector<float> results[2];
      for (bool allowed : {false, true}) {
        conv3d_allow_winograd(allowed);
        testing::fixed_input in(batch, {s.side, s.side, s.in_c}, x);
        layer_test_conv3d conv;
        results[allowed] = testing::run_layer(conv, m, {&in}, batch);
      }
      conv3d_allow_winograd(true);
      ASSERT_EQ(results[0].size(), results[1].size());
      for (size_t i = 0; i < results[0].size(); ++i)
        ASSERT_NEAR(results[1][i], results[0][i], 1e-4f * (1 + std::fabs(results[0][i]))) << s.in_c << " at " << i;
    }
  deepnet_set_num_threads(1);
}

}  // namespace
}  // namespace deepnet
