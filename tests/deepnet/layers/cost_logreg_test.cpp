#include "deepnet/layers/cost_logreg.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/deepnet/net_builder.h"

namespace deepnet {
namespace {

using testing::fixed_input;
using testing::run_layer;

TEST(CostLogreg, MeanNegativeLogOfTheLabelledClass) {
  fixed_input prob(2, {3}, {0.5f, 0.25f, 0.25f, 0.1f, 0.2f, 0.7f});
  fixed_input labels(2, {1}, {0.0f, 2.9f});  // 2.9 truncates to class 2
  layer_model_cost_logreg m;
  layer_test_cost_logreg layer;
  const auto y = run_layer(layer, m, {&prob, &labels}, 2);
  EXPECT_NEAR(y[0], -(std::log(0.5f) + std::log(0.7f)) / 2, 1e-6f);

  fixed_input bad(2, {1}, {0.0f, 3.0f});
  layer_test_cost_logreg out_of_range;
  EXPECT_THROW(run_layer(out_of_range, m, {&prob, &bad}, 2), std::runtime_error);
  layer_test_cost_logreg one_input;
  one_input.inputs = {&prob};
  EXPECT_EQ(testing::error_text([&] { one_input.allocate(m); }), "layer_test_logreg::allocate(): Incorrect input size");
}

}  // namespace
}  // namespace deepnet
