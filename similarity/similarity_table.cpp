#include "similarity/similarity_table.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include "deepnet/model_io.h"
#include "shell/check_sum.h"
#include "shell/file_bytes.h"

namespace fontrix {

namespace fs = std::filesystem;

uint32_t ShippedStatus(const std::string& identifier) {
  switch (identifier.size()) {
    case 7:
      return kStatusIdentifier7;
    case 12:
      return kStatusIdentifier12;
    default:
      return kStatusIdentifierOther;
  }
}

bool IsAllZero(const float* values, size_t count) {
  bool zero = true;
  for (size_t k = 0; k < count; ++k) zero &= values[k] == 0.0f;  // no early exit: it vectorises
  return zero;
}

void SimilarityTable::Clear() {
  features.clear();
  shippedFeatures.Unmap();
  mappedEntries = 0;
  for (auto& c : columns) c.clear();
  status.clear();
  pending.clear();
}

namespace {

// The lines of `bytes` as getline gives them: a last line without its line break is a line too.
// `whole` tells how many of them ended with one.
std::vector<std::string> SplitLines(const std::string& bytes, size_t* whole = nullptr) {
  std::vector<std::string> lines;
  size_t start = 0, ended = 0;
  while (start < bytes.size()) {
    const size_t end = bytes.find('\n', start);
    std::string line = bytes.substr(start, end == std::string::npos ? std::string::npos : end - start);
    // Files written on other systems may end lines with "\r\n"; the return is not part of a name.
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(std::move(line));
    if (end == std::string::npos) break;
    ++ended;
    start = end + 1;
  }
  if (whole) *whole = ended;
  return lines;
}

}  // namespace

int SimilarityTable::ReadMeta(const std::string& path,
                              std::array<std::vector<std::string>, kMetaLinesPerFont>& columns) {
  std::string bytes, why;
  const FileState state = ReadFileBytes(path, bytes, why);
  if (state == FileState::kMissing) return 0;
  if (state == FileState::kUnreadable) return -1;
  const std::vector<std::string> lines = SplitLines(bytes);
  for (size_t k = 0; k < lines.size(); ++k) columns[k % kMetaLinesPerFont].push_back(lines[k]);
  return lines.size() % kMetaLinesPerFont == 0 ? int(lines.size() / kMetaLinesPerFont) : -1;
}

namespace {

// Drops the entries from `keep` on: every column, status and vector.
void KeepEntries(SimilarityTable& table, size_t keep) {
  for (auto& column : table.columns) column.resize(keep);
  table.mappedEntries = std::min(table.mappedEntries, keep);
  if (table.mappedEntries == 0) table.shippedFeatures.Unmap();
  table.features.resize((keep - table.mappedEntries) * table.featureDim);
  table.status.resize(keep);
}

}  // namespace

int SimilarityTable::ReadPair(const std::string& metaPath, const std::string& featurePath, bool isCache) {
  const int failed = isCache ? kLoadCacheFailed : kLoadShippedFailed;
  if (metaPath.empty() || featurePath.empty()) return kLoadOk;
  const size_t before = Size();
  // A pair that fails leaves none of its lines or records behind: the similarity cache goes on
  // with the table after a failed load, and indexes every column by entry.
  auto fail = [&] {
    KeepEntries(*this, before);
    return failed;
  };
  size_t index = before;
  const int groups = ReadMeta(metaPath, columns);
  if (groups == -1) return fail();
  if (!isCache && groups != kShippedFontCount) return fail();
  std::string why;
  // Little-endian floats on disk; this is a little-endian machine. The shipped pair, first in
  // the table and read at every start, is mapped rather than copied.
  size_t values = 0;
  if (before == 0 && !isCache) {
    if (shippedFeatures.Map(featurePath, why) == FileState::kUnreadable || shippedFeatures.Size() % sizeof(float) != 0)
      return fail();
    values = shippedFeatures.Size() / sizeof(float);
    if (values % featureDim == 0) mappedEntries = values / featureDim;
  } else {
    features.resize((before - mappedEntries) * featureDim);
    if (AppendFileFloats(featurePath, features, why) == FileState::kUnreadable) return fail();
    values = features.size() - (before - mappedEntries) * featureDim;
  }
  const size_t records = values / featureDim;
  if (values % featureDim != 0 || records != size_t(groups)) return fail();
  status.reserve(before + records);
  for (size_t r = 0; r < records; ++r, ++index) {
    uint32_t s = kStatusInstalled;
    if (IsAllZero(Feature(index), featureDim))
      s = kStatusUnusable;
    else if (!isCache)
      s = ShippedStatus(index < columns[kFieldServerId].size() ? columns[kFieldServerId][index] : std::string());
    status.push_back(s);
  }
  return kLoadOk;
}

std::string SimilarityTable::CheckRecords(size_t first, size_t count, bool isCache) const {
  constexpr size_t kHalf = kFeatureDim / 2;
  static_assert(kHalf % 16 == 0, "the length is summed sixteen values at a time");
  size_t zeros = 0;
  std::set<std::string> names;
  for (size_t i = first; i < first + count; ++i) {
    const float* v = Feature(i);
    const std::string& name = columns[kFieldName][i];
    if (status[i] == kStatusUnusable) {
      ++zeros;
    } else {
      for (size_t half = 0; half < 2; ++half) {
        // Sixteen partial sums in single precision vectorise; their rounding (about 1e-6 of a
        // length near 1) is far inside the tolerance.
        float partial[16] = {};
        for (size_t k = 0; k < kHalf; k += 16)
          for (size_t j = 0; j < 16; ++j) partial[j] += v[half * kHalf + k + j] * v[half * kHalf + k + j];
        double length = 0;
        for (float p : partial) length += p;
        // A non-finite value makes the length non-finite, so this test catches it too.
        if (!(std::fabs(std::sqrt(length) - 1.0) < 1e-3))
          return "the vector of " + name + ", entry " + std::to_string(i - first + 1) +
                 ", is not two halves of length 1";
      }
    }
    if (isCache && !names.insert(name).second) return name + " is there twice";
  }
  if (isCache && count >= 2 && zeros == count) return "every vector is zero";
  return "";
}

SimilarityTable::SumsCheck SimilarityTable::CheckSums(size_t first, const std::string& sumsPath) const {
  SumsCheck check;
  std::string bytes, why;
  if (ReadFileBytes(sumsPath, bytes, why) != FileState::kRead) return check;  // none: nothing is checked
  size_t whole = 0;
  std::vector<std::string> lines = SplitLines(bytes, &whole);
  // Sums of an older module (another hash, no header) vouch for nothing: as if there were none.
  if (whole == 0 || lines.front() != kCacheSumsHeader) return check;
  lines.erase(lines.begin());
  --whole;
  for (size_t i = first; i < Size() && i - first < whole; ++i) {
    if (lines[i - first] != SumText(EntrySum(columns[kFieldName][i], Feature(i)))) {
      check.problem = "the entry of " + columns[kFieldName][i] + " does not match its check sum";
      return check;
    }
    ++check.checked;
  }
  return check;
}

void SimilarityTable::LoadCacheReadOnly(const std::string& metaPath, const std::string& featurePath) {
  const size_t before = Size();
  std::string meta, records, why;
  if (ReadFileBytes(metaPath, meta, why) != FileState::kRead ||
      ReadFileBytes(featurePath, records, why) != FileState::kRead)
    return;
  size_t whole = 0;
  const std::vector<std::string> lines = SplitLines(meta, &whole);
  const size_t entries = std::min(whole / kMetaLinesPerFont, records.size() / kFeatureRecordBytes);
  for (size_t i = 0; i < entries; ++i) {
    for (size_t c = 0; c < kMetaLinesPerFont; ++c) columns[c].push_back(lines[i * kMetaLinesPerFont + c]);
    const float* record = reinterpret_cast<const float*>(records.data() + i * kFeatureRecordBytes);
    features.insert(features.end(), record, record + featureDim);
    status.push_back(IsAllZero(record, featureDim) ? kStatusUnusable : kStatusInstalled);
  }
  const size_t checked = CheckSums(before, CacheSumsPath(metaPath)).checked;
  KeepEntries(*this, before + checked);
  if (!CheckRecords(before, checked, true).empty()) KeepEntries(*this, before);
  if (Size() - before < entries)
    note = "of the " + std::to_string(entries) + " entries of " + metaPath + ", " + std::to_string(Size() - before) +
           " are whole and match their check sums; only those were read";
}

int SimilarityTable::Load(const std::string& computedMeta, const std::string& computedFeature,
                          const std::string& cachedMeta, const std::string& cachedFeature, const std::string& model,
                          CacheAccess access) {
  featureDim = kFeatureDim;
  cacheMetaPath = cachedMeta;
  cacheFeaturePath = cachedFeature;
  problem.clear();
  note.clear();
  Clear();
  if (int r = ReadPair(computedMeta, computedFeature, false); r != kLoadOk) {
    problem = computedMeta + " and " + computedFeature + " do not hold " + std::to_string(kShippedFontCount) +
              " whole entries";
    return r;
  }
  if (std::string bad = CheckRecords(0, Size(), false); !bad.empty()) {
    problem = computedFeature + ": " + bad;
    Clear();
    return kLoadShippedFailed;
  }
  const size_t shipped = Size();
  if (access == CacheAccess::kReadOnly) {
    if (!cachedMeta.empty() && !cachedFeature.empty()) LoadCacheReadOnly(cachedMeta, cachedFeature);
  } else {
    if (int r = ReadPair(cachedMeta, cachedFeature, true); r != kLoadOk) {
      problem = cachedMeta + " and " + cachedFeature + " do not hold the same number of whole entries";
      return r;
    }
    std::string bad = CheckRecords(shipped, Size() - shipped, true);
    SumsCheck sums;
    if (bad.empty() && !cachedMeta.empty()) {
      sums = CheckSums(shipped, CacheSumsPath(cachedMeta));
      bad = sums.problem;
    }
    if (!bad.empty()) {
      problem = cachedFeature + ": " + bad;
      KeepEntries(*this, shipped);  // as a pair that cannot be read: nothing of it stays
      return kLoadCacheFailed;
    }
    if (const size_t unchecked = Size() - shipped - sums.checked; unchecked > 0) {
      KeepEntries(*this, shipped + sums.checked);
      const std::string cut = CutCachePair(cachedMeta, cachedFeature, sums.checked);
      note = std::to_string(unchecked) + " entries of the similarity cache " + cachedMeta + " had no check sum (" +
             CacheSumsPath(cachedMeta) + " lost or cut short): they are computed again" +
             (cut.empty() ? "" : "; " + cut);
    }
  }
  std::string bytes, why;
  switch (ReadFileBytes(model, bytes, why)) {
    case FileState::kMissing:
      problem = "the similarity model " + model + " is missing";
      return kLoadModelMissing;
    case FileState::kUnreadable:
      problem = "the similarity model cannot be used: " + why;
      return kLoadModelMissing;
    case FileState::kRead:
      break;
  }
  network.clear();
  const uint8_t* begin = reinterpret_cast<const uint8_t*>(bytes.data());
  deepnet::deepnet_deserialize_layer_model(begin, begin + bytes.size(), network);
  return kLoadOk;
}

size_t SimilarityTable::AddInstalled(const std::vector<float>& feature, uint32_t entryStatus,
                                     const std::string& uniqueName) {
  status.push_back(entryStatus);
  features.insert(features.end(), feature.begin(), feature.end());
  features.resize((status.size() - mappedEntries) * featureDim, 0.0f);
  columns[kFieldName].push_back(uniqueName);
  columns[kFieldFamily].push_back("userFamily");
  columns[kFieldStyle].push_back("userSubFamily");
  for (int c = 0; c < 3; ++c) columns[size_t(c)].push_back("0");
  pending.push_back(Size() - 1);
  return Size() - 1;
}

std::string SimilarityTable::Save() {
  if (pending.empty()) return "";
  const std::string sumsPath = CacheSumsPath(cacheMetaPath);
  RemoveStaleSumsFile(cacheMetaPath);
  // What the files hold now: whole (a torn tail cut back), then the entries that match their
  // sums; a pair that disagrees with itself or its sums is moved aside.
  RepairCachePair(cacheMetaPath, cacheFeaturePath);
  std::string said;
  SimilarityTable disk;
  disk.featureDim = featureDim;
  const int read = disk.ReadPair(cacheMetaPath, cacheFeaturePath, true);
  SumsCheck sums = disk.CheckSums(0, sumsPath);
  std::set<std::string> saved(disk.columns[kFieldName].begin(), disk.columns[kFieldName].end());
  // Names twice: saves of two processes interleaved (before they shared a lock), so records and
  // names may no longer belong together.
  if (read != kLoadOk || !sums.problem.empty() || saved.size() != disk.Size()) {
    said = MoveCachePairAside(cacheMetaPath, cacheFeaturePath) + " (its files did not agree)";
    KeepEntries(disk, 0);
    sums = {};
  } else if (sums.checked < disk.Size()) {
    if (std::string cut = CutCachePair(cacheMetaPath, cacheFeaturePath, sums.checked); !cut.empty()) return cut;
    KeepEntries(disk, sums.checked);
  }
  saved = std::set<std::string>(disk.columns[kFieldName].begin(), disk.columns[kFieldName].end());

  std::vector<size_t> append;
  std::set<std::string> written;
  for (size_t i : pending)
    if (!saved.count(columns[kFieldName][i]) && written.insert(columns[kFieldName][i]).second) append.push_back(i);

  // The sums first, whole and renamed into place: a save cut short after them leaves entries
  // that either match their lines or are torn and cut back.
  std::string text = std::string(kCacheSumsHeader) + "\n";
  for (size_t i = 0; i < disk.Size(); ++i)
    text += SumText(EntrySum(disk.columns[kFieldName][i], disk.Feature(i))) + "\n";
  for (size_t i : append) text += SumText(EntrySum(columns[kFieldName][i], Feature(i))) + "\n";
  const std::string temporary = sumsPath + ".tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out << text;
    out.flush();
    if (!out || std::rename(temporary.c_str(), sumsPath.c_str()) != 0) {
      const int cause = errno;
      std::remove(temporary.c_str());
      return "cannot write the similarity cache's check sums " + sumsPath + ": " + std::strerror(cause) +
             "; installed fonts are computed again at every start";
    }
  }

