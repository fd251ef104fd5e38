#include "classification/class_vote.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <utility>

#include "deepnet/gemm.h"
#include "shell/file_bytes.h"
#include "shell/tab_fields.h"

namespace fontrix {

namespace {

class Parser {
 public:
  Parser(const std::string& source) : source_(source) {}

  [[noreturn]] void Fail(const std::string& what) const {
    throw ClassVoteFileError(source_ + ": line " + std::to_string(line_) + ": " + what);
  }
  void Next() { ++line_; }
  int Line() const { return line_; }

  double Number(const std::string& text, const char* what) const {
    const char* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(begin, &end);
    if (text.empty() || end != begin + text.size() || std::isnan(value) || errno == ERANGE)
      Fail(std::string(what) + " is not a number: '" + text + "'");
    return value;
  }

  int64_t Whole(const std::string& text, const char* what) const {
    if (text.empty() || text.size() > 12 || text.find_first_not_of("0123456789") != std::string::npos)
      Fail(std::string(what) + " is not a whole number: '" + text + "'");
    return std::stoll(text);
  }

 private:
  std::string source_;
  int line_ = 0;
};

int ClassNumber(const std::string& label) {
  for (int c = 0; c < kStyleClassCount; ++c)
    if (label == LabelName(kClassBits[c].attribute)) return c;
  return -1;
}

}  // namespace

ClassVoteTable ParseClassVoteTable(std::istream& in, const std::string& source) {
  Parser parse(source);
  ClassVoteTable table;
  std::array<bool, kStyleClassCount> ruled{}, headRuled{};
  bool haveK = false, haveTemperature = false;
  int64_t expected = -1;
  std::unordered_map<std::string, int> lineOf;
  std::string line;
  while (std::getline(in, line)) {
    parse.Next();
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    const std::vector<std::string> f = TabFields(line);
    const std::string& key = f[0];
    if (key == "face") {
      if (expected < 0) parse.Fail("a face before the face count");
      if (f.size() != 4) parse.Fail("a face line holds identifier, unique name and class mask");
      if (f[1].empty() || f[2].empty()) parse.Fail("a face without identifier or name");
      const int64_t mask = parse.Whole(f[3], "the class mask");
      if (mask >= (int64_t(1) << kStyleClassCount)) parse.Fail("the class mask " + f[3] + " has bits of no class");
      if (!lineOf.emplace(f[2], parse.Line()).second)
        parse.Fail("face " + f[2] + " is given twice (first on line " + std::to_string(lineOf[f[2]]) + ")");
      if (int64_t(table.faces.size()) == expected)
        parse.Fail("more faces than the count of " + std::to_string(expected));
      table.faces.push_back({f[1], f[2], uint32_t(mask)});
    } else if (key == "k" && f.size() == 2) {
      if (haveK) parse.Fail("k is given twice");
      const int64_t k = parse.Whole(f[1], "k");
      if (k < 1 || k > 1000000) parse.Fail("k must be at least 1");
      table.neighbours = int(k);
      haveK = true;
    } else if (key == "temperature" && f.size() == 2) {
      if (haveTemperature) parse.Fail("the temperature is given twice");
      table.temperature = parse.Number(f[1], "the temperature");
      if (!(table.temperature > 0) || std::isinf(table.temperature)) parse.Fail("the temperature must be above 0");
      haveTemperature = true;
    } else if ((key == "rule" && f.size() == 4) || (key == "head_rule" && f.size() == 5)) {
      const bool head = key == "head_rule";
      const int c = ClassNumber(f[1]);
      if (c < 0) parse.Fail("no style class is called '" + f[1] + "'");
      bool& seen = (head ? headRuled : ruled)[size_t(c)];
      if (seen) parse.Fail(std::string(head ? "a second head rule for " : "a second rule for ") + f[1]);
      const double low = parse.Number(f[2], "low"), high = parse.Number(f[3], "high");
      if (low < 0 || low > 1) parse.Fail("low must lie between 0 and 1");
      if (high < low) parse.Fail("high must not be below low");
      if (head) {
        const double weight = parse.Number(f[4], "the head's weight");
        if (!(weight >= 0 && weight <= 1)) parse.Fail("the head's weight must lie between 0 and 1");
        table.headRules[size_t(c)] = {low, high, weight};
        table.headRuled = true;
      } else {
        table.rules[size_t(c)] = {low, high, 0.0};
      }
      seen = true;
    } else if (key == "faces" && f.size() == 2) {
      if (expected >= 0) parse.Fail("the face count is given twice");
      expected = parse.Whole(f[1], "the face count");
    } else {
      parse.Fail("not a line of this file: '" + line.substr(0, 60) + "'");
    }
  }
  if (in.bad()) throw ClassVoteFileError(source + ": cannot be read");
  const std::string whole = source + ": ";
  if (!haveK || !haveTemperature) throw ClassVoteFileError(whole + "k or the temperature is missing");
  for (int c = 0; c < kStyleClassCount; ++c)
    if (!ruled[size_t(c)]) throw ClassVoteFileError(whole + "no rule for " + LabelName(kClassBits[c].attribute));
  for (int c = 0; c < kStyleClassCount; ++c)
    if (table.headRuled && !headRuled[size_t(c)])
      throw ClassVoteFileError(whole + "no head rule for " + LabelName(kClassBits[c].attribute));
  if (expected < 0) throw ClassVoteFileError(whole + "the face count is missing");
  if (int64_t(table.faces.size()) != expected)
    throw ClassVoteFileError(whole + std::to_string(table.faces.size()) + " faces where the count says " +
                             std::to_string(expected) + " (cut short?)");
  return table;
}

ClassVoteTable ReadClassVoteFile(const std::string& path) {
  std::istringstream in(ReadDataFile<ClassVoteFileError>(path));
  return ParseClassVoteTable(in, path);
}

ClassVote::ClassVote(ClassVoteTable table) : table_(std::move(table)) {
  for (size_t j = 0; j < table_.faces.size(); ++j) faceOf_.emplace(table_.faces[j].name, j);
}

ClassSupport ClassVote::Support(const float* scores, const std::vector<bool>& voting, const std::string& self) const {
  const auto selfIt = faceOf_.find(self);
  const size_t own = selfIt == faceOf_.end() ? table_.faces.size() : selfIt->second;
  // The `neighbours` best-scoring voting faces, kept in a heap whose top is the worst kept: one
  // pass over the faces, most of them turned away by a single compare (the vote runs for every
  // installed font at every query for classes).
  const size_t neighbours = size_t(std::max(1, table_.neighbours));
  const auto worse_first = [](const std::pair<float, size_t>& a, const std::pair<float, size_t>& b) {
    return a.first > b.first;
  };
  std::vector<std::pair<float, size_t>> best;
  best.reserve(neighbours);
  const size_t faces = std::min(table_.faces.size(), voting.size());
  for (size_t j = 0; j < faces; ++j) {
    if (j == own || !voting[j]) continue;
    if (best.size() < neighbours) {
      best.emplace_back(scores[j], j);
      std::push_heap(best.begin(), best.end(), worse_first);
    } else if (scores[j] > best.front().first) {
      std::pop_heap(best.begin(), best.end(), worse_first);
      best.back() = {scores[j], j};
      std::push_heap(best.begin(), best.end(), worse_first);
    }
  }
  ClassSupport support{};
  if (best.empty()) return support;
  double top = -std::numeric_limits<double>::infinity();
  for (const auto& [score, face] : best) top = std::max(top, double(score));
  double total = 0;
  for (const auto& [score, face] : best) {
    const double w = std::exp((double(score) - top) / table_.temperature);
    total += w;
    const uint32_t mask = table_.faces[face].mask;
    for (int c = 0; c < kStyleClassCount; ++c)
      if (mask & kClassBits[c].bit) support[size_t(c)] += w;
  }
  for (double& s : support) s /= total;
  return support;
}

uint32_t ClassVote::Combine(uint32_t linear, const ClassSupport& support, const ClassProbabilities* head) const {
  uint32_t mask = 0;
  for (int c = 0; c < kStyleClassCount; ++c) {
    const ClassVoteRule& rule = (head ? table_.headRules : table_.rules)[size_t(c)];
    double s = support[size_t(c)];
    if (head) s = (1 - rule.weight) * s + rule.weight * (*head)[size_t(c)];
    if (((linear & kClassBits[c].bit) && s >= rule.low) || s >= rule.high) mask |= kClassBits[c].bit;
  }
  return mask;
}

std::vector<uint32_t> ClassVote::Masks(const std::vector<std::string>& names, const float* vectors,
                                       const std::vector<uint32_t>& linear, const float* voters,
                                       const std::vector<bool>& voting, size_t dim) const {
  // The scores of a block of fonts against every face in one product: face j's score for font
  // i of the block lands at scores[i * faces + j].
  constexpr size_t kBlock = 256;
  const size_t faces = table_.faces.size();
  std::vector<uint32_t> masks(names.size());
  std::vector<float> scores;
  // Row-major: scores (count × faces) = vectors (count × dim) · votersᵀ, voters holding a row per
  // face, packed once for every block of fonts.
  const deepnet::packed_rhs packed(dim, faces, voters, dim, true);
  const ClassHead* head = Head();
  for (size_t first = 0; first < names.size(); first += kBlock) {
    const size_t count = std::min(kBlock, names.size() - first);
    scores.assign(count * faces, 0.0f);
    deepnet::gemm(count, vectors + first * dim, dim, packed, scores.data(), faces, false);
    const std::vector<ClassProbabilities> p =
        head ? head->Probabilities(vectors + first * dim, count) : std::vector<ClassProbabilities>();
    for (size_t i = 0; i < count; ++i)
      masks[first + i] = Combine(linear[first + i], Support(scores.data() + i * faces, voting, names[first + i]),
                                 head ? &p[i] : nullptr);
  }
  return masks;
}

}  // namespace fontrix
