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

bool IsAllZero(const std::vector<float>& feature) {
  if (feature.empty()) return true;
  const auto [lo, hi] = std::minmax_element(feature.begin(), feature.end());
  return *lo == 0.0f && *hi == 0.0f;
}

void SimilarityTable::Clear() {
  features.clear();
  for (auto& c : columns) c.clear();
  status.clear();
  pending.clear();
}

int SimilarityTable::ReadMeta(const std::string& path,
                              std::array<std::vector<std::string>, kMetaLinesPerFont>& columns) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return 0;
  size_t lines = 0;
  int groups = 0;
  for (std::string line; std::getline(in, line); ++lines) {
    // Files written on other systems may end lines with "\r\n"; the return is not part of a name.
    if (!line.empty() && line.back() == '\r') line.pop_back();
    columns[lines % kMetaLinesPerFont].push_back(std::move(line));
    if (lines % kMetaLinesPerFont == kMetaLinesPerFont - 1) ++groups;
  }
  return lines % kMetaLinesPerFont == 0 ? groups : -1;
}

int SimilarityTable::ReadPair(const std::string& metaPath, const std::string& featurePath, bool isCache) {
  const int failed = isCache ? kLoadCacheFailed : kLoadShippedFailed;
  if (metaPath.empty() || featurePath.empty()) return kLoadOk;
  const size_t before = Size();
  // A pair that fails leaves none of its lines or records behind: the similarity cache goes on
  // with the table after a failed load, and indexes every column by entry.
  auto fail = [&] {
    for (auto& column : columns) column.resize(before);
    features.resize(before * featureDim);
    status.resize(before);
    return failed;
  };
  size_t index = before;
  const int groups = ReadMeta(metaPath, columns);
  if (groups == -1) return fail();
  if (!isCache && groups != kShippedFontCount) return fail();
  std::ifstream in(featurePath, std::ios::binary);
  int records = 0;
  std::vector<float> record(featureDim);
  while (in) {
    in.read(reinterpret_cast<char*>(record.data()), std::streamsize(featureDim * sizeof(float)));
    const std::streamsize got = in.gcount();
    if (got == 0) break;
    if (got != std::streamsize(featureDim * sizeof(float))) return fail();
    // Little-endian floats on disk; this is a little-endian machine.
    features.insert(features.end(), record.begin(), record.end());
    uint32_t s = kStatusInstalled;
    if (IsAllZero(record))
      s = kStatusUnusable;
    else if (!isCache)
      s = ShippedStatus(index < columns[0].size() ? columns[0][index] : std::string());
    status.push_back(s);
    ++index;
    ++records;
  }
  return records == groups ? kLoadOk : fail();
}

