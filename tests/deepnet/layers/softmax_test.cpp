#include "deepnet/layers/softmax.h"

#include <gtest/gtest.h>

#include "tests/deepnet/net_builder.h"

namespace deepnet {
namespace {

using testing::fixed_input;
using testing::run_layer;

TEST(Softmax, PerSampleAndWithoutOverflow) {
  fixed_input in(2, {4}, {3, 3, 3, 3, 1000, 0, -1000, 1000});
  layer_model_softmax m;
  layer_test_softmax layer;
  const auto y = run_layer(layer, m, {&in}, 2);
  for (int i = 0; i < 4; ++i) EXPECT_FLOAT_EQ(y[i], 0.25f);
  EXPECT_FLOAT_EQ(y[4], 0.5f);
  EXPECT_EQ(y[5], 0.0f);  // exp(-1000) rounds to 0
  EXPECT_EQ(y[6], 0.0f);
  EXPECT_FLOAT_EQ(y[7], 0.5f);
}

// Softmax flattens an image tensor into one vector per sample.
TEST(Softmax, FlattensImageInput) {
  fixed_input in(1, {2, 1, 2}, {0, 0, 0, 0});
  layer_model_softmax m;
  layer_test_softmax layer;
  run_layer(layer, m, {&in}, 1);
  EXPECT_EQ(layer.ndim, 1u);
  EXPECT_EQ(layer.dims[0], 4u);
  layer_test_softmax two;
  two.inputs = {&in, &in};
  EXPECT_THROW(two.allocate(m), std::runtime_error);
}

}  // namespace
}  // namespace deepnet
