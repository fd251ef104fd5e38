// PNG and JPEG images read into 8-bit grey, and grey pixels written as PNG.
//
// libpng and libjpeg report errors by calling a handler that must not return; ours longjmp back
// to a setjmp in a Decode* function. Those functions create no object with a destructor after
// their setjmp (the caller owns every such object, and libpng's and libjpeg's structs), so a
// longjmp skips no destructor; the caller turns the recorded reason into an exception.
#include "host/image.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <stdexcept>
#include <unordered_set>

// jpeglib.h needs FILE and size_t first.
#include <jpeglib.h>
// jerror.h after jpeglib.h: the message codes.
#include <jerror.h>
#include <png.h>

namespace fontrix::host {
namespace {

std::mutex rasters_mu;
std::unordered_set<const ImageRaster*> rasters;  // live images, so a stale handle is refused

uint8_t Luma(unsigned r, unsigned g, unsigned b) { return uint8_t((299 * r + 587 * g + 114 * b + 500) / 1000); }

// Grey `value` at `alpha` over white paper.
uint8_t OverWhite(unsigned value, unsigned alpha) { return uint8_t((value * alpha + 255 * (255 - alpha) + 127) / 255); }

// Why decoding stopped; filled by the error handlers.
struct Trouble {
  bool truncated = false;
  uint64_t width = 0, height = 0;  // set when the image is too large
  char message[JMSG_LENGTH_MAX > 256 ? JMSG_LENGTH_MAX : 256] = {};
};

// ---- PNG

struct PngInput {
  const uint8_t* data;
  size_t size, pos;
  Trouble* trouble;
  std::jmp_buf jump;
};

void PngError(png_structp png, png_const_charp message) {
  auto* in = static_cast<PngInput*>(png_get_error_ptr(png));
  std::snprintf(in->trouble->message, sizeof in->trouble->message, "%s", message);
  std::longjmp(in->jump, 1);
}

void PngWarning(png_structp, png_const_charp) {}

void PngRead(png_structp png, png_bytep out, size_t length) {
  auto* in = static_cast<PngInput*>(png_get_io_ptr(png));
  if (length > in->size - in->pos) {
    in->trouble->truncated = true;
    png_error(png, "truncated");
  }
  std::memcpy(out, in->data + in->pos, length);
  in->pos += length;
}

struct PngReadStructs {
  png_structp png = nullptr;
  png_infop info = nullptr;
  ~PngReadStructs() {
    if (png) png_destroy_read_struct(&png, info ? &info : nullptr, nullptr);
  }
};

// One row after libpng's expansion: 1 (grey), 2 (grey, alpha), 3 (RGB) or 4 (RGBA) bytes a pixel.
void PngRowToGrey(const uint8_t* in, int channels, int32_t width, uint8_t* out) {
  for (int32_t x = 0; x < width; ++x, in += channels) {
    switch (channels) {
      case 1:
        out[x] = in[0];
        break;
      case 2:
        out[x] = OverWhite(in[0], in[1]);
        break;
      case 3:
        out[x] = Luma(in[0], in[1], in[2]);
        break;
      default:
        out[x] = OverWhite(Luma(in[0], in[1], in[2]), in[3]);
        break;
    }
  }
}

bool DecodePng(PngInput& in, PngReadStructs& s, uint64_t max_pixels, std::unique_ptr<ImageRaster>& image,
               std::vector<uint8_t>& rows) {
  if (setjmp(in.jump)) return false;
  s.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &in, PngError, PngWarning);
  if (!s.png) throw std::bad_alloc();
  s.info = png_create_info_struct(s.png);
  if (!s.info) throw std::bad_alloc();
  png_set_read_fn(s.png, &in, PngRead);
  png_read_info(s.png, s.info);
  const png_uint_32 width = png_get_image_width(s.png, s.info), height = png_get_image_height(s.png, s.info);
  if (uint64_t{width} * height > max_pixels) {
    in.trouble->width = width;
    in.trouble->height = height;
    return false;
  }
  png_set_expand(s.png);    // palette to RGB, grey below 8 bits to 8, tRNS to alpha
  png_set_scale_16(s.png);  // 16-bit samples rounded to 8
  const int passes = png_set_interlace_handling(s.png);
  png_read_update_info(s.png, s.info);
  const int channels = png_get_channels(s.png, s.info);
  const size_t row_bytes = png_get_rowbytes(s.png, s.info);
  image = std::make_unique<ImageRaster>(int32_t(width), int32_t(height));
  // An interlaced image fills every row once per pass, so it needs them all at once.
  rows.resize(passes > 1 ? row_bytes * height : row_bytes);
  if (passes == 1) {
    for (png_uint_32 y = 0; y < height; ++y) {
      png_read_row(s.png, rows.data(), nullptr);
      PngRowToGrey(rows.data(), channels, int32_t(width), image->row(int32_t(y)));
    }
  } else {
    for (int pass = 0; pass < passes; ++pass)
      for (png_uint_32 y = 0; y < height; ++y) png_read_row(s.png, rows.data() + y * row_bytes, nullptr);
    for (png_uint_32 y = 0; y < height; ++y)
      PngRowToGrey(rows.data() + y * row_bytes, channels, int32_t(width), image->row(int32_t(y)));
  }
  png_read_end(s.png, nullptr);  // through IEND: a file cut short anywhere is refused
  return true;
}

// ---- JPEG

constexpr int kMaxJpegScans = 1000;  // progressive files with more are made to waste time

struct JpegErrors {
  jpeg_error_mgr manager;  // first: libjpeg's err pointer is cast back to this struct
  Trouble* trouble;
  std::jmp_buf jump;
};

void JpegExit(j_common_ptr info) {
  auto* errors = reinterpret_cast<JpegErrors*>(info->err);
  (*info->err->format_message)(info, errors->trouble->message);
  std::longjmp(errors->jump, 1);
}

// Warnings are dropped (libjpeg would print them), except the end of the data before the end of
// the image, which libjpeg papers over with grey.
void JpegMessage(j_common_ptr info, int level) {
  if (level < 0 && info->err->msg_code == JWRN_JPEG_EOF) {
    reinterpret_cast<JpegErrors*>(info->err)->trouble->truncated = true;
    JpegExit(info);
  }
}

void JpegProgress(j_common_ptr info) {
  auto* decompress = reinterpret_cast<j_decompress_ptr>(info);
  if (info->is_decompressor && decompress->input_scan_number > kMaxJpegScans) {
    auto* errors = reinterpret_cast<JpegErrors*>(info->err);
    std::snprintf(errors->trouble->message, sizeof errors->trouble->message, "more than %d scans", kMaxJpegScans);
    std::longjmp(errors->jump, 1);
  }
}

// Whether the file carries the APP14 colour-transform segment (its data starts with the five
// bytes 0x41 0x64 0x6F 0x62 0x65); libjpeg keeps the segment when asked with jpeg_save_markers.
bool HasApp14Transform(const jpeg_decompress_struct& info) {
  static const unsigned char kTag[5] = {0x41, 0x64, 0x6F, 0x62, 0x65};
  for (jpeg_saved_marker_ptr m = info.marker_list; m; m = m->next)
    if (m->marker == JPEG_APP0 + 14 && m->data_length >= 5 && std::memcmp(m->data, kTag, 5) == 0) return true;
  return false;
}

struct JpegStructs {
  jpeg_decompress_struct info{};
  JpegErrors errors{};
  jpeg_progress_mgr progress{};
  bool created = false;
  ~JpegStructs() {
    if (created) jpeg_destroy_decompress(&info);
  }
};

bool DecodeJpeg(const uint8_t* data, size_t size, JpegStructs& s, uint64_t max_pixels,
                std::unique_ptr<ImageRaster>& image, std::vector<uint8_t>& row) {
  s.info.err = jpeg_std_error(&s.errors.manager);
  s.errors.manager.error_exit = JpegExit;
  s.errors.manager.emit_message = JpegMessage;
  if (setjmp(s.errors.jump)) return false;
  jpeg_create_decompress(&s.info);
  s.created = true;
  s.progress.progress_monitor = JpegProgress;
  s.info.progress = &s.progress;
  jpeg_mem_src(&s.info, data, static_cast<unsigned long>(size));
  jpeg_save_markers(&s.info, JPEG_APP0 + 14, 16);  // the colour-transform segment, read below
  jpeg_read_header(&s.info, TRUE);
  if (uint64_t{s.info.image_width} * s.info.image_height > max_pixels) {
    s.errors.trouble->width = s.info.image_width;
    s.errors.trouble->height = s.info.image_height;
    return false;
  }
  // libjpeg makes BT.601 luma of YCbCr and RGB itself; CMYK is converted below.
  const bool cmyk = s.info.jpeg_color_space == JCS_CMYK || s.info.jpeg_color_space == JCS_YCCK;
  s.info.out_color_space = cmyk ? JCS_CMYK : JCS_GRAYSCALE;
  jpeg_start_decompress(&s.info);
  image = std::make_unique<ImageRaster>(int32_t(s.info.output_width), int32_t(s.info.output_height));
  row.resize(size_t(s.info.output_width) * size_t(s.info.output_components));
  // Files with an APP14 colour-transform segment store CMYK inverted (255 is no ink); others
  // store ink amounts.
  const unsigned flip = cmyk && !HasApp14Transform(s.info) ? 255 : 0;
  while (s.info.output_scanline < s.info.output_height) {
    JSAMPROW rows[1] = {row.data()};
    const JDIMENSION y = s.info.output_scanline;
    if (jpeg_read_scanlines(&s.info, rows, 1) != 1) {  // only a suspending data source does this
      std::snprintf(s.errors.trouble->message, sizeof s.errors.trouble->message, "a row could not be read");
      return false;
    }
    uint8_t* out = image->row(int32_t(y));
    if (!cmyk) {
      std::memcpy(out, row.data(), s.info.output_width);
      continue;
    }
    for (JDIMENSION x = 0; x < s.info.output_width; ++x) {
      const uint8_t* p = row.data() + 4 * x;
      const unsigned c = p[0] ^ flip, m = p[1] ^ flip, yellow = p[2] ^ flip, k = p[3] ^ flip;  // 255: no ink
      out[x] = Luma((c * k + 127) / 255, (m * k + 127) / 255, (yellow * k + 127) / 255);
    }
  }
  jpeg_finish_decompress(&s.info);
  return true;
}

// ---- telling formats apart

bool StartsWith(const uint8_t* data, size_t size, const char* magic, size_t length) {
  return size >= length && std::memcmp(data, magic, length) == 0;
}

// The name of a known format that is not read, or null.
const char* OtherFormat(const uint8_t* data, size_t size) {
  if (StartsWith(data, size, "GIF8", 4)) return "a GIF";
  if (StartsWith(data, size, "BM", 2)) return "a BMP";
  if (StartsWith(data, size, "II*\0", 4) || StartsWith(data, size, "MM\0*", 4)) return "a TIFF";
  if (StartsWith(data, size, "RIFF", 4) && size >= 12 && std::memcmp(data + 8, "WEBP", 4) == 0) return "a WebP";
  if (StartsWith(data, size, "\0\0\0\x0cjP  ", 8)) return "a JPEG 2000";
  return nullptr;
}

[[noreturn]] void Fail(const std::string& name, const std::string& reason) {
  throw std::runtime_error("cannot load the image " + name + ": " + reason);
}

}  // namespace

