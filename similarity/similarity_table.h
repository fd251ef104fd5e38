#pragma once
// The similarity table and its files: the shipped pair of cloud fonts (read only), the cache
// pair of installed fonts (read and appended), and the network.
//
// Feature file: records of 768 little-endian floats, no header. Meta file: text, six lines per
// font: font-server identifier, two reserved fields, unique name, family, style. Record i of
// the feature file belongs to group i of the meta file.
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "deepnet/layer_model.h"

namespace fontrix {

constexpr uint32_t kFeatureDim = 768;
constexpr size_t kFeatureRecordBytes = kFeatureDim * sizeof(float);
/// The shipped pair holds exactly this many fonts; any other count rejects it.
constexpr int kShippedFontCount = 1864;
constexpr int kMetaLinesPerFont = 6;

/// Entry status, decided at load in this order: an all-zero vector is unusable; a cache entry
/// is an installed font; a shipped entry is classed by the length of its identifier only.
enum EntryStatus : uint32_t {
  kStatusIdentifier7 = 0,   ///< shipped, identifier of 7 characters (cloud library fonts)
  kStatusIdentifier12 = 1,  ///< shipped, identifier of 12 characters
  kStatusIdentifierOther = 2,
  kStatusInstalled = 3,  ///< read from the cache pair
  kStatusUnusable = 4,   ///< all-zero vector
};

/// Results of Load and ReadPair.
enum LoadResult : int { kLoadOk = 0, kLoadShippedFailed = 1, kLoadCacheFailed = 2, kLoadModelMissing = 3 };

struct SimilarityTable {
  uint32_t featureDim = kFeatureDim;
  /// The feature vectors, entry after entry, featureDim floats each: one block, so a query
  /// streams through them in order.
  std::vector<float> features;
  /// Meta fields 1 to 6, one list per field; entry i of every list belongs to feature i.
  std::array<std::vector<std::string>, kMetaLinesPerFont> columns;
  std::vector<uint32_t> status;
  std::vector<size_t> pending;  ///< entries computed since the last save
  std::string cacheMetaPath, cacheFeaturePath;
  deepnet::layer_model_list network;
  /// Why the last Load failed, as a sentence naming the file ("" after a success).
  std::string problem;

  size_t Size() const { return status.size(); }
  const float* Feature(size_t i) const { return features.data() + i * featureDim; }
  std::vector<float> FeatureVector(size_t i) const { return {Feature(i), Feature(i) + featureDim}; }
  void Clear();
  /// Loads the shipped pair, then the cache pair, then the model; stops at the first failure.
  /// Beyond the counts, a pair fails when a record holds a value that is not finite, a record
  /// that is not zero has a half (384 values) whose length is not 1, or (the cache) two entries
  /// share a name, every one of two or more records is zero, or an entry does not match its
  /// check sum (CacheSumsPath).
  int Load(const std::string& computedMeta, const std::string& computedFeature, const std::string& cachedMeta,
           const std::string& cachedFeature, const std::string& model);
  /// Loads one pair; a pair that fails adds nothing, and the entries of earlier pairs stay.
  int ReadPair(const std::string& metaPath, const std::string& featurePath, bool isCache);
  /// Appends the file's lines to the columns; the number of whole groups, or -1 when the file
  /// ends inside a group. A missing or empty file gives 0.
  static int ReadMeta(const std::string& path, std::array<std::vector<std::string>, kMetaLinesPerFont>& columns);
  /// Appends the pending entries to the cache pair and empties the list, leaving out names the
  /// files already hold (another process may have saved them since this one loaded); call it
  /// with the cache folder locked. A pair found inconsistent on disk (counts that disagree) is
  /// moved aside first ("*.damaged"). When either file cannot be written the list is kept.
  /// Returns what went wrong, as a sentence naming the file, or "".
  std::string Save();
  /// The problem with records [first, first + count), or "" (the checks Load describes).
  std::string CheckRecords(size_t first, size_t count, bool isCache) const;
  /// The problem with the entries from `first` on against the check sums file, or "".
  std::string CheckSums(size_t first, const std::string& sumsPath) const;
  /// Adds an entry computed on this machine and marks it pending.
  size_t AddInstalled(const std::vector<float>& feature, uint32_t entryStatus, const std::string& uniqueName);
};

/// The status a shipped entry gets from its identifier.
uint32_t ShippedStatus(const std::string& identifier);
bool IsAllZero(const std::vector<float>& feature);

/// After a crash in the middle of a save: cuts the cache pair back to the last entry whole in
/// both files (whole meta groups, whole feature records, the same count). Returns what it cut,
/// as a sentence for the log, or "" when the pair was whole (or absent).
std::string RepairCachePair(const std::string& metaPath, const std::string& featurePath);

/// Renames a damaged cache pair (and its check sums) to "*.damaged" (replacing older ones), so
/// the next load and save start afresh; returns the sentence to log.
std::string MoveCachePairAside(const std::string& metaPath, const std::string& featurePath);

/// The check sums of a cache pair: "NQ_sim_sums_sys.cch" beside its meta file, one line per
/// entry, the 16 hex digits of the FNV-1a hash of the entry's name, a zero byte and its record.
/// Every save rewrites it whole; a load checks each entry it has a line for, so an entry edited,
/// removed or moved between saves is found, while entries a save added before it was cut short
/// (and so without a line yet) stay.
std::string CacheSumsPath(const std::string& metaPath);
uint64_t EntrySum(const std::string& name, const float* record);
std::string SumText(uint64_t sum);  ///< 16 lower-case hex digits
/// Rewrites the check sums of the pair as the files hold it now; "" or what went wrong.
std::string WriteCacheSums(const std::string& metaPath, const std::string& featurePath);

}  // namespace fontrix
