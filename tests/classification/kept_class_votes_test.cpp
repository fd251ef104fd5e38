// "FontClassVotes.bin": what is written reads back, every damage is found, and the identity of
// the shared inputs and the vectors' hashes change with whatever would change a font's vote.
#include "classification/kept_class_votes.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <functional>

namespace fontrix {
namespace {

namespace fs = std::filesystem;

fs::path Folder() {
  const fs::path dir = fs::temp_directory_path() / ("fontrix-kept-votes-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  return dir;
}

const std::vector<KeptClassVote> kVotes = {
    {"Alpha-Regular", 64, 0x0123456789ABCDEFull, 96}, {"DejaVuSans", 16, 42, 16}, {"Symbols", 0xFFFFFFFF, 7, 0}};

TEST(KeptClassVotesFile, WhatIsWrittenReadsBackForTheSameInputsOnly) {
  const fs::path dir = Folder();
  const std::string path = (dir / kKeptClassVotesFileName).string();
  EXPECT_EQ(ReadKeptClassVotes(path, 5).source, KeptClassVotes::kNoFile);

  // What the reader would refuse (no name, a name again, a class beyond the eight) is left out:
  // that font is voted on again.
  std::vector<KeptClassVote> written = kVotes;
  written.push_back({"", 1, 2, 3});
  written.push_back({"DejaVuSans", 1, 2, 3});
  written.push_back({"Beyond", 1, 2, 256});
  WriteKeptClassVotes(path, 5, written);
  EXPECT_FALSE(fs::exists(path + ".tmp"));
  const KeptClassVotes read = ReadKeptClassVotes(path, 5);
  EXPECT_EQ(read.source, KeptClassVotes::kFile);
  EXPECT_EQ(read.votes, kVotes);

  const KeptClassVotes other = ReadKeptClassVotes(path, 6);
  EXPECT_EQ(other.source, KeptClassVotes::kOtherInputs);
  EXPECT_EQ(other.identity, 5u);
  EXPECT_TRUE(other.votes.empty());

  WriteKeptClassVotes(path, 5, {});
  EXPECT_EQ(ReadKeptClassVotes(path, 5).source, KeptClassVotes::kFile);
  EXPECT_TRUE(ReadKeptClassVotes(path, 5).votes.empty());

  // A folder where the file should be cannot be read, nor written over.
  fs::remove(path);
  fs::create_directory(path);
  EXPECT_THROW(ReadKeptClassVotes(path, 5), KeptClassVotesError);
  EXPECT_THROW(WriteKeptClassVotes(path, 5, kVotes), std::runtime_error);
  EXPECT_FALSE(fs::exists(path + ".tmp"));
  fs::remove_all(dir);
}

// Cut anywhere, or any byte changed, the file is refused, or (a change in the version or the
// identity) holds nothing: no damage ever gives votes.
TEST(KeptClassVotesFile, EveryCutAndEveryChangedByteIsFound) {
  const std::string good = KeptClassVotesBytes(5, kVotes);
  ASSERT_EQ(ParseKeptClassVotes(good, 5).votes, kVotes);
  for (size_t n = 0; n < good.size(); ++n)
    EXPECT_THROW(ParseKeptClassVotes(good.substr(0, n), 5), KeptClassVotesError) << "cut at " << n;
  EXPECT_THROW(ParseKeptClassVotes(good + '\0', 5), KeptClassVotesError);
  for (size_t at = 0; at < good.size(); ++at)
    for (const uint8_t change : {0x01, 0x80}) {
      std::string bytes = good;
      bytes[at] = char(uint8_t(bytes[at]) ^ change);
      try {
        const KeptClassVotes read = ParseKeptClassVotes(bytes, 5);
        EXPECT_EQ(read.source, KeptClassVotes::kOtherInputs) << "byte " << at;
        EXPECT_TRUE(read.votes.empty()) << "byte " << at;
        EXPECT_TRUE(at >= 4 && at < 16) << "byte " << at << " is neither version nor identity";
      } catch (const KeptClassVotesError&) {
      }
    }
  // A record that sums right, given twice.
  std::string twice = KeptClassVotesBytes(5, {kVotes[0]});
  const std::string record = twice.substr(20);
  twice.replace(16, 4, "\x02\0\0\0", 4);
  EXPECT_THROW(ParseKeptClassVotes(twice + record, 5), KeptClassVotesError);
  std::string huge = KeptClassVotesBytes(5, {});
  huge.replace(16, 4, "\xff\xff\xff\xff", 4);
  EXPECT_THROW(ParseKeptClassVotes(huge, 5), KeptClassVotesError);
}

// What every font's vote shares: a table of three faces in four dimensions.
class VoteInputs : public ::testing::Test {
 protected:
  VoteInputs() {
    table_.neighbours = 2;
    table_.temperature = 0.1;
    for (auto& r : table_.rules) r = {0.25, 0.75};
    table_.faces = {{"a", "FaceA", 1}, {"b", "FaceB", 2}, {"c", "FaceC", 4}};
  }
  uint64_t Identity() const { return VoteInputsIdentity(table_, voters_.data(), voting_, 4); }

  ClassVoteTable table_;
  std::vector<float> voters_ = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
  std::vector<bool> voting_ = {true, true, false};
};

TEST_F(VoteInputs, TheIdentityChangesWithEveryInputEveryFontShares) {
  const uint64_t base = Identity();
  EXPECT_EQ(Identity(), base);
  const ClassVoteTable table = table_;
  const std::vector<float> voters = voters_;
  const std::vector<bool> voting = voting_;
  const std::vector<std::pair<const char*, std::function<void()>>> changes = {
      {"k", [&] { table_.neighbours = 3; }},
      {"temperature", [&] { table_.temperature = std::nextafter(0.1, 1.0); }},
      {"a rule's low", [&] { table_.rules[3].low = 0.3; }},
      {"a rule's high", [&] { table_.rules[7].high = INFINITY; }},
      {"a face's classes", [&] { table_.faces[1].mask = 3; }},
      {"a face's name", [&] { table_.faces[2].name = "FaceD"; }},
      {"a face's identifier", [&] { table_.faces[0].identifier = "z"; }},
      {"two faces' order", [&] { std::swap(table_.faces[0], table_.faces[1]); }},
      {"a voter's value by its last bit", [&] { voters_[5] = std::nextafter(1.0f, 2.0f); }},
      {"a face that votes", [&] { voting_[2] = true; }},
  };
  for (const auto& [what, change] : changes) {
    change();
    EXPECT_NE(Identity(), base) << what;
    table_ = table;
    voters_ = voters;
    voting_ = voting;
  }
  // A face past the flags takes no part, as the last face's false flag said.
  voting_.pop_back();
  EXPECT_EQ(Identity(), base);
}

TEST(VectorHash, ChangesWithAnyValueOfTheVector) {
  std::vector<float> v(768);
  for (size_t i = 0; i < v.size(); ++i) v[i] = std::sin(float(i));
  const uint64_t base = VectorHash(v.data(), v.size());
  EXPECT_EQ(VectorHash(v.data(), v.size()), base);
  for (size_t i = 0; i < v.size(); ++i) {
    const float kept = v[i];
    v[i] = std::nextafter(kept, 2.0f);
    EXPECT_NE(VectorHash(v.data(), v.size()), base) << i;
    v[i] = kept;
  }
  std::swap(v[0], v[1]);
  EXPECT_NE(VectorHash(v.data(), v.size()), base);
}

}  // namespace
}  // namespace fontrix