  std::ofstream meta(cacheMetaPath, std::ios::app | std::ios::binary);
  std::ofstream feature(cacheFeaturePath, std::ios::app | std::ios::binary);
  if (!meta || !feature)
    return "cannot write the similarity cache " + (meta ? cacheFeaturePath : cacheMetaPath) + ": " +
           std::strerror(errno) + "; installed fonts are computed again at every start";
  for (size_t i : append) {
    meta << "0\n0\n0\n"
         << columns[kFieldName][i] << '\n'
         << columns[kFieldFamily][i] << '\n'
         << columns[kFieldStyle][i] << '\n';
    feature.write(reinterpret_cast<const char*>(Feature(i)), std::streamsize(featureDim * sizeof(float)));
  }
  meta.flush();
  feature.flush();
  if (!meta || !feature)
    return "cannot write the similarity cache " + (meta ? cacheFeaturePath : cacheMetaPath) + ": " +
           std::strerror(errno) + "; what was written is cut back at the next start";
  pending.clear();
  return said;
}

std::string CacheSumsPath(const std::string& metaPath) {
  const size_t slash = metaPath.rfind('/');
  return (slash == std::string::npos ? std::string() : metaPath.substr(0, slash + 1)) + "NQ_sim_sums_sys.cch";
}

uint64_t EntrySum(const std::string& name, const float* record) {
  return CheckSum(record, kFeatureRecordBytes, CheckSum(name.c_str(), name.size() + 1));
}