ImageRaster::ImageRaster(int32_t width, int32_t height) : width_(width), height_(height) {
  if (width < 0 || height < 0 || uint64_t(width) * uint64_t(height) > kMaxImagePixels)
    throw std::length_error("image too large");
  pixels_.assign(size_t(width) * size_t(height), 255);
  std::lock_guard lock(rasters_mu);
  rasters.insert(this);
}

ImageRaster::~ImageRaster() {
  std::lock_guard lock(rasters_mu);
  rasters.erase(this);
}

QVGreyPixels ImageRaster::Pixels() const {
  return {width_, height_, width_, pixels_.empty() ? nullptr : pixels_.data()};
}

namespace {

// Fails unless the bytes start as a PNG or JPEG file does.
void RefuseOtherFormats(const uint8_t* bytes, size_t size, const std::string& name) {
  if (StartsWith(bytes, size, "\x89PNG\r\n\x1a\n", 8) || StartsWith(bytes, size, "\xff\xd8\xff", 3)) return;
  if (const char* other = OtherFormat(bytes, size))
    Fail(name, "it is " + std::string(other) + " image, and only PNG and JPEG images can be read");
  Fail(name, "it is neither a PNG nor a JPEG image");
}

// Bytes enough to tell every format OtherFormat knows.
constexpr size_t kSignatureBytes = 16;

}  // namespace

