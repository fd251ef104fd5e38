#include "deepnet/layers/fc.h"

#include <gtest/gtest.h>

#include "tests/deepnet/net_builder.h"

namespace deepnet {
namespace {

using testing::fixed_input;
using testing::run_layer;

// Two inputs of sizes 3 and 5, four outputs: 12 weights for the first block, then 20.
TEST(FullyConnected, OneWeightBlockPerInputInOrder) {
  layer_model_fc m;
  m.input_sizes = {3, 5};
  m.num_output = 4;
  for (int i = 0; i < 32; ++i) m.weights.push_back(float(i < 12 ? i : 100 + i));
  m.biases = {0.5f, 1.5f, 2.5f, 3.5f};
  const std::vector<float> a = {1, 2, 3, -1, 0, 1}, b = {1, 0, 0, 0, 2, 0, 1, 0, 0, 1};
  fixed_input in_a(2, {3}, a), in_b(2, {5}, b);
  layer_test_fc layer;
  const auto y = run_layer(layer, m, {&in_a, &in_b}, 2);
  ASSERT_EQ(y.size(), 8u);
  for (int s = 0; s < 2; ++s)
    for (int o = 0; o < 4; ++o) {
      double want = m.biases[o];
      for (int i = 0; i < 3; ++i) want += m.weights[o * 3 + i] * a[s * 3 + i];
      for (int i = 0; i < 5; ++i) want += m.weights[12 + o * 5 + i] * b[s * 5 + i];
      EXPECT_FLOAT_EQ(y[s * 4 + o], float(want)) << s << " " << o;
    }
}

// The products use the input's actual size: a smaller input reads its weight rows with that
// stride; one that needs more weights than stored is refused instead of read past the end.
TEST(FullyConnected, ActualInputSizeDecides) {
  layer_model_fc m;
  m.input_sizes = {4};
  m.num_output = 2;
  m.weights = {1, 2, 3, 4, 5, 6, 7, 8};
  m.biases = {0, 0};
  fixed_input small(1, {3}, {1, 1, 1});
  layer_test_fc layer;
  EXPECT_EQ(run_layer(layer, m, {&small}, 1), (std::vector<float>{1 + 2 + 3, 4 + 5 + 6}));
  fixed_input large(1, {5}, {1, 1, 1, 1, 1});
  layer_test_fc refused;
  EXPECT_THROW(run_layer(refused, m, {&large}, 1), std::runtime_error);
}

}  // namespace
}  // namespace deepnet
