#include "host/tool/rows.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>

#include "host/tool/json.h"

namespace fontrix::host {
namespace {

std::string Score(double score) {
  if (!std::isfinite(score)) return "0";  // never a non-number in any output
  char text[32];
  std::snprintf(text, sizeof text, "%.6f", score);
  return text;
}

std::string Classes(uint32_t mask, const char* const* names, const char* separator) {
  std::string out;
  for (int i = 0; i < 8; ++i)
    if (mask & (1u << i)) out += std::string(out.empty() ? "" : separator) + names[i];
  return out;
}

// Where an answer of recognize is, in words: "installed", or for a known face that is not, where
// to get it and what is installed like it.
std::string Where(const OutputRow& r) {
  if (!r.installed) return "";
  if (*r.installed) return "installed";
  std::string out = "not installed: open font, " + r.source + (r.licence.empty() ? "" : " (" + r.licence + ")");
  if (!r.closest_installed.empty()) {
    out += "; closest installed:";
    for (size_t i = 0; i < r.closest_installed.size(); ++i) out += (i ? ", " : " ") + r.closest_installed[i];
  }
  return out;
}

std::string Field(const std::string& field, const OutputRow& r) {
  if (field == "name") return r.name;
  if (field == "family") return r.family;
  if (field == "style") return r.style;
  if (field == "file") return r.file;
  if (field == "index") return std::to_string(r.index);
  if (field == "weight") return std::to_string(r.weight);
  if (field == "width") return std::to_string(r.width);
  if (field == "slant") return std::to_string(r.slant);
  if (field == "score") return r.score ? Score(*r.score) : "";
  if (field == "confidence") return r.confidence ? Score(*r.confidence) : "";
  if (field == "likeness") return r.likeness ? Score(*r.likeness) : "";
  if (field == "classes") return r.classes ? Classes(*r.classes, kClassShortNames, ",") : "";
  if (field == "status") return r.status ? *r.status : "";
  if (field == "look_alike") return r.look_alike ? *r.look_alike : "";
  if (field == "same_outlines") {
    std::string names;
    for (const std::string& n : r.same_outlines) names += (names.empty() ? "" : ",") + n;
    return names;
  }
  if (field == "installed") return r.installed ? (*r.installed ? "yes" : "no") : "";
  if (field == "source") return r.source;
  if (field == "licence") return r.licence;
  if (field == "closest_installed") {
    std::string names;
    for (const std::string& n : r.closest_installed) names += (names.empty() ? "" : ",") + n;
    return names;
  }
  if (field == "where") return Where(r);
  throw FormatError("--format has no field %{" + field + "}");
}

// Walks `format`, giving literal text and field names to the two callbacks.
template <typename Text, typename FieldName>
void Walk(const std::string& format, Text text, FieldName field) {
  for (size_t i = 0; i < format.size(); ++i) {
    const char c = format[i];
    if (c == '\\' && i + 1 < format.size()) {
      const char e = format[++i];
      text(e == 't' ? "\t" : e == 'n' ? "\n" : std::string(1, e));
    } else if (c == '%' && i + 1 < format.size() && format[i + 1] == '%') {
      text("%");
      ++i;
    } else if (c == '%' && i + 1 < format.size() && format[i + 1] == '{') {
      const size_t close = format.find('}', i + 2);
      if (close == std::string::npos)
        throw FormatError("--format has an unclosed %{ at character " + std::to_string(i + 1));
      field(format.substr(i + 2, close - i - 2));
      i = close;
    } else {
      text(std::string(1, c));
    }
  }
}

}  // namespace

void FoldSameOutlines(std::vector<OutputRow>& rows) {
  std::vector<OutputRow> kept;
  for (OutputRow& row : rows) {
    const auto twin = std::find_if(kept.begin(), kept.end(), [&](const OutputRow& k) {
      return row.outline_print && k.outline_print == row.outline_print && row.score && k.score &&
             std::fabs(*k.score - *row.score) < 1e-5;
    });
    if (twin == kept.end())
      kept.push_back(std::move(row));
    else
      twin->same_outlines.push_back(row.name);
  }
  rows = std::move(kept);
}

const std::vector<std::string>& FormatFields() {
  static const std::vector<std::string> kFields = {
      "name",       "family",    "style",     "file",    "index",   "weight",
      "width",      "slant",     "score",     "classes", "status",  "same_outlines",
      "confidence", "likeness",  "installed", "source",  "licence", "closest_installed",
      "where",      "look_alike"};
  return kFields;
}

void CheckFormat(const std::string& format) {
  Walk(
      format, [](const std::string&) {}, [](const std::string& field) { Field(field, OutputRow{}); });
}

std::string FormatRow(const std::string& format, const OutputRow& row) {
  std::string out;
  Walk(
      format, [&](const std::string& t) { out += t; }, [&](const std::string& f) { out += Field(f, row); });
  return out;
}

std::string FormatHeader(const std::string& format) {
  std::string out;
  Walk(
      format, [&](const std::string& t) { out += t; },
      [&](std::string f) {
        for (char& c : f) c = char(std::toupper(static_cast<unsigned char>(c)));
        out += f;
      });
  return out;
}

std::string JsonRow(const OutputRow& r) {
  std::string out = "{\"name\": " + JsonString(r.name) + ", \"family\": " + JsonString(r.family) +
                    ", \"style\": " + JsonString(r.style) + ", \"file\": " + JsonString(r.file) +
                    ", \"index\": " + std::to_string(r.index) + ", \"weight\": " + std::to_string(r.weight) +
                    ", \"width\": " + std::to_string(r.width) + ", \"slant\": " + std::to_string(r.slant);
  if (r.score) out += ", \"score\": " + Score(*r.score);
  if (r.confidence) out += ", \"confidence\": " + Score(*r.confidence);
  if (r.likeness) out += ", \"likeness\": " + Score(*r.likeness);
  if (r.classes) {
    out += ", \"classes\": [";
    bool first = true;
    for (int i = 0; i < 8; ++i)
      if (*r.classes & (1u << i)) out += std::string(first ? "" : ", ") + JsonString(kClassLabels[i]), first = false;
    out += "]";
  }
  if (r.status) out += ", \"status\": " + JsonString(*r.status);
  if (!r.same_outlines.empty()) {
    out += ", \"same_outlines\": [";
    for (size_t i = 0; i < r.same_outlines.size(); ++i) out += (i ? ", " : "") + JsonString(r.same_outlines[i]);
    out += "]";
  }
  if (r.installed) out += std::string(", \"installed\": ") + (*r.installed ? "true" : "false");
  if (!r.source.empty()) out += ", \"source\": " + JsonString(r.source);
  if (!r.licence.empty()) out += ", \"licence\": " + JsonString(r.licence);
  if (r.installed && !*r.installed) {
    out += ", \"closest_installed\": [";
    for (size_t i = 0; i < r.closest_installed.size(); ++i) out += (i ? ", " : "") + JsonString(r.closest_installed[i]);
    out += "]";
  }
  if (r.look_alike) out += ", \"look_alike\": " + JsonString(*r.look_alike);
  return out + "}";
}

}  // namespace fontrix::host
