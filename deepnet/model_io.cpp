#include "deepnet/model_io.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "deepnet/byte_io.h"

namespace deepnet {

const uint8_t* deepnet_deserialize_layer_model(const uint8_t* begin, const uint8_t* end, layer_model_list& layers) {
  byte_reader in(begin, end, "deepnet_deserialize_layer_model()");
  in.u32();
  in.u32();
  in.u32();
  const int32_t layer_count = in.i32();
  for (int32_t i = 0; i < layer_count; ++i) {
    in.skip(8);
    // Peek at the type; the layer's own deserialize reads it again with the common part.
    byte_reader peek = in;
    auto layer = deepnet_create_layer_model(peek.u32());
    if (!layer) throw std::runtime_error("deenpet_deserialize_layer_model(): unknown layer type");
    layers.push_back(layer);
    layer->deserialize(in, layers);
  }
  return in.position();
}

void deepnet_load_model(const std::string& path, layer_model_list& layers) {
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode))
    throw std::runtime_error("deepnet_load_model(): not a regular file: " + path);
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file) throw std::runtime_error("deepnet_load_model(): cannot open " + path + ": " + std::strerror(errno));
  const std::streamoff size = file.tellg();
  if (size < 0) throw std::runtime_error("deepnet_load_model(): cannot read " + path);
  std::vector<uint8_t> buffer(static_cast<size_t>(size));
  file.seekg(0);
  if (size > 0 && !file.read(reinterpret_cast<char*>(buffer.data()), size))
    throw std::runtime_error("deepnet_load_model(): cannot read " + path);
  deepnet_deserialize_layer_model(buffer.data(), buffer.data() + buffer.size(), layers);
}

std::vector<uint8_t> deepnet_serialize_layer_model(const layer_model_list& layers) {
  std::vector<uint8_t> bytes;
  byte_writer out(bytes);
  out.u32(dnm_magic);
  out.u32(dnm_format_version);
  out.u32(0);
  out.i32(static_cast<int32_t>(layers.size()));
  for (const auto& layer : layers) {
    const size_t length_at = out.size();
    out.u64(0);
    layer->serialize(out);
    out.patch_u64(length_at, out.size() - length_at - 8);
  }
  return bytes;
}

void deepnet_save_model(const std::string& path, const layer_model_list& layers) {
  const std::vector<uint8_t> bytes = deepnet_serialize_layer_model(layers);
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size())) ||
      !file.flush())
    throw std::runtime_error("deepnet_save_model(): cannot write " + path);
}

}  // namespace deepnet
