// Fuzz target for "known_families.tsv", the hand-kept table of well-known non-open families: any
// bytes must end in a table or a KnownFamiliesFileError, never a crash, an out-of-bounds access
// or undefined behaviour; a table that reads must hold only what its reader promises (names,
// classes, numbers in range and ascending, one to three look-alikes) and every family must be
// found again, by its own name and by each alias, as itself.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "similarity/known_families.h"

namespace {

bool Ascending(const std::vector<int>& values, int low, int high) {
  for (size_t i = 0; i < values.size(); ++i)
    if (values[i] < low || values[i] > high || (i > 0 && values[i] <= values[i - 1])) return false;
  return !values.empty();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  std::vector<fontrix::KnownFamily> table;
  try {
    table = fontrix::ParseKnownFamilies(in, "fuzz");
  } catch (const fontrix::KnownFamiliesFileError&) {
    return 0;
  }
  FUZZ_CHECK(!table.empty());
  for (const fontrix::KnownFamily& known : table) {
    FUZZ_CHECK(!known.family.empty());
    FUZZ_CHECK(std::find_if(std::begin(fontrix::kKnownFamilyClasses), std::end(fontrix::kKnownFamilyClasses),
                            [&](const char* name) { return known.styleClass == name; }) !=
               std::end(fontrix::kKnownFamilyClasses));
    FUZZ_CHECK(Ascending(known.weights, 1, 1000));
    FUZZ_CHECK(Ascending(known.widths, 50, 200));
    FUZZ_CHECK(!known.lookAlikes.empty() && known.lookAlikes.size() <= 3);
    for (const auto& alike : known.lookAlikes) FUZZ_CHECK(!alike.family.empty());
    FUZZ_CHECK(fontrix::FindKnownFamily(table, known.family) == &known);
    for (const std::string& alias : known.aliases) {
      FUZZ_CHECK(!alias.empty());
      FUZZ_CHECK(fontrix::FindKnownFamily(table, alias) == &known);
    }
  }
  return 0;
}
