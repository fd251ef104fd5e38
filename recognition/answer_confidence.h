#pragma once
// How sure recognition is of each answer: a logistic model over what the module knows of an
// answer when it gives it (its score against the first answer's, whether it is first and by how
// much, how alike the picture is to the line drawn in the font and to the best-matching line),
// fitted on pictures of installed fonts the network never saw (training/fit_recognition_confidence.py)
// so that of answers given confidence c, about c of them are right. It lives in
// "recognition_confidence.tsv" in the module's data folder; without the file answers have no
// confidence.
#include <array>
#include <stdexcept>
#include <string>
#include <vector>

namespace fontrix {

constexpr const char* kConfidenceFileName = "recognition_confidence.tsv";

/// What the confidence of one answer is worked out from.
struct AnswerFacts {
  double score = 0, firstScore = 0, secondScore = 0;  // this answer's and the first two's
  bool first = false;
  double likeness = -1, bestLikeness = -1;  // -1: no line (or the lines are switched off)
  bool withKnown = false;                   // the answer was given over the known faces too, not installed fonts alone
  bool knownFace = false;                   // it is a known face that is not installed
  double otherKnownLikeness = -1;           // the best likeness of the other known faces answered; -1: none
};

/// The model's inputs, in the file's order: bias, score_ratio (log of score over the first
/// answer's), first (1 for the first answer), lead (log of the first score over the second, for
/// the first answer), likeness, likeness_gap (likeness less the best of the answers'); and for a
/// first answer that is a known face not installed: known_first (1) and known_lead (its
/// likeness less the best of the other known faces', at most 0.05). Thousands of known faces hold
/// near twins (one design under two names, a family and its mono or optical cut): a known face
/// only just ahead of another is far less likely right than one well ahead.
constexpr size_t kConfidenceInputCount = 8;
constexpr std::array<const char*, kConfidenceInputCount> kConfidenceInputs = {
    "bias", "score_ratio", "first", "lead", "likeness", "likeness_gap", "known_first", "known_lead"};
/// The inputs from this one on may be left out of a file (older modules' files): weight 0.
constexpr size_t kFirstOptionalInput = 6;
constexpr double kMostKnownLead = 0.05;
std::array<double, kConfidenceInputCount> ConfidenceInputs(const AnswerFacts& facts);

struct ConfidenceModel {
  /// Weights over kConfidenceInputs for answers with lines compared, and for answers without
  /// (the last two inputs then 0).
  std::array<double, kConfidenceInputCount> withLines{}, withoutLines{};
  /// The first answer's confidence from which the module is sure of it, with lines and without.
  double sureAtWithLines = 0.5, sureAtWithoutLines = 0.5;
  /// Answers given over the known faces as well (lines compared): fitted on their own, since a
  /// picture of a face that is not installed then has a right answer to give. Without it such
  /// answers use withLines.
  std::array<double, kConfidenceInputCount> withKnown{};
  double sureAtWithKnown = 0.5;
  bool hasKnown = false;
  bool loaded = false;

  /// The chance that the answer is right, 0..1; -1 when no model is loaded.
  double Confidence(const AnswerFacts& facts) const;
  /// The confidence from which a first answer with these facts is sure; -1 without a model.
  double SureAt(const AnswerFacts& facts) const;
};

struct ConfidenceFileError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Reads the file: lines "MODEL<TAB>input<TAB>weight" naming every input of a model once, and
/// "MODEL<TAB>sure_at<TAB>value", for the models with_lines and without_lines, and with_known
/// (optional, whole or not at all); the inputs from kFirstOptionalInput on may be left out (weight
/// 0); "#" lines are comments. Throws ConfidenceFileError naming the
/// file and line.
ConfidenceModel ReadConfidenceModel(const std::string& path);
/// Same, from text (the tests).
ConfidenceModel ParseConfidenceModel(const std::string& text, const std::string& name);

}  // namespace fontrix
