// Fuzz target for "FontRecognitionLines.bin", the lines the module keeps of installed fonts:
// any bytes must end in lines or an InstalledLinesFileError, never a crash, an out-of-bounds
// access or undefined behaviour; lines that read are named once each, all of one size, and unit
// vectors of values no less than 0, so that a picture's likeness with them stays within [0, 1].
// The fingerprint the seeds were written with is the first 8 bytes after the version.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>

#include "fuzz/fuzz_support.h"
#include "recognition/installed_lines.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  uint64_t fingerprint = 0;
  if (size >= 16) std::memcpy(&fingerprint, data + 8, sizeof fingerprint);
  std::vector<fontrix::InstalledLine> lines;
  try {
    // The same number names the network in either version, so seeds of both are read through.
    lines = fontrix::ParseInstalledLines(bytes, {fingerprint, [fingerprint] { return fingerprint; }});
  } catch (const fontrix::InstalledLinesFileError&) {
    return 0;
  }
  std::set<std::string> names;
  size_t values = 0;
  for (const auto& line : lines) {
    FUZZ_CHECK(!line.name.empty() && names.insert(line.name).second);
    if (line.features.empty()) continue;
    if (!values) values = line.features.size();
    FUZZ_CHECK(line.features.size() == values);
    double norm = 0;
    for (float v : line.features) {
      FUZZ_CHECK(std::isfinite(v) && v >= 0);
      norm += double(v) * v;
    }
    FUZZ_CHECK(std::fabs(norm - 1.0) <= 1e-3);
  }
  return 0;
}
