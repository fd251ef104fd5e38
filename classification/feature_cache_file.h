#pragma once
// "FontFeatureCache.json": the class bitmask of every font already classified, as a JSON array
// of {"name": ..., "featureValue": ...} objects.
#include <cstdint>
#include <istream>
#include <stdexcept>
#include <string>
#include <vector>

namespace fontrix {

struct FeatureRecord {
  std::string name;
  uint32_t value = 0;  ///< class bitmask
  bool operator<(const FeatureRecord& other) const { return name < other.name; }
};

/// A cache file whose content has the wrong shape (not an array, members missing or of the
/// wrong type).
class FeatureCacheParameterError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The class bits a record may hold: one per style class.
constexpr uint32_t kAllClassBits = 0xFF;

/// Appends the file's records, in the file's order. A missing file loads nothing and is no
/// error; a file that is not JSON loads nothing and returns false; one that cannot be read (a
/// folder in its place, an I/O error) or has a wrong shape (not an array of
/// objects, a name missing, a featureValue that is not a whole number of the class bits, a name
/// given twice) throws FeatureCacheParameterError.
bool LoadFeatureCache(const std::string& path, std::vector<FeatureRecord>& records);
/// The same from a stream already open.
bool ReadFeatureCache(std::istream& in, std::vector<FeatureRecord>& records);
/// Replaces the file with `records`, atomically: a temporary file in the same folder is written,
/// flushed and renamed, so a crash mid-save leaves the old file whole. Throws std::runtime_error.
void SaveFeatureCache(const std::string& path, const std::vector<FeatureRecord>& records);

}  // namespace fontrix
