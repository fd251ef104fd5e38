#include "recognition/answer_confidence.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <sstream>

#include "shell/file_bytes.h"
#include "shell/tab_fields.h"

namespace fontrix {

namespace {

// The log of a ratio of scores, kept finite for scores of 0 or below.
double LogRatio(double a, double b) { return std::log(std::max(a, 1e-9) / std::max(b, 1e-9)); }

}  // namespace

std::array<double, kConfidenceInputCount> ConfidenceInputs(const AnswerFacts& f) {
  const bool lines = f.likeness >= 0 && f.bestLikeness >= 0;
  const bool knownFirst = lines && f.first && f.knownFace;
  return {1.0,
          LogRatio(f.score, f.firstScore),
          f.first ? 1.0 : 0.0,
          f.first && f.secondScore > 0 ? LogRatio(f.firstScore, f.secondScore) : 0.0,
          lines ? f.likeness : 0.0,
          lines ? f.likeness - f.bestLikeness : 0.0,
          knownFirst ? 1.0 : 0.0,
          knownFirst
              ? std::min(kMostKnownLead, f.otherKnownLikeness >= 0 ? f.likeness - f.otherKnownLikeness : kMostKnownLead)
              : 0.0};
}

namespace {

bool WithLines(const AnswerFacts& f) { return f.likeness >= 0 && f.bestLikeness >= 0; }

}  // namespace

double ConfidenceModel::SureAt(const AnswerFacts& facts) const {
  if (!loaded) return -1;
  if (!WithLines(facts)) return sureAtWithoutLines;
  return facts.withKnown && hasKnown ? sureAtWithKnown : sureAtWithLines;
}

double ConfidenceModel::Confidence(const AnswerFacts& facts) const {
  if (!loaded) return -1;
  const std::array<double, kConfidenceInputCount> x = ConfidenceInputs(facts);
  const std::array<double, kConfidenceInputCount>& w = !WithLines(facts)             ? withoutLines
                                                       : facts.withKnown && hasKnown ? withKnown
                                                                                     : withLines;
  double z = 0;
  for (size_t i = 0; i < x.size(); ++i) z += w[i] * x[i];
  return 1.0 / (1.0 + std::exp(-std::clamp(z, -60.0, 60.0)));
}

ConfidenceModel ParseConfidenceModel(const std::string& text, const std::string& name) {
  ConfidenceModel model;
  std::set<std::string> seen;
  std::istringstream in(text);
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    const std::vector<std::string> fields = TabFields(line);
    auto fail = [&](const std::string& why) {
      return ConfidenceFileError(name + " line " + std::to_string(number) + ": " + why);
    };
    auto number_of = [&](const std::string& s) {
      size_t used = 0;
      double v = 0;
      try {
        v = std::stod(s, &used);
      } catch (const std::exception&) {
        used = 0;
      }
      if (used != s.size() || s.empty() || !std::isfinite(v)) throw fail("'" + s + "' is not a number");
      return v;
    };
    const bool known = fields.size() == 3 && fields[0] == "with_known";
    const bool model_name =
        known || (fields.size() == 3 && (fields[0] == "with_lines" || fields[0] == "without_lines"));
    if (model_name && fields[1] == "sure_at") {
      if (!seen.insert(fields[0] + "/sure_at").second) throw fail("sure_at given twice");
      const double at = number_of(fields[2]);
      if (at < 0 || at > 1) throw fail("sure_at is not between 0 and 1");
      (known                       ? model.sureAtWithKnown
       : fields[0] == "with_lines" ? model.sureAtWithLines
                                   : model.sureAtWithoutLines) = at;
    } else if (model_name) {
      const auto input = std::find(kConfidenceInputs.begin(), kConfidenceInputs.end(), fields[1]);
      if (input == kConfidenceInputs.end()) throw fail("no input is called '" + fields[1] + "'");
      if (!seen.insert(fields[0] + "/" + fields[1]).second) throw fail(fields[1] + " given twice");
      (known                       ? model.withKnown
       : fields[0] == "with_lines" ? model.withLines
                                   : model.withoutLines)[size_t(input - kConfidenceInputs.begin())] =
          number_of(fields[2]);
    } else {
      throw fail("not 'with_lines|without_lines|with_known<TAB>input or sure_at<TAB>number'");
    }
  }
  // Every input up to the optional ones, and sure_at, of a model.
  const auto whole = [&](const std::string& m) {
    if (!seen.count(m + "/sure_at")) return false;
    for (size_t i = 0; i < kFirstOptionalInput; ++i)
      if (!seen.count(m + "/" + kConfidenceInputs[i])) return false;
    return true;
  };
  if (!whole("with_lines") || !whole("without_lines"))
    throw ConfidenceFileError(name + ": the weights and sure_at of both models are not all given");
  const bool anyKnown =
      std::any_of(seen.begin(), seen.end(), [](const std::string& s) { return s.rfind("with_known/", 0) == 0; });
  if (anyKnown && !whole("with_known")) throw ConfidenceFileError(name + ": the model with_known is not whole");
  model.hasKnown = anyKnown;
  model.loaded = true;
  return model;
}

ConfidenceModel ReadConfidenceModel(const std::string& path) {
  return ParseConfidenceModel(ReadDataFile<ConfidenceFileError>(path), path);
}

}  // namespace fontrix
