#include "deepnet/layers/concat.h"

#include <gtest/gtest.h>

#include "tests/deepnet/net_builder.h"

namespace deepnet {
namespace {

using testing::fixed_input;
using testing::run_layer;

std::string allocate_error(std::vector<layer_test_base<float>*> inputs, uint32_t axis) {
  layer_model_concat m;
  m.axis = axis;
  layer_test_concat layer;
  return testing::error_text([&] { run_layer(layer, m, std::move(inputs), 1); });
}

TEST(Concat, JoinsAlongEachAxis) {
  // Two samples of 2×1×1 and 2×1×2 joined on channels: per sample, planes of a then of b.
  fixed_input a(2, {2, 1, 1}, {1, 2, 3, 4});
  fixed_input b(2, {2, 1, 2}, {10, 11, 12, 13, 14, 15, 16, 17});
  layer_model_concat channels;
  channels.axis = 2;
  layer_test_concat c;
  EXPECT_EQ(run_layer(c, channels, {&a, &b}, 2), (std::vector<float>{1, 2, 10, 11, 12, 13, 3, 4, 14, 15, 16, 17}));
  EXPECT_EQ(c.dims[2], 3u);

  // Along width: each row of a, then the same row of b.
  fixed_input w1(1, {1, 2, 1}, {1, 2});
  fixed_input w2(1, {2, 2, 1}, {10, 11, 12, 13});
  layer_model_concat width;
  width.axis = 0;
  layer_test_concat cw;
  EXPECT_EQ(run_layer(cw, width, {&w1, &w2}, 1), (std::vector<float>{1, 10, 11, 2, 12, 13}));

  // One-dimensional inputs: per sample, the values of the first, then of the second.
  fixed_input v1(2, {1}, {1, 2});
  fixed_input v2(2, {2}, {10, 11, 20, 21});
  layer_model_concat flat;
  layer_test_concat cf;
  EXPECT_EQ(run_layer(cf, flat, {&v1, &v2}, 2), (std::vector<float>{1, 10, 11, 2, 20, 21}));
}

TEST(Concat, RefusesMismatchedInputs) {
  fixed_input image(1, {2, 2, 1}, {1, 2, 3, 4});
  fixed_input wider(1, {3, 2, 1}, {1, 2, 3, 4, 5, 6});
  fixed_input flat(1, {4}, {1, 2, 3, 4});
  EXPECT_EQ(allocate_error({}, 2), "layer_test_concat::allocate(): incorrect input size");
  EXPECT_EQ(allocate_error({&image, &flat}, 0), "layer_test_concat::allocate(): dimension mismatch");
  EXPECT_EQ(allocate_error({&image, &wider}, 2), "layer_test_concat::allocate(): output size mismatch");
  EXPECT_EQ(allocate_error({&image, &wider}, 0), "no error");
  EXPECT_NE(allocate_error({&flat, &flat}, 1), "no error");  // no second dimension to join on
}

}  // namespace
}  // namespace deepnet
