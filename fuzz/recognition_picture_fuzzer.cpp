// Fuzz target for recognition after a picture is decoded: any grey picture through the
// recognition cache with the shipped networks and font table (data/NQ_loc_model.dnm,
// NQ_rec_model.dnm, NQ_rec_font.bin, loaded once per process): the lines found by their ink and
// cut out, the localisation network's band of each, brought to 109 rows, resampled at both
// scales, tiled, cropped and scored.
// Any picture must end in an answer or a std::runtime_error (the suite turns one into a failed
// call), never a crash or a sanitizer report.
//
// Input: width and height (16 bits each, little-endian; at most 4,096 x 512, which the image
// loader's limits cover several times over), then the pixels, repeated to fill the picture
// (white when there are none).
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "deepnet/parallel.h"
#include "fuzz/fuzz_support.h"
#include "recognition/font_recognition_cache.h"

#ifndef FONTRIX_SOURCE_DATA_DIR
#error "FONTRIX_SOURCE_DATA_DIR names the data folder with the shipped networks"
#endif

namespace {

using namespace fontrix;

constexpr int32_t kMaxWidth = 4096, kMaxHeight = 512;

std::shared_ptr<FontRecognitionCache> LoadedCache() {
  // One engine thread: fuzzing runs niced beside other work.
  deepnet::deepnet_set_num_threads(1);
  const std::string data = FONTRIX_SOURCE_DATA_DIR;
  auto cache = FontRecognitionCache::GetOrCreate();
  FUZZ_CHECK(
      cache->Load({data + "/NQ_rec_model.dnm", data + "/NQ_rec_font.bin", data + "/NQ_loc_model.dnm", "", "", "", ""}));
  return cache;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::shared_ptr<FontRecognitionCache> cache = LoadedCache();
  fuzz::InputReader input(data, size);
  const int32_t width = input.U16() % (kMaxWidth + 1), height = input.U16() % (kMaxHeight + 1);
  const std::string_view bytes = input.Rest();
  std::vector<uint8_t> pixels(size_t(width) * size_t(height), 255);
  if (!bytes.empty())
    for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = uint8_t(bytes[i % bytes.size()]);
  try {
    const auto results = cache->GetRecognizedFontList(pixels.data(), width, height);
    // No font is installed: nothing can steer the similar-font query, so nothing is named.
    FUZZ_CHECK(results.empty());
  } catch (const std::runtime_error&) {
  }
  return 0;
}
