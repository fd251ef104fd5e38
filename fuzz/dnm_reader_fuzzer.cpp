// Fuzz target for model files: reading, construction and a forward pass to the last layer.
// Any input must end in a model list or a std::runtime_error, never a crash, an
// out-of-bounds access or a huge allocation.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "deepnet/model_io.h"
#include "deepnet/network.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Shapes a corrupt file asks for stay small enough for the fuzzer's memory limit.
  deepnet::deepnet_set_max_buffer_floats(uint64_t{1} << 20);
  std::vector<uint8_t> buffer(data, data + size);  // exact-size heap copy so ASan sees its end
  deepnet::layer_model_list models;
  try {
    deepnet::deepnet_deserialize_layer_model(buffer.data(), buffer.data() + buffer.size(), models);
  } catch (const std::runtime_error&) {
    return 0;
  }
  if (models.empty() || models.size() > 64) return 0;
  std::vector<float> pixels(2 * 11 * 7, 0.5f);
  deepnet::input_view view{11, 7, 1, 2, pixels.data()};
  deepnet::layer_test_list tests;
  try {
    deepnet::deepnet_construct_layer_test(tests, models, view, 2);
    deepnet::deepnet_compute_feature(models, tests, 2, models.back()->name.c_str());
  } catch (const std::runtime_error&) {
  }
  return 0;
}
