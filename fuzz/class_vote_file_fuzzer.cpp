// Fuzz target for "similarity_table_classes.tsv", the class vote's data file: any bytes must end
// in a table or a ClassVoteFileError, never a crash, an out-of-bounds access or undefined
// behaviour; a table that reads must vote (every face's scores equal, one face unusable) with
// supports between 0 and 1 and masks of class bits only.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "classification/class_vote.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  fontrix::ClassVoteTable table;
  try {
    table = fontrix::ParseClassVoteTable(in, "fuzz");
  } catch (const fontrix::ClassVoteFileError&) {
    return 0;
  }
  for (const auto& face : table.faces) FUZZ_CHECK(!face.name.empty() && face.mask < 256);
  const fontrix::ClassVote vote(table);
  const size_t faces = table.faces.size();
  std::vector<float> scores(faces, 0.5f);
  std::vector<bool> voting(faces, true);
  if (faces) voting[0] = false;
  const fontrix::ClassSupport support = vote.Support(scores.data(), voting, faces ? table.faces.back().name : "");
  for (double s : support) FUZZ_CHECK(s >= 0.0 && s <= 1.0 + 1e-9);
  FUZZ_CHECK(vote.Combine(0xFF, support) <= 0xFF);
  if (table.headRuled) {
    for (const auto& rule : table.headRules) FUZZ_CHECK(rule.weight >= 0 && rule.weight <= 1 && rule.low <= rule.high);
    fontrix::ClassProbabilities p;
    p.fill(0.5);
    FUZZ_CHECK(vote.Combine(0xFF, support, &p) <= 0xFF);
  }
  return 0;
}
