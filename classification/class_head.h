#pragma once
// The class head: a small network over a font's similarity vector that gives each style class a
// probability. The vectors were trained with the classes as a second signal beside letter
// likeness, so a slab serif's vector sits apart from a sans of the same skeleton, and the head
// reads what the linear rows over the 96 features cannot tell. Its data file, "NQ_class_head.dnm"
// in the module's data folder, is written by training/fit_class_vote.py for the similarity network
// it was fitted on; its answers join the linear rows and the class vote by the rules of the
// vote's data file (class_vote.h).
#include <array>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "classification/labels.h"
#include "deepnet/layer_model.h"

namespace fontrix {

constexpr const char* kClassHeadFileName = "NQ_class_head.dnm";
/// The layer whose outputs are the classes' logits, in label order.
constexpr const char* kClassHeadOutput = "class_logits";

/// A head file that cannot be used; the message says why.
class ClassHeadError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Each style class's probability, 0 to 1, in label order.
using ClassProbabilities = std::array<double, kStyleClassCount>;

class ClassHead {
 public:
  /// Reads the network from `path`; throws ClassHeadError when the file is missing or damaged,
  /// or when the network does not take a `dim`-value vector to one logit per style class.
  ClassHead(const std::string& path, size_t dim);
  /// The probabilities of `count` vectors of `dim` floats each, row after row.
  std::vector<ClassProbabilities> Probabilities(const float* vectors, size_t count) const;
  /// A check sum of the file's bytes: answers kept from another head are worked out again.
  uint64_t Identity() const { return identity_; }

 private:
  deepnet::layer_model_list layers_;
  size_t dim_ = 0;
  uint64_t identity_ = 0;
};

}  // namespace fontrix
