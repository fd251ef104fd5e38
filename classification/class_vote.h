#pragma once
// The class vote: a font's style classes as its look-alikes among the shipped similarity table's
// faces have them, joined per class with the linear rows' classes by a fitted rule. Its data
// file, "similarity_table_classes.tsv" in the module's data folder, is written by
// training/fit_class_vote.py:
//
//   # comment lines
//   k <TAB> 40                             the neighbours that vote
//   temperature <TAB> 0.1                  a neighbour scoring s weighs exp((s - s_best) / temperature)
//   rule <TAB> fs_slab_serif <TAB> 0.05 <TAB> 0.2     one line per style class: low, high
//   faces <TAB> 1864                       then exactly that many face lines
//   face <TAB> identifier <TAB> unique name <TAB> class mask (bit n for style class n)
//
// A class is set when the linear rows set it and its support (the weighted share of the
// neighbours that have it) is at least low, or when its support is at least high ("inf": never
// by the vote alone).
//
// The file may also hold one line per style class for the class head (class_head.h), all or none:
//
//   head_rule <TAB> fs_slab_serif <TAB> 0.1 <TAB> 0.6 <TAB> 0.75    low, high, weight
//
// With the head's probability p, those rules stand in for the others with the evidence
// (1 - weight) * support + weight * p in place of the support.
#include <array>
#include <cstdint>
#include <istream>
#include <memory>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "classification/class_head.h"
#include "classification/labels.h"

namespace fontrix {

constexpr const char* kClassVoteFileName = "similarity_table_classes.tsv";

struct ClassVoteRule {
  double low = 0.0;
  double high = 0.0;
  double weight = 0.0;  ///< a head rule's share of the head in the evidence, 0 to 1 (0 in the vote's rules)
};

struct ClassVoteFace {
  std::string identifier, name;
  uint32_t mask = 0;
};

struct ClassVoteTable {
  int neighbours = 0;
  double temperature = 0.0;
  std::array<ClassVoteRule, kStyleClassCount> rules{};
  bool headRuled = false;  ///< the file holds the head's rules
  std::array<ClassVoteRule, kStyleClassCount> headRules{};
  std::vector<ClassVoteFace> faces;
};

/// A data file that cannot be used; the message names the line and what is wrong with it.
class ClassVoteFileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Reads a data file; throws ClassVoteFileError when it cannot be read or is not whole: a key
/// missing or given twice, a rule for every class, numbers out of range (k at least 1, a
/// temperature above 0, 0 <= low <= 1, low <= high), masks beyond the eight class bits, names
/// given twice, a face count that differs from the face lines, head rules for some classes only.
ClassVoteTable ReadClassVoteFile(const std::string& path);
ClassVoteTable ParseClassVoteTable(std::istream& in, const std::string& source);

/// The support of each style class, 0 to 1.
using ClassSupport = std::array<double, kStyleClassCount>;

class ClassVote {
 public:
  explicit ClassVote(ClassVoteTable table);
  const ClassVoteTable& Table() const { return table_; }
  /// Joins the head's answers by the head rules from now on (null: the vote's own rules).
  void SetHead(std::unique_ptr<const ClassHead> head) { head_ = std::move(head); }
  /// The head whose answers are joined: set, and the file has rules for it; else null.
  const ClassHead* Head() const { return table_.headRuled ? head_.get() : nullptr; }

  /// The support among the k best-scoring voters; `scores[j]` is the similarity to face j of the
  /// table, and faces j with `voting[j]` false, or named `self`, take no part.
  ClassSupport Support(const float* scores, const std::vector<bool>& voting, const std::string& self) const;
  /// The classes the rules set from the linear rows' mask and the support; with `head`, the
  /// head's probabilities, by the head rules.
  uint32_t Combine(uint32_t linear, const ClassSupport& support, const ClassProbabilities* head = nullptr) const;
  /// The joined masks of fonts `names` with vectors `vectors` (a row of `dim` floats each) and
  /// linear masks `linear`. `voters` holds a row of `dim` floats per table face, in table
  /// order; faces with `voting[j]` false take no part.
  std::vector<uint32_t> Masks(const std::vector<std::string>& names, const float* vectors,
                              const std::vector<uint32_t>& linear, const float* voters, const std::vector<bool>& voting,
                              size_t dim) const;

 private:
  ClassVoteTable table_;
  std::unique_ptr<const ClassHead> head_;
  std::unordered_map<std::string, size_t> faceOf_;  // unique name -> face
};

}  // namespace fontrix
