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
/// Ours, beside the host's: the style classes the feature suite answers join the linear rows'
/// classes with a vote of the font's look-alikes in the shipped similarity table (off: the
/// linear rows' classes alone, as the feature cache holds them).
constexpr const char* kClassVoteSwitch = "Text/FontClassVote";
/// Ours: the vote's rules also take the class head's probabilities from the font's similarity
/// vector (off: the linear rows and the vote alone, as before the head).
constexpr const char* kClassHeadSwitch = "Text/FontClassHead";
/// Recognition reads only the largest line of a picture of several (off: the largest few,
/// their scores combined). Read when the recognition cache loads.
constexpr const char* kRecognitionLargestLineSwitch = "Text/FontRecognitionLargestLine";
/// Ours: recognition also compares a picture with a line drawn in each installed font, so that
/// fonts the network has no class for can be answered (off: the network's answer alone). Read
/// when the recognition cache loads.
constexpr const char* kRecognitionInstalledLinesSwitch = "Text/FontRecognitionInstalledLines";
/// Ours: of two width cuts of one family among the first answers, the one whose letters are as
/// wide for their height as the picture's goes first (off: the network's order). Read when the
/// recognition cache loads.
constexpr const char* kRecognitionWidthCutsSwitch = "Text/FontRecognitionWidthCuts";

/// The service switches, each asked of the host on first use and then kept for the life of
/// the process.
bool ClassificationEnabled();
bool SimilarityEnabled();
bool RecognitionEnabled();
bool ClassVoteEnabled();
bool ClassHeadEnabled();

/// Forgets the kept answers, so a test can start the module again with other switches.
void ResetFeatureSwitchesForTesting();

}  // namespace fontrix
