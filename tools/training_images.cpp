// training-images: the pictures the networks are trained on, made by the module's own imaging
// through the reference host, so that training sees exactly what inference sees.
//
//   training-images specimens NAMES OUT [--part K/N]
//       Per font: the lower- and upper-case specimens the similarity update draws, cut to
//       their first 109 rows (all that the crops read).
//   training-images lines NAMES WORDS OUT [--per-font N] [--seed S] [--clean | --tall] [--part K/N]
//       Per font, N pictures of a line of real words (from WORDS, one a line), degraded like
//       pictures from other renderers, cameras and scanners unless --clean, then taken through
//       recognition's own path: the band brought to 109 rows, both scales, tiled, the ten crops.
//       --tall sets each line in a picture two to four times its height and writes two records
//       per picture: the whole picture, then the picture cut to its text band. --localise MODEL
//       cuts every picture to the band MODEL finds, as recognition does with a localisation
//       network; with --tall it adds that cut as a third record.
//   training-images bands NAMES WORDS OUT [--per-font N] [--seed S] [--part K/N]
//       Per font, N degraded pictures of a line, half of them in a picture two to four times the
//       line's height: what the localisation network learns to cut to the text band.
//
// NAMES holds one unique name a line; a record's label is the line's index (from 0). --part K/N
// does every N-th font from the K-th (0-based), so N processes can share the work.
//
// Files (little-endian): specimens: "FXSPEC01", then per font int32 label, int32 lower width,
// int32 upper width, 109 x lower width bytes, 109 x upper width bytes (rows in order; 0 ink,
// 255 paper). lines: "FXLINE01", then per picture int32 label and ten crops of 109 x 109 bytes,
// each crop value + 128 rounded (the network reads byte - 128). bands: "FXBAND01", then per
// picture int32 label, float32 first and last row of the band as fractions of the height, and
// the picture brought to 109 rows as 109 x 384 bytes (a narrower picture repeated side by side,
// which keeps its band; a wider one cut at a random column).
#include <cmath>
#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

// jpeglib.h needs FILE and size_t first.
#include <jpeglib.h>

#include "deepnet/model_io.h"
#include "host/host.h"
#include "hostglue/font_access.h"
#include "plugin/dispatch.h"
#include "recognition/line_scoring.h"
#include "sdk/qv_font_suites.h"
#include "similarity/specimen.h"

namespace {

using fontrix::GreyRaster;

constexpr int kSide = fontrix::kLineHeight;

std::vector<std::string> ReadLines(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) lines.push_back(line);
  return lines;
}

