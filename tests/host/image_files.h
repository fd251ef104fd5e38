#pragma once
// Small PNG and JPEG files made in memory for the image tests (and the fuzz seeds).
#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

// jpeglib.h needs FILE and size_t first.
#include <jpeglib.h>
#include <png.h>

namespace fontrix::host::testing {

struct PngPicture {
  int width = 1, height = 1, color_type = PNG_COLOR_TYPE_GRAY, bit_depth = 8;
  std::vector<uint8_t> samples;  ///< rows as libpng takes them (packed, 16-bit big-endian)
  std::vector<png_color> palette;
  std::vector<uint8_t> trns;  ///< palette alpha
  bool interlaced = false;
};

/// The PNG file of `picture`; empty if libpng refuses it.
inline std::vector<uint8_t> EncodePng(const PngPicture& picture) {
  std::vector<uint8_t> out;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    out.clear();
    return out;
  }
  png_set_write_fn(
      png, &out,
      [](png_structp p, png_bytep data, size_t length) {
        auto* bytes = static_cast<std::vector<uint8_t>*>(png_get_io_ptr(p));
        bytes->insert(bytes->end(), data, data + length);
      },
      nullptr);
  png_set_IHDR(png, info, png_uint_32(picture.width), png_uint_32(picture.height), picture.bit_depth,
               picture.color_type, picture.interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  if (!picture.palette.empty()) png_set_PLTE(png, info, picture.palette.data(), int(picture.palette.size()));
  if (!picture.trns.empty()) png_set_tRNS(png, info, picture.trns.data(), int(picture.trns.size()), nullptr);
  png_write_info(png, info);
  const size_t row_bytes = picture.samples.size() / size_t(picture.height);
  std::vector<png_bytep> rows;
  for (int y = 0; y < picture.height; ++y)
    rows.push_back(const_cast<png_bytep>(picture.samples.data() + y * row_bytes));
  png_write_image(png, rows.data());
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return out;
}

/// A JPEG of `components` samples a pixel in `space` (JCS_GRAYSCALE, JCS_RGB, JCS_CMYK), as
/// libjpeg's defaults store it (YCbCr for RGB; CMYK with an APP14 colour-transform segment).
inline std::vector<uint8_t> EncodeJpeg(int width, int height, J_COLOR_SPACE space, int components,
                                       const std::vector<uint8_t>& samples, bool progressive = false,
                                       int quality = 100) {
  jpeg_compress_struct info{};
  jpeg_error_mgr errors{};
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&info, &buffer, &size);
  info.image_width = JDIMENSION(width);
  info.image_height = JDIMENSION(height);
  info.input_components = components;
  info.in_color_space = space;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, quality, TRUE);
  if (progressive) jpeg_simple_progression(&info);
  jpeg_start_compress(&info, TRUE);
  while (info.next_scanline < info.image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(samples.data() + size_t(info.next_scanline) * size_t(width * components));
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  std::vector<uint8_t> out(buffer, buffer + size);
  jpeg_destroy_compress(&info);
  std::free(buffer);
  return out;
}

}  // namespace fontrix::host::testing