std::unique_ptr<ImageRaster> LoadImageRasterFromMemory(const void* data, size_t size, const std::string& name,
                                                       uint64_t max_pixels) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  max_pixels = std::min(max_pixels, kMaxImagePixels);
  if (size == 0) Fail(name, "the file is empty");
  Trouble trouble;
  std::unique_ptr<ImageRaster> image;
  std::vector<uint8_t> rows;
  bool ok = false;
  const char* format = nullptr;
  RefuseOtherFormats(bytes, size, name);
  try {
    if (StartsWith(bytes, size, "\x89PNG\r\n\x1a\n", 8)) {
      format = "PNG";
      PngInput input{bytes, size, 0, &trouble, {}};
      PngReadStructs structs;
      ok = DecodePng(input, structs, max_pixels, image, rows);
    } else if (StartsWith(bytes, size, "\xff\xd8\xff", 3)) {
      format = "JPEG";
      JpegStructs structs;
      structs.errors.trouble = &trouble;
      ok = DecodeJpeg(bytes, size, structs, max_pixels, image, rows);
    }
  } catch (const std::bad_alloc&) {
    Fail(name, "there is not enough memory to decode it");
  }
  if (ok) return image;
  if (trouble.width)
    Fail(name, "it has " + std::to_string(trouble.width) + " x " + std::to_string(trouble.height) +
                   " pixels, more than the " + std::to_string(max_pixels) + " an image may have");
  if (trouble.truncated) Fail(name, std::string("the file ends before its ") + format + " image does");
  Fail(name, std::string("its ") + format + " data is damaged (" + trouble.message + ")");
}