void Put32(std::FILE* out, int32_t v) {
  uint8_t b[4] = {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
  std::fwrite(b, 1, 4, out);
}

float At(const GreyRaster& g, int x, int y) { return g.pixels[size_t(y) * size_t(g.width) + size_t(x)]; }

/// Bilinear sample with white outside the picture.
float Sample(const GreyRaster& g, double x, double y) {
  const int x0 = int(std::floor(x)), y0 = int(std::floor(y));
  const double fx = x - x0, fy = y - y0;
  auto px = [&](int xi, int yi) -> double {
    return xi < 0 || yi < 0 || xi >= g.width || yi >= g.height ? 255.0 : At(g, xi, yi);
  };
  const double top = px(x0, y0) + (px(x0 + 1, y0) - px(x0, y0)) * fx;
  const double bottom = px(x0, y0 + 1) + (px(x0 + 1, y0 + 1) - px(x0, y0 + 1)) * fx;
  return float(top + (bottom - top) * fy);
}

uint8_t Byte(double v) { return uint8_t(std::lround(std::min(255.0, std::max(0.0, v)))); }

/// Stretches by `sx` across, turns by `degrees` about the centre and pads by the margins, in one
/// resampling (white comes in at the edges).
GreyRaster Place(const GreyRaster& g, double sx, double degrees, int left, int right, int top, int bottom) {
  GreyRaster out;
  out.width = int32_t(std::lround(g.width * sx)) + left + right;
  out.height = g.height + top + bottom;
  out.pixels.resize(size_t(out.width) * size_t(out.height));
  const double a = degrees * M_PI / 180.0, c = std::cos(a), s = std::sin(a);
  const double cx = out.width / 2.0, cy = out.height / 2.0;
  for (int y = 0; y < out.height; ++y)
    for (int x = 0; x < out.width; ++x) {
      const double dx = x - cx, dy = y - cy;
      const double rx = c * dx + s * dy + cx, ry = -s * dx + c * dy + cy;  // inverse rotation
      out.pixels[size_t(y) * size_t(out.width) + size_t(x)] = Byte(Sample(g, (rx - left) / sx, ry - top));
    }
  return out;
}

void Blur(GreyRaster& g, double sigma) {
  const int r = int(std::ceil(sigma * 3));
  std::vector<double> k(size_t(2 * r + 1));
  double sum = 0;
  for (int i = -r; i <= r; ++i) sum += k[size_t(i + r)] = std::exp(-i * i / (2 * sigma * sigma));
  for (double& v : k) v /= sum;
  std::vector<double> tmp(g.pixels.size());
  for (int y = 0; y < g.height; ++y)
    for (int x = 0; x < g.width; ++x) {
      double v = 0;
      for (int i = -r; i <= r; ++i) v += k[size_t(i + r)] * At(g, std::min(g.width - 1, std::max(0, x + i)), y);
      tmp[size_t(y) * size_t(g.width) + size_t(x)] = v;
    }
  for (int y = 0; y < g.height; ++y)
    for (int x = 0; x < g.width; ++x) {
      double v = 0;
      for (int i = -r; i <= r; ++i)
        v += k[size_t(i + r)] * tmp[size_t(std::min(g.height - 1, std::max(0, y + i))) * size_t(g.width) + size_t(x)];
      g.pixels[size_t(y) * size_t(g.width) + size_t(x)] = Byte(v);
    }
}

struct JpegError {
  jpeg_error_mgr mgr;
  std::jmp_buf jump;
};

void OnJpegError(j_common_ptr info) { std::longjmp(reinterpret_cast<JpegError*>(info->err)->jump, 1); }

// The two halves keep only plain locals between setjmp and longjmp, as setjmp requires.
bool JpegCompress(const GreyRaster& g, int quality, unsigned char** buffer, unsigned long* size) {
  JpegError error;
  jpeg_compress_struct c{};
  c.err = jpeg_std_error(&error.mgr);
  error.mgr.error_exit = OnJpegError;
  if (setjmp(error.jump)) {
    jpeg_destroy_compress(&c);
    return false;
  }
  jpeg_create_compress(&c);
  jpeg_mem_dest(&c, buffer, size);
  c.image_width = JDIMENSION(g.width);
  c.image_height = JDIMENSION(g.height);
  c.input_components = 1;
  c.in_color_space = JCS_GRAYSCALE;
  jpeg_set_defaults(&c);
  jpeg_set_quality(&c, quality, TRUE);
  jpeg_start_compress(&c, TRUE);
  for (int y = 0; y < g.height; ++y) {
    JSAMPROW row = const_cast<uint8_t*>(&g.pixels[size_t(y) * size_t(g.width)]);
    jpeg_write_scanlines(&c, &row, 1);
  }
  jpeg_finish_compress(&c);
  jpeg_destroy_compress(&c);
  return true;
}

bool JpegDecompress(unsigned char* buffer, unsigned long size, uint8_t* out, int width, int height) {
  JpegError error;
  jpeg_decompress_struct d{};
  d.err = jpeg_std_error(&error.mgr);
  error.mgr.error_exit = OnJpegError;
  if (setjmp(error.jump)) {
    jpeg_destroy_decompress(&d);
    return false;
  }
  jpeg_create_decompress(&d);
  jpeg_mem_src(&d, buffer, size);
  jpeg_read_header(&d, TRUE);
  jpeg_start_decompress(&d);
  if (int(d.output_width) != width || int(d.output_height) != height || d.output_components != 1) {
    jpeg_destroy_decompress(&d);
    return false;
  }
  while (d.output_scanline < d.output_height) {
    JSAMPROW row = out + size_t(d.output_scanline) * size_t(width);
    jpeg_read_scanlines(&d, &row, 1);
  }
  jpeg_finish_decompress(&d);
  jpeg_destroy_decompress(&d);
  return true;
}

/// Through a JPEG encoder and decoder at `quality`: the blocks and ringing of a saved photo.
/// Left unchanged if libjpeg fails.
void JpegRoundTrip(GreyRaster& g, int quality) {
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  std::vector<uint8_t> decoded(g.pixels.size());
  if (JpegCompress(g, quality, &buffer, &size) && JpegDecompress(buffer, size, decoded.data(), g.width, g.height))
    g.pixels = std::move(decoded);
  std::free(buffer);
}

/// A line of 1 to 5 words, now and then capitalised, in capitals, or with a number.
std::string LineText(const std::vector<std::string>& words, std::mt19937& rng) {
  std::uniform_int_distribution<size_t> pick(0, words.size() - 1);
  const int count = std::uniform_int_distribution<int>(1, 5)(rng);
  const int mode = std::uniform_int_distribution<int>(0, 9)(rng);  // 0: capitals, 1-3: capitalised
  std::string text;
  for (int i = 0; i < count; ++i) {
    std::string w = words[pick(rng)];
    if (mode == 0)
      for (char& ch : w) ch = char(std::toupper(static_cast<unsigned char>(ch)));
    else if (mode <= 3 || (i == 0 && mode <= 6))
      w[0] = char(std::toupper(static_cast<unsigned char>(w[0])));
    text += (i ? " " : "") + w;
  }
  if (std::uniform_int_distribution<int>(0, 7)(rng) == 0)
    text += " " + std::to_string(std::uniform_int_distribution<int>(0, 2099)(rng));
  return text;
}

/// Rows [first, last) of a picture: where its text line lies.
struct Band {
  int first = 0, last = 0;
};

/// One picture of a line of text in `font`, as a person might hand it to recognition. With
/// `tall`, the line sits in a picture two to four times its height, and `band` tells where.
bool LinePicture(fontrix::hostglue::FontAccess& fonts, QVFontHandle font, const std::string& text, bool clean,
                 bool tall, std::mt19937& rng, GreyRaster& picture, Band& band) {
  auto uniform = [&](double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); };
  auto chance = [&](double p) { return uniform(0, 1) < p; };
  const double size = clean ? uniform(40, 80) : uniform(24, 96);
  QVIntRect box{};
  fontrix::hostglue::GreyImage drawn;
  if (!fonts.MeasureText(font, text, size, box) || box.right <= box.left || box.bottom <= box.top ||
      !fonts.DrawText(font, text, size, box, drawn))
    return false;
  GreyRaster g{drawn.width, drawn.height, std::move(drawn.pixels)};
  const int h = g.height;
  if (clean) {
    picture = Place(g, 1.0, 0.0, h / 8, h / 8, h / 8, h / 8);
    band = {0, picture.height};
    return true;
  }
  const double stretch = uniform(0.85, 1.15);
  const double degrees = chance(0.3) ? uniform(-2.0, 2.0) : 0.0;
  auto margin = [&](double most) { return int(uniform(tall ? most / 2 : 0, most) * h); };
  const int top = margin(tall ? 1.5 : 0.35), bottom = margin(tall ? 1.5 : 0.35);
  picture = Place(g, stretch, degrees, margin(0.6), margin(0.6), top, bottom);
  // The band keeps a fifth of the text's height either side: the recognition network learnt
  // lines with margins of up to a third of it, and a cut to a tenth cost it 1.6 points.
  band = {std::max(0, top - h / 5), std::min(picture.height, top + h + h / 5)};
  if (chance(0.4)) Blur(picture, uniform(0.3, 1.4));
  const double ink = uniform(0, 90), paper = uniform(170, 255);
  const double noise = chance(0.4) ? uniform(2, 12) : 0.0;
  std::normal_distribution<double> gauss(0.0, 1.0);
  for (uint8_t& p : picture.pixels) {
    double v = ink + (paper - ink) * (p / 255.0);
    if (noise > 0) v += noise * gauss(rng);
    p = Byte(v);
  }
  if (chance(0.3)) JpegRoundTrip(picture, int(uniform(20, 70)));
  if (chance(0.15))
    for (uint8_t& p : picture.pixels) p = uint8_t(255 - p);
  return true;
}

