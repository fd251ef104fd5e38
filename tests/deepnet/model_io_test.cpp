#include "deepnet/model_io.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "deepnet/byte_io.h"
#include "tests/deepnet/net_builder.h"

namespace deepnet {
namespace {

using testing::net_builder;
using testing::random_values;

// Hand-assembles model bytes record by record, independent of the engine's writer.
struct raw_model {
  std::vector<uint8_t> bytes;
  byte_writer out{bytes};
  explicit raw_model(int32_t count) {
    out.u32(1);
    out.u32(2);
    out.u32(3);
    out.i32(count);
  }
  void record(uint32_t type, const std::string& name, std::vector<std::string> inputs = {}) {
    out.u64(0xdeadbeefcafef00dULL);  // the reader skips this word
    out.u32(type);
    out.u32(uint32_t(name.size()));
    out.bytes(name);
    out.u32(uint32_t(inputs.size()));
    for (const auto& in : inputs) {
      out.u32(uint32_t(in.size()));
      out.bytes(in);
    }
  }
  layer_model_list read() const {
    layer_model_list layers;
    deepnet_deserialize_layer_model(bytes.data(), bytes.data() + bytes.size(), layers);
    return layers;
  }
};

std::string read_error(const raw_model& m) {
  return testing::error_text([&] { m.read(); });
}

TEST(ModelReader, LayerCountZeroOrNegativeIsEmpty) {
  for (int32_t count : {0, -1, -2147483647 - 1}) {
    raw_model m(count);
    m.record(0, "ignored");  // bytes after the last record are ignored
    EXPECT_TRUE(m.read().empty()) << count;
  }
}

TEST(ModelReader, UnknownTypeCodes) {
  for (uint32_t type : {2u, 8u, 9u, 11u, 15u, 18u, 0xffffffffu}) {
    raw_model m(1);
    m.record(type, "x");
    EXPECT_EQ(read_error(m), "deenpet_deserialize_layer_model(): unknown layer type") << type;
  }
}

TEST(ModelReader, InputNamesBindToTheFirstMatch) {
  raw_model m(5);
  m.record(0, "");  // empty names are legal
  m.out.u32(0);
  m.record(0, "dup");
  m.out.u32(1);
  m.record(0, "dup");
  m.out.u32(0);
  m.record(16, "soft", {"dup"});
  m.record(16, "empty", {""});
  const auto layers = m.read();
  ASSERT_EQ(layers.size(), 5u);
  EXPECT_EQ(layers[3]->inputs[0], layers[1].get());
  EXPECT_EQ(layers[4]->inputs[0], layers[0].get());
}

TEST(ModelReader, UnresolvedInputNameThrowsAndKeepsEarlierLayers) {
  raw_model m(2);
  m.record(0, "data");
  m.out.u32(0);
  m.record(7, "relu", {"missing"});
  layer_model_list layers;
  EXPECT_EQ(testing::error_text(
                [&] { deepnet_deserialize_layer_model(m.bytes.data(), m.bytes.data() + m.bytes.size(), layers); }),
            "layer_model_base::deserialize()");
  EXPECT_GE(layers.size(), 1u);
}

// A model holding every layer type, as tests and tools write them.
layer_model_list every_layer_type() {
  net_builder b;
  b.add<layer_model_data>("data");
  auto& conv = b.add<layer_model_conv3d>("conv", {"data"});
  conv.num_input = 1;
  conv.num_output = 4;
  conv.kernel_w = 3;
  conv.kernel_h = 2;
  conv.pad_w_begin = 1;
  conv.pad_h_end = 2;
  conv.ceil_mode = 1;
  conv.stride_w = 2;
  conv.weights = random_values(conv.weight_count(), 1);
  conv.biases = random_values(4, 2);
  auto& norm = b.add<layer_model_normcross3d>("norm", {"conv"});
  norm.local_size = 3;
  norm.k = 2;
  norm.alpha = 1e-4f;
  norm.beta = 0.75f;
  auto& pmax = b.add<layer_model_poolmax3d>("pmax", {"norm"});
  pmax.kernel_w = pmax.kernel_h = 2;
  pmax.stride_w = pmax.stride_h = 2;
  auto& pavg = b.add<layer_model_poolavg3d>("pavg", {"norm"});
  pavg.kernel_w = 3;
  pavg.kernel_h = 1;
  pavg.stride_w = 2;
  pavg.pad_w_end = 1;
  b.add<layer_model_activation>("relu", {"pmax"});
  b.add<layer_model_concat>("cat", {"relu", "relu"}).axis = 2;
  auto& fc = b.add<layer_model_fc>("fc", {"cat", "pavg"});
  fc.input_sizes = {3, 2};
  fc.num_output = 2;
  fc.weights = random_values(10, 3);
  fc.biases = {0.5f, -0.5f};
  b.add<layer_model_softmax>("prob", {"fc"});
  b.add<layer_model_data>("label").is_1d = 1;
  b.add<layer_model_cost_logreg>("loss", {"prob", "label"});
  return b.models;
}

TEST(ModelWriter, RoundTripIsByteExact) {
  const auto bytes = deepnet_serialize_layer_model(every_layer_type());
  layer_model_list read;
  const uint8_t* end = deepnet_deserialize_layer_model(bytes.data(), bytes.data() + bytes.size(), read);
  EXPECT_EQ(end, bytes.data() + bytes.size());
  ASSERT_EQ(read.size(), 11u);
  EXPECT_EQ(deepnet_serialize_layer_model(read), bytes);
  const auto& conv = static_cast<const layer_model_conv3d&>(*read[1]);
  EXPECT_EQ(conv.pad_h_end, 2u);
  EXPECT_EQ(conv.weights.size(), 24u);
  EXPECT_EQ(read[7]->inputs[1], read[4].get());
}

TEST(ModelWriter, HeaderWordsAndRecordLengths) {
  const auto bytes = deepnet_serialize_layer_model(every_layer_type());
  byte_reader in(bytes.data(), bytes.data() + bytes.size(), "test");
  EXPECT_EQ(in.u32(), dnm_magic);
  EXPECT_EQ(in.u32(), dnm_format_version);
  EXPECT_EQ(in.u32(), 0u);
  const int32_t count = in.i32();
  EXPECT_EQ(count, 11);
  for (int32_t i = 0; i < count; ++i) in.skip(in.u64());  // each length word spans its record
  EXPECT_EQ(in.remaining(), 0u);
}

// Every strict prefix of a valid file is an error naming the reader, never a read past the end.
TEST(ModelReader, TruncatedDataThrows) {
  const auto bytes = deepnet_serialize_layer_model(every_layer_type());
  for (size_t n = 0; n < bytes.size(); ++n) {
    std::vector<uint8_t> prefix(bytes.begin(), bytes.begin() + n);  // exact-size heap copy for ASan
    layer_model_list layers;
    try {
      deepnet_deserialize_layer_model(prefix.data(), prefix.data() + prefix.size(), layers);
      FAIL() << "prefix of " << n << " bytes was accepted";
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(std::string(e.what()), "deepnet_deserialize_layer_model(): model data ends too early") << n;
    }
  }
}

TEST(ModelReader, CorruptCountsDoNotAllocate) {
  raw_model m(1);
  m.record(1, "conv");
  for (uint32_t v : {0u, 0xffffffffu, 1u, 0xffffffffu, 0xffffffffu, 0xffffffffu, 1u, 1u, 0u, 0u, 0u, 0u}) m.out.u32(v);
  EXPECT_EQ(read_error(m), "deepnet_deserialize_layer_model(): model data ends too early");
  raw_model zero_group(1);
  zero_group.record(1, "conv");
  for (uint32_t v : {0u, 1u, 0u, 1u, 1u, 1u, 1u, 1u, 0u, 0u, 0u, 0u}) zero_group.out.u32(v);
  EXPECT_EQ(read_error(zero_group), "layer_model_conv3d::deserialize(): group is 0");
}

TEST(ModelFile, SaveLoadAndMissingFile) {
  // The engine's tests also run once per kernel family, at the same time: a file of its own.
  const std::string path = ::testing::TempDir() + "model_io_test." + std::to_string(getpid()) + ".dnm";
  deepnet_save_model(path, every_layer_type());
  layer_model_list loaded;
  deepnet_load_model(path, loaded);
  EXPECT_EQ(deepnet_serialize_layer_model(loaded), deepnet_serialize_layer_model(every_layer_type()));
  std::remove(path.c_str());
  layer_model_list none;
  EXPECT_THROW(deepnet_load_model(path, none), std::runtime_error);
  EXPECT_THROW(deepnet_load_model(::testing::TempDir(), none), std::runtime_error);
}

}  // namespace
}  // namespace deepnet
