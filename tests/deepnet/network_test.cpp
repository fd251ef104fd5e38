#include "deepnet/network.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "deepnet/model_io.h"
#include "deepnet/parallel.h"
#include "tests/deepnet/net_builder.h"

namespace deepnet {
namespace {

using testing::error_text;
using testing::net_builder;
using testing::random_values;
using testing::run;

net_builder small_net() {
  net_builder b;
  b.add<layer_model_data>("data");
  auto& conv = b.add<layer_model_conv3d>("conv", {"data"});
  conv.num_input = 1;
  conv.num_output = 3;
  conv.kernel_w = conv.kernel_h = 3;
  conv.weights = random_values(conv.weight_count(), 1);
  conv.biases = random_values(3, 2);
  b.add<layer_model_activation>("relu", {"conv"});
  b.add<layer_model_activation>("relu", {"relu"}).activation_type = 9;  // throws if it ever runs
  return b;
}

TEST(Network, RunsOnlyUpToTheFirstLayerOfThatName) {
  const auto b = small_net();
  const auto pixels = random_values(2 * 5 * 4, 3);
  input_view view{5, 4, 1, 2, pixels.data()};
  layer_test_list tests;
  deepnet_construct_layer_test(tests, b.models, view, 2);
  EXPECT_EQ(deepnet_compute_feature(b.models, tests, 2, "data"), 0u);
  EXPECT_EQ(std::vector<float>(tests[0]->y.begin(), tests[0]->y.end()), pixels);

  // "relu" names two layers; the first is chosen and the throwing second never runs.
  EXPECT_EQ(deepnet_compute_feature(b.models, tests, 2, "relu"), 2u);
  EXPECT_EQ(tests[2]->dims[0], 3u);
  EXPECT_EQ(error_text([&] { deepnet_compute_feature(b.models, tests, 2, "nothing"); }),
            "deepnet_compute_feature(): Cannot find a layer with matching name");
}

TEST(Network, ConstructionErrors) {
  auto construct = [](const layer_model_list& models) {
    return error_text([&] {
      std::vector<float> pixels(16);
      input_view view{4, 4, 1, 1, pixels.data()};
      layer_test_list tests;
      deepnet_construct_layer_test(tests, models, view, 1);
    });
  };
  net_builder unknown;
  unknown.models.push_back(std::make_shared<layer_model_base>(2));
  EXPECT_EQ(construct(unknown.models), "deepnet_construct_layer_test(): unknown layer type");

  net_builder fed_data;
  fed_data.add<layer_model_data>("a");
  fed_data.add<layer_model_data>("b", {"a"});
  EXPECT_EQ(construct(fed_data.models), "layer_test_data::allocate(): Incorrect input size");

  net_builder self;  // a corrupt file can name the layer being read as its own input
  auto& relu = self.add<layer_model_activation>("relu");
  relu.inputs.push_back(&relu);
  EXPECT_EQ(construct(self.models), "deepnet_construct_layer_test(): input is not an earlier layer");

  net_builder softmax_of_two;
  softmax_of_two.add<layer_model_data>("a");
  softmax_of_two.add<layer_model_softmax>("s", {"a", "a"});
  EXPECT_EQ(construct(softmax_of_two.models), "layer_test_softmax::allocate(): Incorrect input size");

  net_builder huge;  // shapes past the buffer limit are refused, not allocated
  huge.add<layer_model_data>("a");
  auto& pad = huge.add<layer_model_poolmax3d>("p", {"a"});
  pad.kernel_w = pad.kernel_h = pad.stride_w = pad.stride_h = 1;
  pad.pad_w_end = pad.pad_h_end = 1u << 20;
  EXPECT_EQ(construct(huge.models), "layer_test_base::allocate(): buffer too large");
}

TEST(Network, DimensionCountOutsideOneToFour) {
  testing::fixed_input bad(1, {}, {});
  EXPECT_EQ(error_text([&] { bad.y_size_1d(); }), "layer_test_base::y_size_1d(): Incorrect output dimension");
}

TEST(Network, LabelInputIsZeros) {
  net_builder b;
  b.add<layer_model_data>("label").is_1d = 1;
  const auto r = run(b.models, std::vector<float>(9, 7.0f), 3, 1, 3, "label");
  EXPECT_EQ(r.dims, (std::vector<uint64_t>{1}));
  EXPECT_EQ(r.y, (std::vector<float>{0, 0, 0}));
}

// Expected outputs computed independently (float64 numpy over the exported file, checked against
// PyTorch when the fixtures were made); one case per line of cases.txt.
TEST(Network, GoldenOutputs) {
  const std::string dir = "tests/deepnet/golden/";
  std::ifstream cases(dir + "cases.txt");
  ASSERT_TRUE(cases) << "run from the source tree";
  auto read_f32 = [&](const std::string& name) {
    std::ifstream f(dir + name, std::ios::binary | std::ios::ate);
    std::vector<float> v(size_t(f.tellg()) / 4);
    f.seekg(0);
    f.read(reinterpret_cast<char*>(v.data()), std::streamsize(v.size() * 4));
    return v;
  };
  int checked = 0;
  for (std::string line; std::getline(cases, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string model_file, layer, dims_text, input_file, output_file;
    uint64_t w, h, n;
    fields >> model_file >> layer >> w >> h >> n >> dims_text >> input_file >> output_file;
    std::vector<uint64_t> dims;
    std::istringstream dims_in(dims_text);
    for (std::string d; std::getline(dims_in, d, ',');) dims.push_back(std::stoull(d));
    layer_model_list models;
    deepnet_load_model(dir + model_file, models);
    const auto want = read_f32(output_file);
    for (int threads : {1, 2}) {
      deepnet_set_num_threads(threads);
      const auto got = run(models, read_f32(input_file), w, h, n, layer.c_str());
      EXPECT_EQ(got.dims, dims) << line;
      ASSERT_EQ(got.y.size(), want.size()) << line;
      double worst = 0;
      for (size_t i = 0; i < want.size(); ++i)
        worst = std::max(worst, std::abs(double(got.y[i]) - want[i]) / (1e-3 + std::abs(double(want[i]))));
      EXPECT_LT(worst, 1e-4) << line;
    }
    ++checked;
  }
  deepnet_set_num_threads(1);
  EXPECT_GE(checked, 4);
}

}  // namespace
}  // namespace deepnet
