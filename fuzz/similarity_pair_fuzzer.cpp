// Fuzz target for the similarity pairs: a meta text file and a feature file of 768-float
// records, read as the cache pair ("NQ_sim_meta_sys.cch", "NQ_sim_fea_sys.cch", with its check
// sums "NQ_sim_sums_sys.cch"; the torn-tail repair first, as the similarity cache loads it) or
// as the shipped pair ("NQ_sim_meta_fs.bin", "NQ_sim_fea_fs.bin", exactly 1,864 fonts). Any
// bytes must end in a table whose columns, statuses and vectors agree entry by entry, whatever
// the load's result (the similarity cache keeps and queries the table after a failed load); a
// repaired pair must hold as many whole groups as whole records; and check sums written for a
// cache pair that loads must let it load again.
//
// Input: a flags byte (bit 0: the shipped pair; bit 1: a check sums file), the lengths of the
// meta and check sums files (16 bits each, little-endian), counts of whole generated groups and
// records put before the meta and feature bytes (16 bits each, below 2,048: enough to reach the
// shipped count), the meta bytes, the check sums bytes, the feature bytes.
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "deepnet/layers/data.h"
#include "deepnet/model_io.h"
#include "fuzz/fuzz_support.h"
#include "similarity/similarity_table.h"

namespace {

using namespace fontrix;
using fontrix::fuzz::ScratchPath;

// A model the table's loader reads once both pairs are in: one data layer.
const std::string& ModelPath() {
  static const std::string path = [] {
    const std::string p = ScratchPath("NQ_sim_model.dnm");
    deepnet::layer_model_list model{std::make_shared<deepnet::layer_model_data>()};
    model.back()->name = "data";
    deepnet::deepnet_save_model(p, model);
    return p;
  }();
  return path;
}

std::string GeneratedGroups(size_t n) {
  std::string text;
  for (size_t i = 0; i < n; ++i)
    text += (i % 2 ? "c" + std::to_string(1000000 + i) : std::string("0")) + "\n0\n1\nFont" + std::to_string(i) +
            "\nFamily\nRegular\n";
  return text;
}

// Record i: axis i % 384 in each half (unit halves, as the loader requires), or all zeros (an
// unusable font) for every third.
std::string GeneratedRecords(size_t n) {
  std::vector<float> values(n * kFeatureDim, 0.0f);
  for (size_t i = 0; i < n; ++i)
    if (i % 3) {
      values[i * kFeatureDim + i % (kFeatureDim / 2)] = 1.0f;
      values[i * kFeatureDim + kFeatureDim / 2 + i % (kFeatureDim / 2)] = 1.0f;
    }
  return std::string(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(float));
}

bool AllZero(const float* v) {
  for (uint32_t k = 0; k < kFeatureDim; ++k)
    if (v[k] != 0.0f) return false;
  return true;
}

bool AllFinite(const float* v) {
  for (uint32_t k = 0; k < kFeatureDim; ++k)
    if (!std::isfinite(v[k])) return false;
  return true;
}

// Every column, the statuses and the vectors hold one value per entry, and each status follows
// its vector (and for the shipped pair its identifier).
void CheckWhole(const SimilarityTable& table, bool shipped) {
  const size_t n = table.Size();
  FUZZ_CHECK(table.featureDim == kFeatureDim);
  FUZZ_CHECK(table.mappedEntries <= n && table.mappedEntries * kFeatureDim <= table.shippedFeatures.Size() / 4);
  FUZZ_CHECK(table.features.size() == (n - table.mappedEntries) * kFeatureDim);
  for (const auto& column : table.columns) FUZZ_CHECK(column.size() == n);
  FUZZ_CHECK(table.pending.empty());
  for (size_t i = 0; i < n; ++i) {
    const uint32_t status = table.status[i];
    // The status rule is for finite vectors; what a value that is not a number makes of an
    // entry is the validation's business, not this check's.
    if (!AllFinite(table.Feature(i))) continue;
    if (AllZero(table.Feature(i)))
      FUZZ_CHECK(status == kStatusUnusable);
    else
      FUZZ_CHECK(status == (shipped ? ShippedStatus(table.columns[kFieldServerId][i]) : kStatusInstalled));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::InputReader input(data, size);
  const uint8_t flags = input.Byte();
  const bool shipped = flags & 1, withSums = flags & 2;
  const size_t metaLength = input.U16(), sumsLength = input.U16();
  const size_t groups = input.U16() % 2048, records = input.U16() % 2048;
  const std::string meta = GeneratedGroups(groups) + std::string(input.Bytes(metaLength));
  const std::string sums(input.Bytes(sumsLength));
  const std::string features = GeneratedRecords(records) + std::string(input.Rest());

  const std::string metaPath = ScratchPath(shipped ? "NQ_sim_meta_fs.bin" : "NQ_sim_meta_sys.cch");
  const std::string featurePath = ScratchPath(shipped ? "NQ_sim_fea_fs.bin" : "NQ_sim_fea_sys.cch");
  fuzz::WriteFile(metaPath, meta);
  fuzz::WriteFile(featurePath, features);
  const std::string sumsPath = CacheSumsPath(ScratchPath("NQ_sim_meta_sys.cch"));
  if (withSums)
    fuzz::WriteFile(sumsPath, sums);
  else
    std::remove(sumsPath.c_str());

  if (!shipped) {
    const std::string cut = RepairCachePair(metaPath, featurePath);
    if (cut.rfind("Cache Repair failed", 0) != 0) {
      // What the repair leaves is whole: as many groups as records, and nothing more to cut.
      std::array<std::vector<std::string>, kMetaLinesPerFont> columns;
      const int whole = SimilarityTable::ReadMeta(metaPath, columns);
      std::error_code ec;
      FUZZ_CHECK(whole >= 0 && std::filesystem::file_size(featurePath, ec) == uint64_t(whole) * kFeatureRecordBytes);
      FUZZ_CHECK(RepairCachePair(metaPath, featurePath).empty());
    }
  }

  SimilarityTable table;
  auto load = [&] {
    return shipped ? table.Load(metaPath, featurePath, "", "", ModelPath())
                   : table.Load("", "", metaPath, featurePath, ModelPath());
  };
  const int result = load();
  CheckWhole(table, shipped);
  FUZZ_CHECK(result == kLoadOk || !table.problem.empty());
  if (shipped) {
    FUZZ_CHECK(result == kLoadOk || result == kLoadShippedFailed);
    FUZZ_CHECK(result == kLoadShippedFailed || table.Size() == size_t(kShippedFontCount));
  } else if (result == kLoadOk) {
    // A load that kept the pair left on disk exactly what it kept: the next load, and one that
    // may not write, find the same entries.
    const size_t entries = table.Size();
    FUZZ_CHECK(load() == kLoadOk && table.Size() == entries && table.note.empty());
    SimilarityTable reader;
    FUZZ_CHECK(reader.Load("", "", metaPath, featurePath, ModelPath(), CacheAccess::kReadOnly) == kLoadOk);
    FUZZ_CHECK(reader.Size() == entries);
    CheckWhole(table, shipped);
  }
  return 0;
}
