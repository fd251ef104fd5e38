#pragma once
// Images of the host: PNG and JPEG files read into 8-bit grey rasters the font engine's
// GetRasterPixels reads, and grey pixels written as PNG.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sdk/qv_font_engine.h"

namespace fontrix::host {

/// The most pixels an image may have (64 Mi): a larger one is refused before it is decoded.
inline constexpr uint64_t kMaxImagePixels = uint64_t{64} << 20;

/// An 8-bit grey image, 0 black ink to 255 white paper, owned by the host. Its handle() is what
/// the engine's GetRasterPixels reads, valid while the object lives; any thread may read it.
class ImageRaster {
 public:
  /// A white image; throws std::length_error beyond kMaxImagePixels.
  ImageRaster(int32_t width, int32_t height);
  ~ImageRaster();
  ImageRaster(const ImageRaster&) = delete;
  ImageRaster& operator=(const ImageRaster&) = delete;

  int32_t width() const { return width_; }
  int32_t height() const { return height_; }
  uint8_t* row(int32_t y) { return pixels_.data() + size_t(y) * size_t(width_); }
  const uint8_t* row(int32_t y) const { return pixels_.data() + size_t(y) * size_t(width_); }
  QVGreyPixels Pixels() const;
  QVRasterHandle handle() const { return reinterpret_cast<QVRasterHandle>(const_cast<ImageRaster*>(this)); }

 private:
  int32_t width_, height_;
  std::vector<uint8_t> pixels_;
};

/// Reads a PNG (any colour type and bit depth; alpha composited on white; 16-bit samples
/// scaled to 8; gamma ignored) or a JPEG (grey, YCbCr, RGB, CMYK or YCCK), told apart by their
/// first bytes, never by the name. Colour becomes ITU-R BT.601 luma, 0.299 R + 0.587 G +
/// 0.114 B. A file that cannot be read, is damaged or truncated, is neither PNG nor JPEG, or
/// has more than kMaxImagePixels pixels throws std::runtime_error with one sentence naming the
/// file and the reason.
std::unique_ptr<ImageRaster> LoadImageRaster(const std::string& path);

/// The same from what a file descriptor gives until its end (standard input: 0); `name` stands
/// for it in messages. More than 1 GiB is refused.
std::unique_ptr<ImageRaster> LoadImageRasterFromDescriptor(int fd, const std::string& name);

/// The same from bytes in memory; `name` stands for the file in messages. `max_pixels` lowers
/// the size limit (the fuzz target keeps images small).
std::unique_ptr<ImageRaster> LoadImageRasterFromMemory(const void* data, size_t size, const std::string& name,
                                                       uint64_t max_pixels = kMaxImagePixels);

/// Writes grey pixels as an 8-bit greyscale PNG; throws std::runtime_error naming the file and
/// the reason when it cannot.
void WritePng(const std::string& path, const QVGreyPixels& pixels);

/// The same PNG as bytes in memory; throws std::runtime_error saying why it cannot.
std::string PngBytes(const QVGreyPixels& pixels);

}  // namespace fontrix::host