std::string SumText(uint64_t sum) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(sum));
  return text;
}

void RemoveStaleSumsFile(const std::string& metaPath) {
  std::error_code ec;
  fs::remove(CacheSumsPath(metaPath) + ".tmp", ec);
}

std::string MoveCachePairAside(const std::string& metaPath, const std::string& featurePath) {
  std::error_code ec;
  for (const std::string& path : {metaPath, featurePath, CacheSumsPath(metaPath)})
    if (fs::exists(path, ec)) fs::rename(path, path + ".damaged", ec);
  return "the similarity cache " + metaPath + " and " + featurePath + " was moved aside to *.damaged";
}

namespace {

// Byte offset just past each line of the meta file that ends with a line break.
std::vector<uint64_t> LineEnds(const std::string& metaPath) {
  std::string bytes, why;
  std::vector<uint64_t> ends;
  if (ReadFileBytes(metaPath, bytes, why) != FileState::kRead) return ends;
  for (size_t at = bytes.find('\n'); at != std::string::npos; at = bytes.find('\n', at + 1)) ends.push_back(at + 1);
  return ends;
}

uint64_t FileSize(const std::string& path) {
  std::error_code ec;
  const uint64_t size = fs::is_regular_file(path, ec) ? fs::file_size(path, ec) : 0;
  return ec ? 0 : size;
}

// Cuts both files to `entries` whole entries, given the meta file's line ends.
std::string Cut(const std::string& metaPath, const std::string& featurePath, const std::vector<uint64_t>& lineEnds,
                uint64_t entries, uint64_t& metaKeep, uint64_t& featureKeep) {
  metaKeep = entries ? lineEnds[entries * kMetaLinesPerFont - 1] : 0;
  featureKeep = entries * kFeatureRecordBytes;
  std::error_code ec;
  if (fs::is_regular_file(metaPath, ec) && FileSize(metaPath) != metaKeep) fs::resize_file(metaPath, metaKeep, ec);
  if (!ec && fs::is_regular_file(featurePath, ec) && FileSize(featurePath) != featureKeep)
    fs::resize_file(featurePath, featureKeep, ec);
  return ec ? "Cache Repair failed: " + ec.message() : "";
}

}  // namespace

