#pragma once
// The style classes the feature suite answers. They are the feature cache's masks (the linear
// rows' classes, kept in "FontFeatureCache.json" and never changed here), joined with the class
// vote of classification/class_vote.h when the switch "Text/FontClassVote" and similarity are on: the
// vote needs the similarity cache's vectors of the fonts and of the shipped table's faces, so it
// lives above both caches. Joined masks are worked out on the first question after either cache
// changed and kept until the next change, and from one process to the next in
// "FontClassVotes.bin" (classification/kept_class_votes.h): a question votes only on the fonts
// whose linear classes or vector the file does not hold. Without the vote's data file, with a
// damaged one or one made for another table, or without similarity vectors, the answers are the
// linear classes alone, said once in the classification log; a file that is there but cannot be
// used is also the classification service's warning (a data folder without it, made for another
// table, is not).
// With the switch "Text/FontClassHead" on and rules for it in the vote's file, the class head
// (classification/class_head.h) reads each font's vector too, and its probabilities join the
// vote's support; without its file, or with one that cannot be used (a warning), they do not.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace fontrix {

class FontFeatureCache;

class ClassAnswers {
 public:
  /// On the host's main thread, with the classification cache's paths: finds the data file in the
  /// module's data folder and asks for the switch.
  static void SetUpPath();
  /// Reads the data file when the vote is switched on (the classification init task, after the
  /// feature cache exists, which reports a file that cannot be used).
  static void Load();
  /// The fonts of `cache` whose classes include style class `labelIndex`, in the cache's order.
  static std::vector<std::string> FontsWithLabel(const std::shared_ptr<FontFeatureCache>& cache, int32_t labelIndex);
  /// Writes the votes of the last question to the cache folder, when they differ from its file
  /// (shut-down, before the feature cache goes, which says a save that failed).
  static void Save();
  /// Forgets the data and the kept masks (shut-down).
  static void Terminate();
};

}  // namespace fontrix