std::string SimilarityTable::CheckRecords(size_t first, size_t count, bool isCache) const {
  constexpr size_t kHalf = kFeatureDim / 2;
  size_t zeros = 0;
  std::set<std::string> names;
  for (size_t i = first; i < first + count; ++i) {
    const float* v = Feature(i);
    const std::string& name = columns[3][i];
    if (status[i] == kStatusUnusable) {
      ++zeros;
    } else {
      for (size_t half = 0; half < 2; ++half) {
        double length = 0;
        for (size_t k = 0; k < kHalf; ++k) length += double(v[half * kHalf + k]) * v[half * kHalf + k];
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

std::string SimilarityTable::CheckSums(size_t first, const std::string& sumsPath) const {
  std::ifstream in(sumsPath);
  if (!in) return "";  // none written yet
  size_t i = first;
  for (std::string line; std::getline(in, line); ++i) {
    if (i >= Size()) return "its check sums list more entries than it holds";
    if (line != SumText(EntrySum(columns[3][i], Feature(i))))
      return "the entry of " + columns[3][i] + " does not match its check sum";
  }
  return "";
}

int SimilarityTable::Load(const std::string& computedMeta, const std::string& computedFeature,
                          const std::string& cachedMeta, const std::string& cachedFeature, const std::string& model) {
  featureDim = kFeatureDim;
  cacheMetaPath = cachedMeta;
  cacheFeaturePath = cachedFeature;
  problem.clear();
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
  if (int r = ReadPair(cachedMeta, cachedFeature, true); r != kLoadOk) {
    problem = cachedMeta + " and " + cachedFeature + " do not hold the same number of whole entries";
    return r;
  }
  std::string bad = CheckRecords(shipped, Size() - shipped, true);
  if (bad.empty() && !cachedMeta.empty()) bad = CheckSums(shipped, CacheSumsPath(cachedMeta));
  if (!bad.empty()) {
    problem = cachedFeature + ": " + bad;
    for (auto& column : columns) column.resize(shipped);  // as a pair that cannot be read: nothing of it stays
    features.resize(shipped * featureDim);
    status.resize(shipped);
    return kLoadCacheFailed;
  }
  std::ifstream file(model, std::ios::binary | std::ios::ate);
  if (!file || !fs::is_regular_file(model)) {
    problem = "the similarity model " + model + " is missing";
    return kLoadModelMissing;
  }
  const std::streamoff size = file.tellg();
  std::vector<uint8_t> buffer(size > 0 ? size_t(size) : 0);
  file.seekg(0);
  if (!buffer.empty() && !file.read(reinterpret_cast<char*>(buffer.data()), std::streamsize(buffer.size())))
    return kLoadModelMissing;
  network.clear();
  deepnet::deepnet_deserialize_layer_model(buffer.data(), buffer.data() + buffer.size(), network);
  return kLoadOk;
}

size_t SimilarityTable::AddInstalled(const std::vector<float>& feature, uint32_t entryStatus,
                                     const std::string& uniqueName) {
  status.push_back(entryStatus);
  features.insert(features.end(), feature.begin(), feature.end());
  features.resize(status.size() * featureDim, 0.0f);
  columns[3].push_back(uniqueName);
  columns[4].push_back("userFamily");
  columns[5].push_back("userSubFamily");
  for (int c = 0; c < 3; ++c) columns[size_t(c)].push_back("0");
  pending.push_back(Size() - 1);
  return Size() - 1;
}

std::string SimilarityTable::Save() {
  if (pending.empty()) return "";
  // What the files hold now: whole (a torn tail cut back), or moved aside when they disagree.
  RepairCachePair(cacheMetaPath, cacheFeaturePath);
  std::string said;
  std::array<std::vector<std::string>, kMetaLinesPerFont> onDisk;
  const int groups = ReadMeta(cacheMetaPath, onDisk);
  std::error_code ec;
  const uint64_t featureBytes = fs::exists(cacheFeaturePath, ec) ? fs::file_size(cacheFeaturePath, ec) : 0;
  std::set<std::string> saved(onDisk[3].begin(), onDisk[3].end());
  // Names twice: saves of two processes interleaved (before they shared a lock), so records and
  // names may no longer belong together.
  if (groups < 0 || featureBytes != uint64_t(groups) * kFeatureRecordBytes || saved.size() != onDisk[3].size()) {
    said = MoveCachePairAside(cacheMetaPath, cacheFeaturePath) + " (its files did not agree)";
    saved.clear();
  }

  std::ofstream meta(cacheMetaPath, std::ios::app | std::ios::binary);
  std::ofstream feature(cacheFeaturePath, std::ios::app | std::ios::binary);
  if (!meta || !feature)
    return "cannot write the similarity cache " + (meta ? cacheFeaturePath : cacheMetaPath) + ": " +
           std::strerror(errno) + "; installed fonts are computed again at every start";
  std::set<std::string> written;
  for (size_t i : pending) {
    if (saved.count(columns[3][i]) || !written.insert(columns[3][i]).second) continue;
    meta << "0\n0\n0\n" << columns[3][i] << '\n' << columns[4][i] << '\n' << columns[5][i] << '\n';
    feature.write(reinterpret_cast<const char*>(Feature(i)), std::streamsize(featureDim * sizeof(float)));
  }
  meta.flush();
  feature.flush();
  if (!meta || !feature)
    return "cannot write the similarity cache " + (meta ? cacheFeaturePath : cacheMetaPath) + ": " +
           std::strerror(errno) + "; what was written is cut back at the next start";
  meta.close();
  feature.close();
  pending.clear();
  const std::string sums = WriteCacheSums(cacheMetaPath, cacheFeaturePath);
  return said.empty() ? sums : said;
}

std::string CacheSumsPath(const std::string& metaPath) {
  const size_t slash = metaPath.rfind('/');
  return (slash == std::string::npos ? std::string() : metaPath.substr(0, slash + 1)) + "NQ_sim_sums_sys.cch";
}

uint64_t EntrySum(const std::string& name, const float* record) {
  uint64_t hash = 14695981039346656037ull;
  auto add = [&](const void* bytes, size_t n) {
    for (size_t k = 0; k < n; ++k) hash = (hash ^ static_cast<const uint8_t*>(bytes)[k]) * 1099511628211ull;
  };
  add(name.c_str(), name.size() + 1);
  add(record, kFeatureRecordBytes);
  return hash;
}

std::string SumText(uint64_t sum) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(sum));
  return text;
}

std::string WriteCacheSums(const std::string& metaPath, const std::string& featurePath) {
  std::array<std::vector<std::string>, kMetaLinesPerFont> columns;
  const int groups = SimilarityTable::ReadMeta(metaPath, columns);
  std::ifstream in(featurePath, std::ios::binary);
  const std::string path = CacheSumsPath(metaPath), temporary = path + ".tmp";
  std::ofstream out(temporary, std::ios::trunc);
  std::vector<float> record(kFeatureDim);
  for (int i = 0; i < groups && in.read(reinterpret_cast<char*>(record.data()), kFeatureRecordBytes); ++i)
    out << SumText(EntrySum(columns[3][size_t(i)], record.data())) << '\n';
  out.flush();
  if (!out || std::rename(temporary.c_str(), path.c_str()) != 0) {
    std::remove(temporary.c_str());
    return "cannot write the similarity cache's check sums " + path + ": " + std::strerror(errno);
  }
  return "";
}

std::string MoveCachePairAside(const std::string& metaPath, const std::string& featurePath) {
  std::error_code ec;
  for (const std::string& path : {metaPath, featurePath, CacheSumsPath(metaPath)})
    if (fs::exists(path, ec)) fs::rename(path, path + ".damaged", ec);
  return "the similarity cache " + metaPath + " and " + featurePath + " was moved aside to *.damaged";
}

std::string RepairCachePair(const std::string& metaPath, const std::string& featurePath) {
  std::error_code ec;
  if (!fs::exists(metaPath, ec) && !fs::exists(featurePath, ec)) return "";
  // Byte offset just past each complete line of the meta file.
  std::vector<uint64_t> line_ends;
  {
    std::ifstream in(metaPath, std::ios::binary);
    uint64_t offset = 0;
    for (std::string line; std::getline(in, line);) {
      offset += line.size();
      if (in.eof()) break;  // the last line has no line break: it is torn
      ++offset;
      line_ends.push_back(offset);
    }
  }
  const uint64_t meta_size = fs::exists(metaPath, ec) ? fs::file_size(metaPath, ec) : 0;
  const uint64_t feature_size = fs::exists(featurePath, ec) ? fs::file_size(featurePath, ec) : 0;
  const uint64_t groups = line_ends.size() / kMetaLinesPerFont;
  const uint64_t records = feature_size / kFeatureRecordBytes;
  const uint64_t keep = std::min(groups, records);
  const uint64_t meta_keep = keep ? line_ends[keep * kMetaLinesPerFont - 1] : 0;
  const uint64_t feature_keep = keep * kFeatureRecordBytes;
  if (meta_keep == meta_size && feature_keep == feature_size) return "";
  if (fs::exists(metaPath, ec)) fs::resize_file(metaPath, meta_keep, ec);
  if (!ec && fs::exists(featurePath, ec)) fs::resize_file(featurePath, feature_keep, ec);
  if (ec) return "Cache Repair failed: " + ec.message();
  return "Cache Repaired: kept " + std::to_string(keep) + " whole entries; meta cut from " + std::to_string(meta_size) +
         " to " + std::to_string(meta_keep) + " bytes, features from " + std::to_string(feature_size) + " to " +
         std::to_string(feature_keep) + " bytes";
}

}  // namespace fontrix
