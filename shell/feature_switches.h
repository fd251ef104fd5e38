#pragma once
// The host's feature switches the module reads, each once per process.
#include <string>

namespace qv {

/// The host's feature manager: yes/no switches by key.
class FeatureManager {
 public:
  /// The host's answer for `key`; "no" when the host cannot answer.
  bool IsEnabled(const std::string& key) const;
};
const FeatureManager& GetFeatureManager();

}  // namespace qv

namespace fontrix {

constexpr const char* kClassificationSwitch = "Text/FontClassification";
constexpr const char* kSimilaritySwitch = "Text/FontSimilarity";
constexpr const char* kRecognitionSwitch = "TextDebug/FontRecognition";
constexpr const char* kDebugInfoSwitch = "TextDebug/DumpDebugInfo";

/// The service switches, each asked of the host on first use and then kept for the life of
/// the process.
bool ClassificationEnabled();
bool SimilarityEnabled();
bool RecognitionEnabled();

/// Forgets the kept answers, so a test can start the module again with other switches.
void ResetFeatureSwitchesForTesting();

}  // namespace fontrix