namespace {

// Compressed data of the largest image allowed is far smaller than this.
constexpr uint64_t kMostImageFileBytes = uint64_t{1} << 30;

// Every byte `fd` gives until its end, at most kMostImageFileBytes; `name` is for messages.
// A stream that is no picture is refused as soon as its first bytes say so, not after a gigabyte.
std::vector<uint8_t> ReadToEnd(int fd, const std::string& name, size_t expected) {
  std::vector<uint8_t> bytes(std::max<size_t>(expected, kSignatureBytes) + 1);  // one byte more sees the end at once
  size_t done = 0;
  bool checked = false;
  for (;;) {
    if (!checked && done >= kSignatureBytes) {
      RefuseOtherFormats(bytes.data(), done, name);
      checked = true;
    }
    if (done == bytes.size()) {
      if (bytes.size() > kMostImageFileBytes) Fail(name, "it is larger than 1 GiB");
      bytes.resize(std::min<size_t>(bytes.size() * 2, kMostImageFileBytes + 1));
    }
    const ssize_t got = ::read(fd, bytes.data() + done, bytes.size() - done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) Fail(name, std::strerror(errno));
    if (got == 0) break;
    done += size_t(got);
  }
  if (done > kMostImageFileBytes) Fail(name, "it is larger than 1 GiB");
  bytes.resize(done);
  return bytes;
}

}  // namespace

std::unique_ptr<ImageRaster> LoadImageRaster(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) Fail(path, std::strerror(errno));
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  struct stat st {};
  if (::fstat(fd, &st) != 0) Fail(path, std::strerror(errno));
  if (!S_ISREG(st.st_mode)) Fail(path, "it is not a regular file");
  if (uint64_t(st.st_size) > kMostImageFileBytes) Fail(path, "the file is larger than 1 GiB");
  const std::vector<uint8_t> bytes = ReadToEnd(fd, path, size_t(st.st_size));
  return LoadImageRasterFromMemory(bytes.data(), bytes.size(), path);
}

