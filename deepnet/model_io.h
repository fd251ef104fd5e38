#pragma once
// Model files: reading into a model list, and writing one.
//
// File layout, little-endian without padding: three header words (our writer puts the magic
// "DNMF", the format version 1 and a reserved 0 there; the reader does not interpret them), a
// signed 32-bit layer count, then per layer an 8-byte word (our writer: the byte length of the
// rest of the record; the reader skips it), the type code, the name, the input names and the
// type's own fields.
#include <cstdint>
#include <string>
#include <vector>

#include "deepnet/layer_model.h"

namespace deepnet {

constexpr uint32_t dnm_magic = 0x464D4E44;  // the bytes "DNMF"
constexpr uint32_t dnm_format_version = 1;

/// Reads layers from [begin, end) and appends them to `layers`; returns the position after the
/// last byte consumed. Throws std::runtime_error on an unknown type code, an input name that
/// matches no earlier layer, or data that ends too early. Layers read before a failure stay in
/// `layers`; the caller discards the whole list.
const uint8_t* deepnet_deserialize_layer_model(const uint8_t* begin, const uint8_t* end, layer_model_list& layers);

/// Reads a whole model file in one piece and deserialises it into `layers`.
void deepnet_load_model(const std::string& path, layer_model_list& layers);

/// The bytes of a model file holding `layers`.
std::vector<uint8_t> deepnet_serialize_layer_model(const layer_model_list& layers);
/// Writes `layers` as a model file; throws std::runtime_error when the file cannot be written.
void deepnet_save_model(const std::string& path, const layer_model_list& layers);

}  // namespace deepnet
