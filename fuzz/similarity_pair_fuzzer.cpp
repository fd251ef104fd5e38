// Fuzz target for the similarity pairs: a meta text file and a feature file of 768-float
// records, read as the cache pair ("NQ_sim_meta_sys.cch", "NQ_sim_fea_sys.cch": the torn-tail
// repair first, as the similarity cache loads it) or as the shipped pair ("NQ_sim_meta_fs.bin",
// "NQ_sim_fea_fs.bin", exactly 1,864 fonts). Any bytes must end in a table whose columns,
// statuses and vectors agree entry by entry, whatever the load's result: the similarity cache
// keeps and queries the table after a failed load.
//
// Input: a flags byte (bit 0: the shipped pair), the meta file's length (16 bits, little-endian),
// counts of whole generated groups and records put before the meta and feature bytes (16 bits
// each, below 2,048: enough to reach the shipped count), the meta bytes, the feature bytes.
#include <cmath>
#include <cstddef>
#include <cstdint>
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

// Record i: axis i % 768, or all zeros (an unusable font) for every third.
std::string GeneratedRecords(size_t n) {
  std::vector<float> values(n * kFeatureDim, 0.0f);
  for (size_t i = 0; i < n; ++i)
    if (i % 3) values[i * kFeatureDim + i % kFeatureDim] = 1.0f;
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::InputReader input(data, size);
  const bool shipped = input.Byte() & 1;
  const size_t metaLength = input.U16();
  const size_t groups = input.U16() % 2048, records = input.U16() % 2048;
  const std::string meta = GeneratedGroups(groups) + std::string(input.Bytes(metaLength));
  const std::string features = GeneratedRecords(records) + std::string(input.Rest());

  const std::string metaPath = ScratchPath(shipped ? "NQ_sim_meta_fs.bin" : "NQ_sim_meta_sys.cch");
  const std::string featurePath = ScratchPath(shipped ? "NQ_sim_fea_fs.bin" : "NQ_sim_fea_sys.cch");
  fuzz::WriteFile(metaPath, meta);
  fuzz::WriteFile(featurePath, features);

  bool repaired = true;
  if (!shipped) {
    const std::string cut = RepairCachePair(metaPath, featurePath);
    repaired = cut.rfind("Cache Repair failed", 0) != 0;
    // What the repair leaves is whole: a second pass finds nothing to cut.
    if (repaired) FUZZ_CHECK(RepairCachePair(metaPath, featurePath).empty());
  }

  SimilarityTable table;
  const int result = shipped ? table.Load(metaPath, featurePath, "", "", ModelPath())
                             : table.Load("", "", metaPath, featurePath, ModelPath());

  const size_t n = table.Size();
  FUZZ_CHECK(table.featureDim == kFeatureDim);
  FUZZ_CHECK(table.features.size() == n * kFeatureDim);
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
      FUZZ_CHECK(status == (shipped ? ShippedStatus(table.columns[0][i]) : kStatusInstalled));
  }
  if (shipped) {
    FUZZ_CHECK(result == kLoadOk || result == kLoadShippedFailed);
    FUZZ_CHECK(result == kLoadShippedFailed || n == size_t(kShippedFontCount));
  } else {
    // A repaired cache pair always reads.
    FUZZ_CHECK(result == kLoadOk || !repaired);
  }
  return 0;
}