/// A picture through recognition's own path (the band brought to 109 rows, both scales, tiled,
/// ten crops), written as one record.
void WriteLineCrops(std::FILE* out, int32_t label, const GreyRaster& picture) {
  int32_t width = 0;
  const std::vector<float> line = fontrix::ToLineHeight(picture, width);
  const std::vector<float> crops = fontrix::LineCrops(line, width);
  std::vector<uint8_t> bytes(crops.size());
  for (size_t i = 0; i < crops.size(); ++i) bytes[i] = Byte(crops[i] + 128.0);
  Put32(out, label);
  std::fwrite(bytes.data(), 1, bytes.size(), out);
}

constexpr int kBandWidth = 384;

/// A picture as the localisation network reads it, with the band it should find.
void WriteBandRecord(std::FILE* out, int32_t label, const GreyRaster& picture, const Band& band, std::mt19937& rng) {
  int32_t width = 0;
  const std::vector<float> line = fontrix::ToLineHeight(picture, width);
  const int32_t from = width > kBandWidth ? std::uniform_int_distribution<int32_t>(0, width - kBandWidth)(rng) : 0;
  std::vector<uint8_t> bytes(size_t(kBandWidth) * kSide);
  for (int y = 0; y < kSide; ++y)
    for (int x = 0; x < kBandWidth; ++x)
      bytes[size_t(y) * kBandWidth + size_t(x)] = Byte(line[size_t(y) * size_t(width) + size_t((from + x) % width)]);
  Put32(out, label);
  const float fractions[2] = {float(band.first) / float(picture.height), float(band.last) / float(picture.height)};
  std::fwrite(fractions, sizeof(float), 2, out);
  std::fwrite(bytes.data(), 1, bytes.size(), out);
}