std::unique_ptr<ImageRaster> LoadImageRasterFromDescriptor(int fd, const std::string& name) {
  const std::vector<uint8_t> bytes = ReadToEnd(fd, name, 1 << 16);
  if (bytes.empty()) Fail(name, "nothing came");
  return LoadImageRasterFromMemory(bytes.data(), bytes.size(), name);
}

// ---- writing

namespace {

// Where the PNG goes: a file, or bytes in memory when `file` is null.
struct PngOutput {
  std::FILE* file;
  std::string* bytes;
  char message[256];
  std::jmp_buf jump;
};

void PngWriteError(png_structp png, png_const_charp message) {
  auto* out = static_cast<PngOutput*>(png_get_error_ptr(png));
  std::snprintf(out->message, sizeof out->message, "%s", message);
  std::longjmp(out->jump, 1);
}

struct PngWriteStructs {
  png_structp png = nullptr;
  png_infop info = nullptr;
  ~PngWriteStructs() {
    if (png) png_destroy_write_struct(&png, info ? &info : nullptr);
  }
};

bool EncodePng(PngOutput& out, PngWriteStructs& s, const QVGreyPixels& pixels) {
  if (setjmp(out.jump)) return false;
  s.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &out, PngWriteError, PngWarning);
  if (!s.png) throw std::bad_alloc();
  s.info = png_create_info_struct(s.png);
  if (!s.info) throw std::bad_alloc();
  if (out.file)
    png_init_io(s.png, out.file);
  else
    png_set_write_fn(
        s.png, out.bytes,
        [](png_structp png, png_bytep data, size_t size) {
          static_cast<std::string*>(png_get_io_ptr(png))->append(reinterpret_cast<const char*>(data), size);
        },
        nullptr);
  png_set_IHDR(s.png, s.info, png_uint_32(pixels.width), png_uint_32(pixels.height), 8, PNG_COLOR_TYPE_GRAY,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(s.png, s.info);
  for (int32_t y = 0; y < pixels.height; ++y) png_write_row(s.png, pixels.pixels + size_t(y) * size_t(pixels.rowBytes));
  png_write_end(s.png, nullptr);
  return true;
}

}  // namespace

void WritePng(const std::string& path, const QVGreyPixels& pixels) {
  auto fail = [&](const std::string& reason) {
    throw std::runtime_error("cannot write the PNG file " + path + ": " + reason);
  };
  if (pixels.width <= 0 || pixels.height <= 0 || !pixels.pixels || pixels.rowBytes < pixels.width)
    fail("a PNG image needs at least one pixel");
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) fail(std::strerror(errno));
  PngOutput out{file, nullptr, {}, {}};
  bool ok = false;
  {
    PngWriteStructs structs;
    ok = EncodePng(out, structs, pixels);
  }
  const bool flushed = std::fflush(file) == 0 && !std::ferror(file);
  const int flush_errno = errno;
  const bool closed = std::fclose(file) == 0;
  if (!ok) fail(out.message);
  if (!flushed || !closed) fail(std::strerror(flushed ? errno : flush_errno));
}

std::string PngBytes(const QVGreyPixels& pixels) {
  if (pixels.width <= 0 || pixels.height <= 0 || !pixels.pixels || pixels.rowBytes < pixels.width)
    throw std::runtime_error("cannot make a PNG image: it needs at least one pixel");
  std::string bytes;
  PngOutput out{nullptr, &bytes, {}, {}};
  PngWriteStructs structs;
  if (!EncodePng(out, structs, pixels))
    throw std::runtime_error(std::string("cannot make a PNG image: ") + out.message);
  return bytes;
}

// The engine's GetRasterPixels (declared in host/engine.h, which lists it in the engine's table).
QVErr EngineGetRasterPixels(QVRasterHandle raster, QVGreyPixels* pixels) {
  const auto* image = reinterpret_cast<const ImageRaster*>(raster);
  if (!pixels) return kQVBadParameterErr;
  try {
    std::lock_guard lock(rasters_mu);
    if (!rasters.count(image)) return kQVBadParameterErr;
    *pixels = image->Pixels();
    return kQVNoErr;
  } catch (...) {
    return kQVUnexpectedErr;
  }
}

}  // namespace fontrix::host