std::string RepairCachePair(const std::string& metaPath, const std::string& featurePath) {
  std::error_code ec;
  if (!fs::exists(metaPath, ec) && !fs::exists(featurePath, ec)) return "";
  const std::vector<uint64_t> lineEnds = LineEnds(metaPath);
  const uint64_t metaSize = FileSize(metaPath), featureSize = FileSize(featurePath);
  const uint64_t keep = std::min<uint64_t>(lineEnds.size() / kMetaLinesPerFont, featureSize / kFeatureRecordBytes);
  uint64_t metaKeep = 0, featureKeep = 0;
  if ((keep ? lineEnds[keep * kMetaLinesPerFont - 1] : 0) == metaSize && keep * kFeatureRecordBytes == featureSize)
    return "";
  if (std::string failed = Cut(metaPath, featurePath, lineEnds, keep, metaKeep, featureKeep); !failed.empty())
    return failed;
  return "Cache Repaired: kept " + std::to_string(keep) + " whole entries; meta cut from " + std::to_string(metaSize) +
         " to " + std::to_string(metaKeep) + " bytes, features from " + std::to_string(featureSize) + " to " +
         std::to_string(featureKeep) + " bytes";
}

std::string CutCachePair(const std::string& metaPath, const std::string& featurePath, uint64_t entries) {
  const std::vector<uint64_t> lineEnds = LineEnds(metaPath);
  if (lineEnds.size() < entries * kMetaLinesPerFont || FileSize(featurePath) < entries * kFeatureRecordBytes)
    return "Cache Repair failed: the cache holds fewer than " + std::to_string(entries) + " entries";
  uint64_t metaKeep = 0, featureKeep = 0;
  return Cut(metaPath, featurePath, lineEnds, entries, metaKeep, featureKeep);
}

}  // namespace fontrix
