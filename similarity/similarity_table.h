#pragma once
// The similarity table and its files: the shipped pair of cloud fonts (read only), the cache
// pair of installed fonts (read and appended), and the network.
//
// Feature file: records of 768 little-endian floats, no header. Meta file: text, six lines per
// font (MetaField). Record i of the feature file belongs to group i of the meta file.
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "deepnet/layer_model.h"
#include "shell/file_bytes.h"

namespace fontrix {

constexpr uint32_t kFeatureDim = 768;
constexpr size_t kFeatureRecordBytes = kFeatureDim * sizeof(float);
/// The shipped pair holds exactly this many fonts; any other count rejects it.
constexpr int kShippedFontCount = 1864;
constexpr int kMetaLinesPerFont = 6;

/// The fields of a meta group, in file order; SimilarityTable::columns is indexed by them.
enum MetaField : size_t {
  kFieldServerId = 0,  ///< a library face's font-server identifier (its length gives the status); "0" here
  kFieldUnused = 1,    ///< written "0" by the cache, read by nothing
  kFieldOrigin = 2,    ///< "0" for an entry computed on the user's machine, never "0" in the shipped pair:
                       ///< an entry with "0" whose font is no longer installed is not offered
  kFieldName = 3,      ///< the unique name installed fonts are matched on
  kFieldFamily = 4,    ///< "userFamily" for entries made on the user's machine
  kFieldStyle = 5,     ///< "userSubFamily" for entries made on the user's machine
};

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

/// How a load may treat the cache pair. Only a process holding the cache folder's lock may
/// change the files; one that could not get it (another process is saving, or stopped while
/// saving) reads the entries that are whole and match their check sums, and writes nothing.
enum class CacheAccess { kWritable, kReadOnly };

struct SimilarityTable {
  uint32_t featureDim = kFeatureDim;
  /// The shipped pair's feature file, mapped: its first `mappedEntries` entries, never copied.
  MappedFile shippedFeatures;
  size_t mappedEntries = 0;
  /// The feature vectors of the entries after them, entry after entry, featureDim floats each:
  /// one block, so a query streams through them in order.
  std::vector<float> features;
  /// The meta fields, one list per MetaField; entry i of every list belongs to feature i.
  std::array<std::vector<std::string>, kMetaLinesPerFont> columns;
  std::vector<uint32_t> status;
  std::vector<size_t> pending;  ///< entries computed since the last save
  std::string cacheMetaPath, cacheFeaturePath;
  deepnet::layer_model_list network;
  /// Why the last Load failed, as a sentence naming the file ("" after a success).
  std::string problem;
  /// What the last Load left out of the cache pair without failing, as a sentence ("" when
  /// nothing): entries without a check sum, or (read only) entries another process is writing.
  std::string note;

