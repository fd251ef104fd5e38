// How sure recognition is of an answer: the model file and what the model makes of an answer.
#include "recognition/answer_confidence.h"

#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <string>

namespace fontrix {
namespace {

std::string ModelText(const std::string& extra = "") {
  std::string text = "# a comment\r\n";
  for (const char* model : {"with_lines", "without_lines"}) {
    for (const char* input : kConfidenceInputs)
      text += std::string(model) + "\t" + input + "\t" + (std::string(input) == "score_ratio" ? "20" : "1") + "\n";
    text += std::string(model) + "\tsure_at\t0.6\n";
  }
  return text + extra;
}

TEST(AnswerConfidence, TheShippedFileReadsAndEveryDamageIsNamed) {
  const ConfidenceModel shipped = ReadConfidenceModel("data/" + std::string(kConfidenceFileName));
  EXPECT_TRUE(shipped.loaded);
  EXPECT_GT(shipped.sureAtWithLines, 0.0);
  EXPECT_THROW(ReadConfidenceModel("data/absent.tsv"), ConfidenceFileError);
  EXPECT_TRUE(ParseConfidenceModel(ModelText(), "m").loaded);
  const std::string good = ModelText();
  for (const auto& [bad, why] : std::vector<std::pair<std::string, std::string>>{
           {ModelText("with_lines\tbias\t2\n"), "line 20: bias given twice"},
           {ModelText("with_lines\tsure_at\t0.7\n"), "sure_at given twice"},
           {ModelText("sure_at\t0.5\n"), "line 20: not"},
           {good.substr(0, good.find("without_lines\tlikeness_gap")), "not all given"},
           {good.substr(0, good.rfind("without_lines\tsure_at")), "not all given"},
           {std::string(good).replace(good.find("\t20\n"), 4, "\tnan\n"), "'nan' is not a number"},
           {std::string(good).replace(good.find("\t20\n"), 4, "\t20x\n"), "'20x' is not a number"},
           {std::string(good).replace(good.find("\t0.6\n"), 5, "\t1.5\n"), "not between 0 and 1"},
           {std::string(good).replace(good.find("likeness_gap"), 12, "likeness_gab"), "no input is called"},
           {"", "not all given"}}) {
    try {
      ParseConfidenceModel(bad, "m.tsv");
      ADD_FAILURE() << why;
    } catch (const ConfidenceFileError& e) {
      EXPECT_NE(std::string(e.what()).find(why), std::string::npos) << e.what();
      EXPECT_EQ(std::string(e.what()).rfind("m.tsv", 0), 0u) << e.what();
    }
  }
}

// A file of an older module, without the inputs for known faces, reads: they weigh nothing. Any
// other input left out is damage.
TEST(AnswerConfidence, FilesWithoutTheOptionalInputsRead) {
  std::string older;
  std::istringstream in(ModelText());
  for (std::string line; std::getline(in, line);)
    if (line.find("known_") == std::string::npos) older += line + "\n";
  const ConfidenceModel model = ParseConfidenceModel(older, "m");
  EXPECT_TRUE(model.loaded);
  EXPECT_EQ(model.withLines[kFirstOptionalInput], 0.0);
  const std::string without =
      older.substr(0, older.find("with_lines\tlikeness_gap")) + older.substr(older.find("with_lines\tsure_at"));
  EXPECT_THROW(ParseConfidenceModel(without, "m"), ConfidenceFileError);
}

// A first answer that is a known face not installed says how far its line is ahead of the other
// known faces' (at most kMostKnownLead); every other answer says nothing of it.
TEST(AnswerConfidence, AKnownFaceFirstSaysHowFarAheadOfTheOtherKnownFacesItIs) {
  AnswerFacts facts{0.5, 0.5, 0.25, true, 0.9, 0.9};
  facts.withKnown = facts.knownFace = true;
  facts.otherKnownLikeness = 0.897;
  auto x = ConfidenceInputs(facts);
  EXPECT_EQ(x[kFirstOptionalInput], 1.0);
  EXPECT_NEAR(x[kFirstOptionalInput + 1], 0.003, 1e-12);
  facts.otherKnownLikeness = 0.5;  // far behind: as far as counts
  EXPECT_EQ(ConfidenceInputs(facts)[kFirstOptionalInput + 1], kMostKnownLead);
  facts.otherKnownLikeness = -1;  // no other known face
  EXPECT_EQ(ConfidenceInputs(facts)[kFirstOptionalInput + 1], kMostKnownLead);
  facts.first = false;
  x = ConfidenceInputs(facts);
  EXPECT_EQ(x[kFirstOptionalInput], 0.0);
  EXPECT_EQ(x[kFirstOptionalInput + 1], 0.0);
  facts.first = true;
  facts.knownFace = false;  // an installed answer first
  EXPECT_EQ(ConfidenceInputs(facts)[kFirstOptionalInput], 0.0);
}

// The model picks its weights by whether the answer has a line, and a first answer far ahead of
// the rest with the best-matching line is likelier right than one that trails.
TEST(AnswerConfidence, AnswersAreRatedByTheirModel) {
  ConfidenceModel model = ParseConfidenceModel(ModelText(), "m");
  model.withoutLines = {-1, 0, 0, 0, 0, 0};  // without lines: a flat 27 %
  model.sureAtWithoutLines = 0.3;
  AnswerFacts first{0.5, 0.5, 0.25, true, 0.9, 0.9};
  AnswerFacts trailing{0.25, 0.5, 0.25, false, 0.8, 0.9};
  const double a = model.Confidence(first), b = model.Confidence(trailing);
  EXPECT_GT(a, 0.95);
  EXPECT_LT(b, 0.01);
  first.likeness = -1;  // no line: the other model and its mark
  EXPECT_NEAR(model.Confidence(first), 1 / (1 + std::exp(1.0)), 1e-12);
  EXPECT_EQ(model.SureAt(first), 0.3);
  EXPECT_EQ(model.SureAt(trailing), 0.6);
  const AnswerFacts zero{0, 0, 0, true, -1, -1};  // scores of 0 stay finite
  EXPECT_TRUE(std::isfinite(model.Confidence(zero)));
  EXPECT_EQ(ConfidenceModel().Confidence(first), -1);
  EXPECT_EQ(ConfidenceModel().SureAt(first), -1);
}

// Answers over the known faces have a model of their own when the file gives one, whole; the
// other answers keep theirs.
TEST(AnswerConfidence, AnswersOverTheKnownFacesHaveTheirOwnModelWhenGiven) {
  std::string known;
  for (const char* input : kConfidenceInputs) known += std::string("with_known\t") + input + "\t0\n";
  const ConfidenceModel model = ParseConfidenceModel(ModelText(known + "with_known\tsure_at\t0.8\n"), "m");
  ASSERT_TRUE(model.hasKnown);
  AnswerFacts facts{0.5, 0.5, 0.25, true, 0.9, 0.9};
  const double installedOnly = model.Confidence(facts);
  facts.withKnown = true;
  EXPECT_DOUBLE_EQ(model.Confidence(facts), 0.5);  // all weights 0
  EXPECT_NE(installedOnly, 0.5);
  EXPECT_EQ(model.SureAt(facts), 0.8);
  facts.likeness = -1;  // no lines: the model without them, known faces or not
  EXPECT_EQ(model.SureAt(facts), 0.6);
  // Without it, answers over the known faces use the model with lines.
  const ConfidenceModel older = ParseConfidenceModel(ModelText(), "m");
  EXPECT_FALSE(older.hasKnown);
  facts.likeness = 0.9;
  EXPECT_DOUBLE_EQ(older.Confidence(facts), installedOnly);
  try {
    ParseConfidenceModel(ModelText(known), "m.tsv");
    ADD_FAILURE() << "read a model with_known without its sure_at";
  } catch (const ConfidenceFileError& e) {
    EXPECT_NE(std::string(e.what()).find("with_known is not whole"), std::string::npos) << e.what();
  }
}

}  // namespace
}  // namespace fontrix
