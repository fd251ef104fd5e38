// Fuzz target for the host's font listing ("host_font_listing.txt" in the cache folder: what
// earlier runs read of each face). Any bytes must end in a listing, never a crash, and what the
// host writes of a listing it read must read back as the same listing.
//
// Input: a flags byte, then the listing. With bit 0 set the target ends the listing with the end
// line of its sum, as the host writes it, so that mutated lines are still trusted and parsed to
// the end rather than dropped for a sum that no longer matches.
#include <cinttypes>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>

#include "fuzz/fuzz_support.h"
#include "host/fontconfig_source.h"

namespace {

using namespace fontrix::host;

bool SameFont(const HostFont& a, const HostFont& b) {
  return a.file == b.file && a.face_index == b.face_index && a.unique_name == b.unique_name && a.family == b.family &&
         a.style == b.style && a.bitmap_only == b.bitmap_only && a.symbol == b.symbol && a.usable == b.usable &&
         a.outline_print == b.outline_print && a.advances == b.advances;
}

// The end line the host writes after `body`: the FNV-1a sum of the lines before it.
std::string EndLine(const std::string& body) {
  uint64_t hash = 14695981039346656037ull;
  for (unsigned char c : body) hash = (hash ^ c) * 1099511628211ull;
  char line[32];
  std::snprintf(line, sizeof line, "end %016" PRIx64 "\n", hash);
  return line;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fontrix::fuzz::InputReader input(data, size);
  const bool sealed = input.Byte() & 1;
  std::string text(input.Rest());
  if (sealed) {
    if (!text.empty() && text.back() != '\n') text += '\n';
    text += EndLine(text);
  }
  std::istringstream in(text);
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
  // The target's end line is the host's: sealing what the host wrote gives it back unchanged.
  const std::string written = out.str();
  const size_t end = written.rfind("end ");
  FUZZ_CHECK(end != std::string::npos && written.substr(0, end) + EndLine(written.substr(0, end)) == written);
  std::istringstream again(written);
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