  size_t Size() const { return status.size(); }
  const float* Feature(size_t i) const {
    return i < mappedEntries ? static_cast<const float*>(shippedFeatures.Data()) + i * featureDim
                             : features.data() + (i - mappedEntries) * featureDim;
  }
  std::vector<float> FeatureVector(size_t i) const { return {Feature(i), Feature(i) + featureDim}; }
  void Clear();
  /// Loads the shipped pair, then the cache pair, then the model; stops at the first failure.
  /// Beyond the counts, a pair fails when a record holds a value that is not finite, a record
  /// that is not zero has a half (384 values) whose length is not 1, or (the cache) two entries
  /// share a name, every one of two or more records is zero, or an entry does not match its
  /// check sum (CacheSumsPath). Cache entries that have no check sum (the sums file lost) could
  /// hold any font's vector under any name: they are left out, and with kWritable cut from the
  /// files, so that the update computes them again (`note` says how many).
  /// With kReadOnly the cache pair never fails: the entries that are whole and match their sums,
  /// from the first up to the first that does not, are loaded, and nothing is written.
  int Load(const std::string& computedMeta, const std::string& computedFeature, const std::string& cachedMeta,
           const std::string& cachedFeature, const std::string& model, CacheAccess access = CacheAccess::kWritable);
  /// Loads one pair; a pair that fails adds nothing, and the entries of earlier pairs stay.
  int ReadPair(const std::string& metaPath, const std::string& featurePath, bool isCache);
  /// Appends the file's lines to the columns; the number of whole groups, or -1 when the file
  /// ends inside a group. A missing or empty file gives 0.
  static int ReadMeta(const std::string& path, std::array<std::vector<std::string>, kMetaLinesPerFont>& columns);
  /// Appends the pending entries to the cache pair and empties the list, leaving out names the
  /// files already hold (another process may have saved them since this one loaded); call it
  /// with the cache folder locked. A pair found inconsistent on disk (counts that disagree, a
  /// name twice, an entry that does not match its sum) is moved aside first ("*.damaged");
  /// entries on disk without a sum are cut off. The sums of the entries to be appended are
  /// written (whole, renamed into place) before the entries themselves, so no entry is ever on
  /// disk without its sum. When a file cannot be written the list is kept.
  /// Returns what went wrong, as a sentence naming the file, or "".
  std::string Save();
  /// The problem with records [first, first + count), or "" (the checks Load describes).
  std::string CheckRecords(size_t first, size_t count, bool isCache) const;
  struct SumsCheck {
    size_t checked = 0;   ///< entries from `first` on that match their line of the sums file
    std::string problem;  ///< an entry whose line does not match it, or ""
  };
  /// The entries from `first` on against the check sums file `sumsPath`. Lines past the last
  /// entry are no fault: a save writes the sums before the entries it then appends.
  SumsCheck CheckSums(size_t first, const std::string& sumsPath) const;
  /// The read-only load of the cache pair (see Load).
  void LoadCacheReadOnly(const std::string& metaPath, const std::string& featurePath);
  /// Adds an entry computed on this machine and marks it pending.
  size_t AddInstalled(const std::vector<float>& feature, uint32_t entryStatus, const std::string& uniqueName);
};

/// The status a shipped entry gets from its identifier.
uint32_t ShippedStatus(const std::string& identifier);
bool IsAllZero(const float* values, size_t count);

/// After a crash in the middle of a save: cuts the cache pair back to the last entry whole in
/// both files (whole meta groups, whole feature records, the same count). Returns what it cut,
/// as a sentence for the log, or "" when the pair was whole (or absent). Call it only with the
/// cache folder locked: under a process that is saving it would cut entries being written.
std::string RepairCachePair(const std::string& metaPath, const std::string& featurePath);
/// Cuts the cache pair to its first `entries` entries (whole ones); "" or what went wrong.
std::string CutCachePair(const std::string& metaPath, const std::string& featurePath, uint64_t entries);
/// Removes the temporary file a save of the check sums leaves when it is killed before renaming it.
void RemoveStaleSumsFile(const std::string& metaPath);

/// Renames a damaged cache pair (and its check sums) to "*.damaged" (replacing older ones), so
/// the next load and save start afresh; returns the sentence to log.
std::string MoveCachePairAside(const std::string& metaPath, const std::string& featurePath);

/// The check sums of a cache pair: "NQ_sim_sums_sys.cch" beside its meta file, the header line
/// kCacheSumsHeader, then one line per entry, the 16 hex digits of the check sum
/// (shell/check_sum.h) of the entry's name, a zero byte and its record. A file without the header
/// (an older module's) holds no sums.
/// Every save rewrites it whole, before it appends the entries; a load checks every entry
/// against its line, so an entry edited, removed or moved between saves is found, and an entry
/// without a line is not trusted.
std::string CacheSumsPath(const std::string& metaPath);
constexpr const char* kCacheSumsHeader = "fontrix similarity sums 2";
uint64_t EntrySum(const std::string& name, const float* record);
std::string SumText(uint64_t sum);  ///< 16 lower-case hex digits

}  // namespace fontrix
