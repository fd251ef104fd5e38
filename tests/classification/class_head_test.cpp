// The class head: its network file, its probabilities against a hand computation, the head rules
// of the vote's file and how they join the head's answer with the rows and the vote.
#include "classification/class_head.h"

#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>

#include "classification/class_vote.h"
#include "classification/kept_class_votes.h"
#include "deepnet/layers/fc.h"
#include "deepnet/model_io.h"
#include "gtest/gtest.h"
#include "tests/classification/class_head_fixtures.h"

namespace fontrix {
namespace {

constexpr size_t kDim = 4;

// data (4 values) -> "class_hidden" (2, ReLU) -> `output` (`classes` logits). The hidden units
// read the first and the second value; logit c is (c - 3) * hidden0 - hidden1 + 0.5.
deepnet::layer_model_list Network(uint32_t classes = kStyleClassCount, const char* output = kClassHeadOutput) {
  std::vector<float> weights, biases;
  for (uint32_t c = 0; c < classes; ++c) {
    weights.insert(weights.end(), {float(c) - 3.0f, -1.0f});
    biases.push_back(0.5f);
  }
  return testing::HeadNetwork(kDim, {1, 0, 0, 0, 0, 1, 0, 0}, {0, 0}, weights, biases, output);
}

class ClassHeadFile : public ::testing::Test {
 protected:
  void TearDown() override { std::remove(path_.c_str()); }
  std::string Write(const deepnet::layer_model_list& m) {
    deepnet::deepnet_save_model(path_, m);
    return path_;
  }
  std::string WriteBytes(const std::string& bytes) {
    std::ofstream(path_, std::ios::binary) << bytes;
    return path_;
  }
  const std::string path_ = ::testing::TempDir() + "class_head_test.dnm";
};

TEST_F(ClassHeadFile, GivesTheLogisticOfTheNetworksLogitsForEveryVector) {
  const ClassHead head(Write(Network()), kDim);
  // Negative values are cut by the ReLU: the third vector's logits are those of (0, 2).
  const std::vector<float> vectors = {1, 0, 9, 9, 0.5f, 2, 0, 0, -3, 2, 0, 0};
  const std::vector<ClassProbabilities> p = head.Probabilities(vectors.data(), 3);
  ASSERT_EQ(p.size(), 3u);
  const double hidden[3][2] = {{1, 0}, {0.5, 2}, {0, 2}};
  for (size_t i = 0; i < 3; ++i)
    for (size_t c = 0; c < kStyleClassCount; ++c) {
      const double logit = (double(c) - 3) * hidden[i][0] - hidden[i][1] + 0.5;
      EXPECT_NEAR(p[i][c], 1 / (1 + std::exp(-logit)), 1e-6) << "vector " << i << ", class " << c;
    }
  // More vectors than one batch answer as each alone.
  std::vector<float> many;
  for (int i = 0; i < 600; ++i) many.insert(many.end(), {float(i % 7) * 0.3f, float(i % 5) * 0.2f, 0, 0});
  const std::vector<ClassProbabilities> all = head.Probabilities(many.data(), 600);
  for (size_t i : {0u, 255u, 256u, 599u}) EXPECT_EQ(all[i], head.Probabilities(many.data() + i * kDim, 1)[0]) << i;
}

TEST_F(ClassHeadFile, RefusesFilesThatCannotGiveTheClasses) {
  const std::map<std::string, std::string> bad = {
      {"missing", "/nonexistent/NQ_class_head.dnm"},
      {"seven logits", Write(Network(7))},
  };
  for (const auto& [what, path] : bad) EXPECT_THROW(ClassHead(path, kDim), ClassHeadError) << what;
  EXPECT_THROW(ClassHead(Write(Network(8, "other_name")), kDim), ClassHeadError) << "no class_logits";
  // A head for vectors of another length.
  EXPECT_THROW(ClassHead(Write(Network()), kDim + 1), ClassHeadError);
  std::vector<uint8_t> whole = deepnet::deepnet_serialize_layer_model(Network());
  const std::string bytes(whole.begin(), whole.end());
  EXPECT_THROW(ClassHead(WriteBytes(bytes.substr(0, bytes.size() - 9)), kDim), ClassHeadError) << "cut short";
  EXPECT_THROW(ClassHead(WriteBytes(bytes + "junk"), kDim), ClassHeadError) << "bytes after the end";
  EXPECT_THROW(ClassHead(WriteBytes("not a network at all"), kDim), ClassHeadError);
  // Two heads of other weights are told apart.
  const uint64_t one = ClassHead(Write(Network()), kDim).Identity();
  deepnet::layer_model_list other = Network();
  static_cast<deepnet::layer_model_fc&>(*other.back()).biases[0] = 0.25f;
  EXPECT_NE(one, ClassHead(Write(other), kDim).Identity());
}

std::string VoteFile(const std::string& headRules) {
  std::string text = "k\t3\ntemperature\t0.05\n";
  for (int c = 0; c < kStyleClassCount; ++c)
    text += "rule\t" + std::string(LabelName(kClassBits[c].attribute)) + "\t0\tinf\n";
  return text + headRules + "faces\t1\nface\tabcdefg\tA\t1\n";
}

std::string HeadRules(const std::string& slab, int classes = kStyleClassCount) {
  std::string text;
  for (int c = 0; c < classes; ++c) {
    const std::string label = LabelName(kClassBits[c].attribute);
    text += "head_rule\t" + label + "\t" + (label == "fs_slab_serif" ? slab : "0\tinf\t0") + "\n";
  }
  return text;
}

ClassVoteTable Parse(const std::string& text) {
  std::istringstream in(text);
  return ParseClassVoteTable(in, "classes.tsv");
}

TEST(ClassHeadRules, AreAllOrNoneAndInRange) {
  EXPECT_FALSE(Parse(VoteFile("")).headRuled);
  const ClassVoteTable t = Parse(VoteFile(HeadRules("0.2\t0.6\t0.75")));
  ASSERT_TRUE(t.headRuled);
  EXPECT_DOUBLE_EQ(t.headRules[7].low, 0.2);
  EXPECT_DOUBLE_EQ(t.headRules[7].high, 0.6);
  EXPECT_DOUBLE_EQ(t.headRules[7].weight, 0.75);
  EXPECT_TRUE(std::isinf(t.headRules[0].high));
  const std::map<std::string, std::string> damaged = {
      {"a class without a head rule", HeadRules("0.2\t0.6\t0.75", kStyleClassCount - 1)},
      {"a weight above 1", HeadRules("0.2\t0.6\t1.5")},
      {"a weight that is no number", HeadRules("0.2\t0.6\tnan")},
      {"high below low", HeadRules("0.6\t0.2\t0.5")},
      {"no weight", HeadRules("0.2\t0.6")},
      {"a second head rule", HeadRules("0.2\t0.6\t0.5") + "head_rule\tfs_serif\t0\tinf\t0\n"},
  };
  for (const auto& [what, rules] : damaged) EXPECT_THROW(Parse(VoteFile(rules)), ClassVoteFileError) << what;
}

// The head's probability and the vote's support are mixed by the class's weight; the rows'
// class needs low, and high sets the class alone.
TEST(ClassHeadRules, MixTheHeadWithTheSupport) {
  ClassVoteTable t = Parse(VoteFile(HeadRules("0.2\t0.6\t0.75")));
  t.rules[7] = {0.5, 0.9};
  const ClassVote vote(t);
  const uint32_t slab = kClassBits[7].bit;
  ClassSupport support{};
  ClassProbabilities p{};
  support[7] = 0.4;
  p[7] = 0.7;  // evidence 0.25 * 0.4 + 0.75 * 0.7 = 0.625: set alone
  EXPECT_EQ(vote.Combine(0, support, &p) & slab, slab);
  EXPECT_EQ(vote.Combine(0, support) & slab, 0u) << "without the head, the vote's own rule";
  p[7] = 0.2;  // 0.25: the rows' class kept, none without it
  EXPECT_EQ(vote.Combine(slab, support, &p) & slab, slab);
  EXPECT_EQ(vote.Combine(0, support, &p) & slab, 0u);
  support[7] = 0;
  p[7] = 0.2;  // 0.15: below low, the rows' class is vetoed
  EXPECT_EQ(vote.Combine(slab, support, &p) & slab, 0u);
  // Classes whose head rule is the rows alone keep the rows' answer whatever the head says.
  p.fill(1.0);
  EXPECT_EQ(vote.Combine(kClassBits[6].bit, support, &p) & kClassBits[6].bit, kClassBits[6].bit);
  EXPECT_EQ(vote.Combine(0, support, &p) & kClassBits[6].bit, 0u);
}

TEST_F(ClassHeadFile, JoinsTheVoteOnlyWithRulesAndChangesTheKeptVotesIdentity) {
  ClassVote plain(Parse(VoteFile("")));
  plain.SetHead(std::make_unique<const ClassHead>(Write(Network()), kDim));
  EXPECT_EQ(plain.Head(), nullptr) << "a head without rules for it is not used";
  ClassVote ruled(Parse(VoteFile(HeadRules("0.2\t0.6\t1"))));
  EXPECT_EQ(ruled.Head(), nullptr);
  ruled.SetHead(std::make_unique<const ClassHead>(Write(Network()), kDim));
  ASSERT_NE(ruled.Head(), nullptr);

  // Through Masks: a font whose vector makes the head's slab serif logit 4.5 - 0 is set.
  const std::vector<float> voters = {1, 0, 0, 0};
  const std::vector<float> font = {1, 0, 0, 0};
  const uint32_t slab = kClassBits[7].bit;
  EXPECT_EQ(ruled.Masks({"F"}, font.data(), {0}, voters.data(), {true}, kDim)[0] & slab, slab);
  EXPECT_EQ(plain.Masks({"F"}, font.data(), {0}, voters.data(), {true}, kDim)[0] & slab, 0u);

  const ClassVoteTable& table = ruled.Table();
  const std::vector<bool> voting = {true};
  const uint64_t without = VoteInputsIdentity(table, voters.data(), voting, kDim);
  const uint64_t with = VoteInputsIdentity(table, voters.data(), voting, kDim, ruled.Head()->Identity());
  EXPECT_NE(without, with);
  ClassVoteTable moved = table;
  moved.headRules[7].weight = 0.5;
  EXPECT_NE(with, VoteInputsIdentity(moved, voters.data(), voting, kDim, ruled.Head()->Identity()));
  EXPECT_EQ(without, VoteInputsIdentity(moved, voters.data(), voting, kDim)) << "rules of no head count for nothing";
}

}  // namespace
}  // namespace fontrix
