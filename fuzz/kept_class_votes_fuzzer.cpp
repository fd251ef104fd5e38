// Fuzz target for "FontClassVotes.bin", the joined classes the module keeps of the fonts: any
// bytes must end in votes or a KeptClassVotesError, never a crash, an out-of-bounds access or
// undefined behaviour; votes that read are named once each with masks of class bits only, and
// written again they read back the same. The identity the seeds were written for is the 8 bytes
// after the version.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>

#include "classification/kept_class_votes.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  uint64_t identity = 0;
  if (size >= 16) std::memcpy(&identity, data + 8, sizeof identity);
  fontrix::KeptClassVotes kept;
  try {
    kept = fontrix::ParseKeptClassVotes(bytes, identity);
  } catch (const fontrix::KeptClassVotesError&) {
    return 0;
  }
  FUZZ_CHECK(kept.source != fontrix::KeptClassVotes::kNoFile);
  FUZZ_CHECK(kept.source == fontrix::KeptClassVotes::kFile || kept.votes.empty());
  std::set<std::string> names;
  for (const auto& vote : kept.votes) {
    FUZZ_CHECK(!vote.name.empty() && names.insert(vote.name).second);
    FUZZ_CHECK(vote.joined <= 0xFF);
  }
  if (kept.source == fontrix::KeptClassVotes::kFile) {
    const std::string again = fontrix::KeptClassVotesBytes(identity, kept.votes);
    FUZZ_CHECK(again == bytes);
    FUZZ_CHECK(fontrix::ParseKeptClassVotes(again, identity).votes == kept.votes);
  }
  return 0;
}
