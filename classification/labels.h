#pragma once
// The classification service's labels and constants. The order of the label table is part of the
// model: coefficient rows, intercepts and class bits follow it, so it is never sorted or extended
// in the middle.
#include <cstdint>
#include <string>

namespace fontrix {

constexpr int kLabelCount = 39;
constexpr int kFeatureCount = 96;  ///< features measured per font
constexpr int kStyleClassCount = 8;

/// The label of attribute number `n` (0..38): "fs_blackletter" ... "r_wide".
const char* LabelName(int n);

/// The eight style classes and their bits in the class bitmask, in table order.
struct ClassBit {
  int32_t attribute;
  uint32_t bit;
};
extern const ClassBit kClassBits[kStyleClassCount];

constexpr const char* kClassificationVersion = "1.0.0";
constexpr const char* kFeatureCacheFileName = "FontFeatureCache.json";
constexpr const char* kFeatureLogFileName = "FontFeatureLogs.txt";
constexpr const char* kFamilyLabelsFileName = "familyLabels.csv";
constexpr const char* kSpecimenWord = "Handgloves";

}  // namespace fontrix
