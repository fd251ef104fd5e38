#include "deepnet/layers/activation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tests/deepnet/net_builder.h"

namespace deepnet {
namespace {

using testing::fixed_input;
using testing::run_layer;

TEST(Activation, RectifierKeepsNegativeZeroAndNaN) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  fixed_input in(2, {3}, {-2.0f, -0.0f, 3.0f, nan, -1e-30f, 0.5f});
  layer_model_activation m;
  layer_test_activation layer;
  const auto y = run_layer(layer, m, {&in}, 2);
  EXPECT_EQ(y[0], 0.0f);
  EXPECT_TRUE(std::signbit(y[1]));
  EXPECT_EQ(y[2], 3.0f);
  EXPECT_TRUE(std::isnan(y[3]));
  EXPECT_EQ(y[4], 0.0f);
  EXPECT_EQ(y[5], 0.5f);
}

TEST(Activation, OtherTypesFailOnlyWhenRun) {
  fixed_input in(1, {2, 2, 1}, {1, 2, 3, 4});
  layer_model_activation m;
  m.activation_type = 1;
  layer_test_activation layer;
  layer.batch = 1;
  layer.inputs = {&in};
  ASSERT_NO_THROW(layer.allocate(m));
  EXPECT_EQ(layer.ndim, 3u);
  EXPECT_EQ(testing::error_text([&] { layer.fprop_test(1, m); }),
            "layer_test_activation::fprop_test(): Unsupported activation type");
  layer_test_activation two;
  two.inputs = {&in, &in};
  EXPECT_THROW(two.allocate(m), std::runtime_error);
}

}  // namespace
}  // namespace deepnet
