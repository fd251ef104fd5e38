#include "deepnet/layers/conv3d.h"

#include <gtest/gtest.h>

#include <cmath>

#include "deepnet/parallel.h"
#include "tests/deepnet/net_builder.h"

namespace deepnet {
namespace {

using testing::fixed_input;
using testing::random_values;
using testing::run_layer;

struct conv_shape {
  uint64_t batch, width, height, channels;
};

// Direct convolution written from the definition, one output value at a time.
std::vector<float> naive_conv(const layer_model_conv3d& m, const conv_shape& s, const std::vector<float>& x,
                              uint64_t& ow, uint64_t& oh) {
  auto extent = [&](int64_t in, int64_t pb, int64_t pe, int64_t k, int64_t st) {
    int64_t p = in + pb + pe;
    int64_t out = (p - k) / st + 1;
    if (m.ceil_mode && (p - k) % st) ++out;
    return out;
  };
  const int64_t W = s.width, H = s.height, C = s.channels, G = m.group, O = m.num_output;
  const int64_t oW = extent(W, m.pad_w_begin, m.pad_w_end, m.kernel_w, m.stride_w);
  const int64_t oH = extent(H, m.pad_h_begin, m.pad_h_end, m.kernel_h, m.stride_h);
  ow = oW;
  oh = oH;
  const int64_t Cg = C / G, Og = O / G;
  std::vector<float> y(s.batch * O * oW * oH);
  for (int64_t b = 0; b < int64_t(s.batch); ++b)
    for (int64_t o = 0; o < O; ++o)
      for (int64_t oy = 0; oy < oH; ++oy)
        for (int64_t ox = 0; ox < oW; ++ox) {
          double sum = m.biases[o];
          const int64_t g = o / Og;
          if (g < G)
            for (int64_t c = 0; c < Cg; ++c)
              for (int64_t ky = 0; ky < m.kernel_h; ++ky)
                for (int64_t kx = 0; kx < m.kernel_w; ++kx) {
                  const int64_t yy = oy * m.stride_h - m.pad_h_begin + ky, xx = ox * m.stride_w - m.pad_w_begin + kx;
                  if (yy < 0 || yy >= H || xx < 0 || xx >= W) continue;
                  sum += double(m.weights[((o * Cg + c) * m.kernel_h + ky) * m.kernel_w + kx]) *
                         x[((b * C + g * Cg + c) * H + yy) * W + xx];
                }
          y[((b * O + o) * oH + oy) * oW + ox] = float(sum);
        }
  return y;
}

layer_model_conv3d make_conv(uint32_t in_c, uint32_t out_c, uint32_t group, uint32_t kw, uint32_t kh, unsigned seed) {
  layer_model_conv3d m;
  m.num_input = in_c;
  m.num_output = out_c;
  m.group = group;
  m.kernel_w = kw;
  m.kernel_h = kh;
  m.weights = random_values(m.weight_count(), seed);
  m.biases = random_values(out_c, seed + 1);
  return m;
}

std::vector<float> run_conv(const layer_model_conv3d& m, const conv_shape& s, const std::vector<float>& x,
                            uint64_t* dims = nullptr) {
  fixed_input in(s.batch, {s.width, s.height, s.channels}, x);
  layer_test_conv3d conv;
  auto y = run_layer(conv, m, {&in}, s.batch);
  if (dims)
    for (int i = 0; i < 3; ++i) dims[i] = conv.dims[i];
  return y;
}

// The fast path (unfolding, several samples per product, chunks on threads) against the
// direct definition over many shapes: groups, asymmetric pads, strides, the ceiling rule.
TEST(Conv3d, MatchesDirectConvolutionOverManyShapes) {
  std::mt19937 gen(7);
  auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(gen); };
  for (int threads : {1, 2}) {
    deepnet_set_num_threads(threads);
    for (int trial = 0; trial < 300; ++trial) {
      const uint32_t group = pick(1, 3), cg = pick(1, 3), og = pick(1, 4);
      layer_model_conv3d m =
          make_conv(group * cg, group * og + (trial % 7 == 0 ? 1 : 0), group, pick(1, 5), pick(1, 5), trial);
      m.weights = random_values(m.weight_count(), trial);
      m.stride_w = pick(1, 3);
      m.stride_h = pick(1, 3);
      m.pad_w_begin = pick(0, 2);
      m.pad_w_end = pick(0, 2);
      m.pad_h_begin = pick(0, 2);
      m.pad_h_end = pick(0, 2);
      m.ceil_mode = pick(0, 1);
      conv_shape s{uint64_t(pick(1, 5)), uint64_t(pick(1, 14)), uint64_t(pick(1, 14)), group * cg};
      if (m.kernel_w > s.width + m.pad_w_begin + m.pad_w_end || m.kernel_h > s.height + m.pad_h_begin + m.pad_h_end)
        continue;
      const auto x = random_values(s.batch * s.width * s.height * s.channels, 1000 + trial);
      uint64_t ow, oh, dims[3];
      const auto want = naive_conv(m, s, x, ow, oh);
      const auto got = run_conv(m, s, x, dims);
      ASSERT_EQ(dims[0], ow);
      ASSERT_EQ(dims[1], oh);
      ASSERT_EQ(got.size(), want.size());
      for (size_t i = 0; i < want.size(); ++i)
        ASSERT_NEAR(got[i], want[i], 1e-4f * (1 + std::fabs(want[i]))) << "trial " << trial << " at " << i;
    }
  }
  deepnet_set_num_threads(1);
}

// Stride-1 convolutions as wide as their input take the shifted-plane unfolding; every split
// of the width padding between the two sides, with any height padding.
TEST(Conv3d, SameWidthStrideOneMatchesDirectConvolution) {
  std::mt19937 gen(3);
  auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(gen); };
  for (uint32_t kw = 1; kw <= 5; ++kw)
    for (uint32_t pw = 0; pw < kw; ++pw)
      for (int trial = 0; trial < 6; ++trial) {
        layer_model_conv3d m = make_conv(2, 3, 1, kw, pick(1, 4), trial);
        m.pad_w_begin = pw;
        m.pad_w_end = kw - 1 - pw;
        m.pad_h_begin = pick(0, 3);
        m.pad_h_end = pick(0, 3);
        conv_shape s{uint64_t(pick(1, 3)), uint64_t(pick(int(kw), 9)), uint64_t(pick(1, 9)), 2};
        if (m.kernel_h > s.height + m.pad_h_begin + m.pad_h_end) continue;
        const auto x = random_values(s.batch * s.width * s.height * 2, trial + 50);
        uint64_t ow, oh;
        const auto want = naive_conv(m, s, x, ow, oh);
        ASSERT_EQ(ow, s.width);
        const auto got = run_conv(m, s, x);
        for (size_t i = 0; i < want.size(); ++i) ASSERT_NEAR(got[i], want[i], 1e-4f * (1 + std::fabs(want[i])));
      }
}