/// Rows [first, last) of `picture` as a picture of their own.
GreyRaster Cut(const GreyRaster& picture, uint32_t first, uint32_t last) {
  GreyRaster cut{picture.width, int32_t(last - first), {}};
  cut.pixels.assign(picture.pixels.begin() + ptrdiff_t(first) * picture.width,
                    picture.pixels.begin() + ptrdiff_t(last) * picture.width);
  return cut;
}

struct Part {
  size_t k = 0, n = 1;
};

Part ParsePart(const std::string& text) {
  Part part;
  if (std::sscanf(text.c_str(), "%zu/%zu", &part.k, &part.n) != 2 || part.n == 0 || part.k >= part.n)
    throw std::runtime_error("--part wants K/N with 0 <= K < N, not '" + text + "'");
  return part;
}

int Usage() {
  std::fprintf(stderr,
               "usage: training-images specimens NAMES OUT [--part K/N]\n"
               "       training-images lines NAMES WORDS OUT [--per-font N] [--seed S] [--clean | --tall]\n"
               "                             [--localise MODEL] [--part K/N]\n"
               "       training-images bands NAMES WORDS OUT [--per-font N] [--seed S] [--part K/N]\n");
  return 2;
}

int Run(int argc, char** argv) {
  std::vector<std::string> args;
  Part part;
  int per_font = 24;
  uint32_t seed = 1;
  bool clean = false, tall = false;
  std::string localiser;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) throw std::runtime_error(a + " wants a value");
      return argv[++i];
    };
    if (a == "--part")
      part = ParsePart(value());
    else if (a == "--per-font")
      per_font = std::stoi(value());
    else if (a == "--seed")
      seed = uint32_t(std::stoul(value()));
    else if (a == "--clean")
      clean = true;
    else if (a == "--tall")
      tall = true;
    else if (a == "--localise")
      localiser = value();
    else if (!a.empty() && a[0] == '-')
      return Usage();
    else
      args.push_back(a);
  }
  const bool specimens = args.size() == 3 && args[0] == "specimens";
  const bool lines = args.size() == 4 && args[0] == "lines";
  const bool bands = args.size() == 4 && args[0] == "bands";
  if (!specimens && !lines && !bands) return Usage();
  if (bands && (clean || tall || !localiser.empty())) return Usage();
  deepnet::layer_model_list localisation;
  if (!localiser.empty()) deepnet::deepnet_load_model(localiser, localisation);
  const std::vector<std::string> names = ReadLines(args[1]);
  const std::vector<std::string> words = specimens ? std::vector<std::string>{} : ReadLines(args[2]);
  if (!specimens && words.empty()) throw std::runtime_error("no words in " + args[2]);

  fontrix::host::Host host({});
  host.UseModuleEntry(FontrixPluginMain);
  if (host.Startup() != kQVNoErr) throw std::runtime_error("the module could not bind the host's font engine");
  const auto* suite = static_cast<const QVFontSuite*>(host.AcquireSuite(kQVFontSuite, kQVFontSuiteVersion));
  auto& fonts = fontrix::hostglue::HostFontAccess();

  const std::string& out_path = args.back();
  std::FILE* out = std::fopen(out_path.c_str(), "wb");
  if (!out) throw std::runtime_error("cannot write " + out_path);
  std::fwrite(specimens ? "FXSPEC01" : bands ? "FXBAND01" : "FXLINE01", 1, 8, out);
  size_t written = 0, skipped = 0;
  for (size_t label = part.k; label < names.size(); label += part.n) {
    QVFontHandle font = nullptr;
    if (suite->FindFontByName(names[label].c_str(), &font) != kQVNoErr) {
      std::fprintf(stderr, "training-images: no installed font is named '%s'\n", names[label].c_str());
      ++skipped;
      continue;
    }
    if (specimens) {
      fontrix::Specimens s;
      if (fontrix::RenderSpecimens(fonts, font, s) != fontrix::kRenderOk) {
        std::fprintf(stderr, "training-images: no specimens of '%s'\n", names[label].c_str());
        ++skipped;
        continue;
      }
      Put32(out, int32_t(label));
      Put32(out, s.lower.width);
      Put32(out, s.upper.width);
      for (const fontrix::Specimen* sp : {&s.lower, &s.upper})
        std::fwrite(sp->pixels.data(), 1, size_t(kSide) * size_t(sp->width), out);
      ++written;
      continue;
    }
    // One generator per font, so a font's pictures do not depend on the --part split.
    std::mt19937 rng(seed * 2654435761u ^ uint32_t(label));
    for (int n = 0, tries = 0; n < per_font && tries < per_font * 3; ++tries) {
      GreyRaster picture;
      Band band;
      if (bands) {
        const bool in_tall = std::uniform_int_distribution<int>(0, 1)(rng) == 1;
        if (!LinePicture(fonts, font, LineText(words, rng), false, in_tall, rng, picture, band)) continue;
        WriteBandRecord(out, int32_t(label), picture, band, rng);
        ++n;
        ++written;
        continue;
      }
      if (!LinePicture(fonts, font, LineText(words, rng), clean, tall, rng, picture, band)) continue;
      const GreyRaster* whole = &picture;
      GreyRaster localised;
      if (!localisation.empty()) {
        const auto [first, last] = fontrix::LocaliseBand(localisation, picture);
        localised = Cut(picture, first, last);
        if (!tall) whole = &localised;
      }
      WriteLineCrops(out, int32_t(label), *whole);
      if (tall) {  // the same picture cut to its text band: what a perfect localisation would pass on
        WriteLineCrops(out, int32_t(label), Cut(picture, uint32_t(band.first), uint32_t(band.last)));
        ++written;
        if (!localisation.empty()) {
          WriteLineCrops(out, int32_t(label), localised);
          ++written;
        }
      }
      ++n;
      ++written;
    }
  }
  const bool ok = std::fflush(out) == 0 && !std::ferror(out);
  std::fclose(out);
  host.ReleaseSuite(kQVFontSuite, kQVFontSuiteVersion);
  host.Shutdown();
  if (!ok) throw std::runtime_error("writing " + out_path + " failed");
  std::fprintf(stderr, "training-images: %zu records written, %zu fonts skipped\n", written, skipped);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "training-images: %s\n", e.what());
    return 1;
  }
}
