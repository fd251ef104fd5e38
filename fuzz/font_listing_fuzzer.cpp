// Fuzz target for the host's font listing ("host_font_listing.txt" in the cache folder: what
// earlier runs read of each face). Any bytes must end in a listing, never a crash, and what the
// host writes of a listing it read must read back as the same listing.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "fuzz/fuzz_support.h"
#include "host/fontconfig_source.h"

namespace {

using namespace fontrix::host;

bool SameFont(const HostFont& a, const HostFont& b) {
  return a.file == b.file && a.face_index == b.face_index && a.unique_name == b.unique_name &&
         a.family == b.family && a.style == b.style && a.bitmap_only == b.bitmap_only && a.symbol == b.symbol &&
         a.usable == b.usable && a.outline_print == b.outline_print;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  const FontListing listing = ReadFontListing(in);

  for (const auto& [key, entry] : listing) {
    // The key is the file, a line break and the face index as written; a face read is that face.
    const size_t cut = key.rfind('\n');
    FUZZ_CHECK(cut != std::string::npos);
    if (entry.result) {
      FUZZ_CHECK(entry.result->file == key.substr(0, cut));
      FUZZ_CHECK(entry.result->face_index == std::stoi(key.substr(cut + 1)));
    }
  }

  std::ostringstream out;
  WriteFontListing(out, listing);
  std::istringstream again(out.str());
  const FontListing reread = ReadFontListing(again);
  FUZZ_CHECK(reread.size() == listing.size());
  for (const auto& [key, entry] : listing) {
    const auto it = reread.find(key);
    FUZZ_CHECK(it != reread.end());
    FUZZ_CHECK(it->second.stamp == entry.stamp);
    FUZZ_CHECK(it->second.result.has_value() == entry.result.has_value());
    if (entry.result) FUZZ_CHECK(SameFont(*it->second.result, *entry.result));
  }
  return 0;
}
