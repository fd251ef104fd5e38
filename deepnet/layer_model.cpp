#include "deepnet/layer_model.h"

#include <stdexcept>

#include "deepnet/byte_io.h"

namespace deepnet {

layer_model_base* layer_model_base::find(const layer_model_list& layers, const std::string& name) {
  for (const auto& layer : layers)
    if (layer->name == name) return layer.get();
  return nullptr;
}

void layer_model_base::deserialize(byte_reader& in, const layer_model_list& layers) {
  type = in.u32();
  name = in.bytes(in.u32());
  const uint32_t input_count = in.u32();
  inputs.clear();
  for (uint32_t i = 0; i < input_count; ++i) {
    layer_model_base* input = find(layers, in.bytes(in.u32()));
    if (!input) throw std::runtime_error("layer_model_base::deserialize()");
    inputs.push_back(input);
  }
}

void layer_model_base::serialize(byte_writer& out) const {
  out.u32(type);
  out.u32(static_cast<uint32_t>(name.size()));
  out.bytes(name);
  out.u32(static_cast<uint32_t>(inputs.size()));
  for (const auto* input : inputs) {
    out.u32(static_cast<uint32_t>(input->name.size()));
    out.bytes(input->name);
  }
}

}  // namespace deepnet