// Many input channels: the unfolding is done a block of channels at a time and the partial
// products accumulate, for one sample and for several side by side, in one and two chunks.
TEST(Conv3d, ManyChannelsUnfoldedInBlocks) {
  for (int threads : {1, 2})
    for (uint32_t group : {1u, 2u})
      for (const conv_shape& shape : {conv_shape{1, 40, 31, 24}, conv_shape{3, 40, 31, 24}, conv_shape{5, 6, 5, 24}}) {
        deepnet_set_num_threads(threads);
        conv_shape s = shape;
        s.channels *= group;
        layer_model_conv3d m = make_conv(uint32_t(s.channels), 6 * group, group, 5, 5, group);
        m.pad_w_begin = m.pad_w_end = m.pad_h_begin = 2;
        m.stride_h = 2;
        const auto x = random_values(s.batch * s.width * s.height * s.channels, 9);
        uint64_t ow, oh;
        const auto want = naive_conv(m, s, x, ow, oh);
        const auto got = run_conv(m, s, x);
        ASSERT_EQ(got.size(), want.size());
        for (size_t i = 0; i < want.size(); ++i)
          ASSERT_NEAR(got[i], want[i], 1e-4f * (1 + std::fabs(want[i]))) << s.batch << " " << i;
      }
  deepnet_set_num_threads(1);
}

