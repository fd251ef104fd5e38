// Fuzz target for image files: PNG and JPEG decoding into grey. Any input must end in an image
// or a std::runtime_error, never a crash, an out-of-bounds access, a leak or a huge allocation.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "host/image.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<uint8_t> buffer(data, data + size);  // exact-size heap copy so ASan sees its end
  try {
    // A megapixel keeps decoding within the fuzzer's time and memory limits.
    const auto image =
        fontrix::host::LoadImageRasterFromMemory(buffer.data(), buffer.size(), "fuzz input", uint64_t{1} << 20);
    // Read every pixel: a raster shorter than its size claims shows under AddressSanitizer.
    unsigned sum = 0;
    for (int32_t y = 0; y < image->height(); ++y)
      for (int32_t x = 0; x < image->width(); ++x) sum += image->row(y)[x];
    volatile unsigned sink = sum;
    (void)sink;
  } catch (const std::runtime_error&) {
  }
  return 0;
}
