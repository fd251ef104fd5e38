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

/// Appends the file's records. A file that cannot be opened or parsed loads nothing and is no
/// error; a wrong shape throws FeatureCacheParameterError.
void LoadFeatureCache(const std::string& path, std::vector<FeatureRecord>& records);
/// The same from a stream already open.
void ReadFeatureCache(std::istream& in, std::vector<FeatureRecord>& records);
/// Replaces the file with `records`, atomically: a temporary file in the same folder is written,
/// flushed and renamed, so a crash mid-save leaves the old file whole. Throws std::runtime_error.
void SaveFeatureCache(const std::string& path, const std::vector<FeatureRecord>& records);

}  // namespace fontrix