TEST(Conv3d, OutputExtents) {
  auto run_shape = [](layer_model_conv3d m, uint64_t w, uint64_t h) {
    conv_shape s{1, w, h, m.num_input};
    uint64_t dims[3];
    run_conv(m, s, random_values(w * h * m.num_input, 3), dims);
    return std::vector<uint64_t>(dims, dims + 3);
  };
  layer_model_conv3d same = make_conv(2, 3, 1, 3, 3, 1);
  same.pad_w_begin = same.pad_w_end = same.pad_h_begin = same.pad_h_end = 1;
  EXPECT_EQ(run_shape(same, 9, 6), (std::vector<uint64_t>{9, 6, 3}));

  layer_model_conv3d strided = make_conv(1, 1, 1, 3, 1, 1);
  strided.stride_w = 2;
  EXPECT_EQ(run_shape(strided, 10, 1)[0], 4u);
  strided.ceil_mode = 1;
  EXPECT_EQ(run_shape(strided, 10, 1)[0], 5u);
}

// The ceiling rule's extra column reaches past the image and sees zeros there.
TEST(Conv3d, CeilColumnSeesZerosPastTheImage) {
  layer_model_conv3d m = make_conv(1, 1, 1, 3, 1, 1);
  m.weights = {1, 1, 1};
  m.biases = {0};
  m.stride_w = 2;
  m.ceil_mode = 1;
  std::vector<float> x = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  EXPECT_EQ(run_conv(m, {1, 10, 1, 1}, x), (std::vector<float>{6, 12, 18, 24, 19}));
}

TEST(Conv3d, GroupsSeeOnlyTheirOwnChannels) {
  layer_model_conv3d m = make_conv(4, 6, 2, 1, 1, 1);
  ASSERT_EQ(m.weights.size(), 6u * 2u);  // each row: kernel 1×1 × 2 channels of its group
  m.weights = {1, 10, 1, 10, 1, 10, 1, 10, 1, 10, 1, 10};
  m.biases = {0, 0, 0, 0, 0, 0};
  // Channels 0 and 1 hold 1 and 2, channels 2 and 3 hold 100 and 200.
  auto y = run_conv(m, {1, 1, 1, 4}, {1, 2, 100, 200});
  EXPECT_EQ(y, (std::vector<float>{21, 21, 21, 2100, 2100, 2100}));
}

// More groups than channels leaves no input channel per group: every output is its bias.
TEST(Conv3d, MoreGroupsThanChannelsGivesBiases) {
  layer_model_conv3d m = make_conv(2, 3, 3, 1, 1, 1);
  m.biases = {1, 2, 3};
  EXPECT_EQ(run_conv(m, {2, 1, 1, 2}, {5, 6, 7, 8}), (std::vector<float>{1, 2, 3, 1, 2, 3}));
}

TEST(Conv3d, RefusesBadInputs) {
  layer_model_conv3d m = make_conv(2, 1, 1, 3, 3, 1);
  auto message = [&](std::vector<layer_test_base<float>*> inputs) {
    layer_test_conv3d conv;
    return testing::error_text([&] { run_layer(conv, m, std::move(inputs), 1); });
  };
  fixed_input three_channels(1, {4, 4, 3}, random_values(48, 1));
  fixed_input two_channels(1, {4, 4, 2}, random_values(32, 1));
  fixed_input other_width(1, {5, 4, 2}, random_values(40, 1));
  fixed_input flat(1, {32}, random_values(32, 1));
  fixed_input tiny(1, {2, 2, 2}, random_values(8, 1));
  EXPECT_EQ(message({}), "layer_test_conv3d::allocate(): Input size mismatch");
  EXPECT_EQ(message({&flat}), "layer_test_conv3d::allocate(): Input size mismatch");
  EXPECT_EQ(message({&two_channels, &other_width}), "layer_test_conv3d::allocate(): Input size mismatch");
  EXPECT_EQ(message({&three_channels}), "layer_test_conv3d::allocate(): input and model mismatch");
  EXPECT_EQ(message({&tiny}), "layer_test_conv3d::allocate(): kernel larger than the padded input");
  m.stride_h = 0;
  EXPECT_EQ(message({&two_channels}), "layer_test_conv3d::allocate(): stride is 0");
}

}  // namespace
}  // namespace deepnet
