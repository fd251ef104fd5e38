// Fuzz target for "FontFeatureCache.json" as the classification cache reads it: any bytes must
// end in records or a FeatureCacheParameterError (the JSON layer's own limits included), never a
// crash, an out-of-bounds access, undefined behaviour or unbounded recursion.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "classification/feature_cache_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  std::vector<fontrix::FeatureRecord> records;
  try {
    fontrix::ReadFeatureCache(in, records);
  } catch (const fontrix::FeatureCacheParameterError&) {
  }
  size_t total = 0;
  for (const auto& r : records) total += r.name.size() + r.value;
  volatile size_t sink = total;
  (void)sink;
  return 0;
}
