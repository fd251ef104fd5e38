// Names of the shipped table's faces resolved as the names of installed faces are, without
// fontconfig's matching (it knows only installed faces): styles are compared by what their
// names say of weight, slant and width.
#include "host/tool/table_names.h"

#include <fontconfig/fontconfig.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <limits>
#include <sstream>

#include "host/font_names.h"

namespace fontrix::host {
namespace {

bool Has(const std::string& folded, const char* word) { return folded.find(word) != std::string::npos; }

int Cost(const StyleTraits& want, const StyleTraits& have) {
  return (want.italic != have.italic ? 10000 : 0) + (want.narrow_or_wide != have.narrow_or_wide ? 1000 : 0) +
         std::abs(want.weight - have.weight);
}

TableMatch InFamily(const std::vector<const TableFace*>& family, const AskedFace& wanted) {
  if (!wanted.style.empty())
    for (const TableFace* f : family)
      if (FoldedName(f->style) == FoldedName(wanted.style)) return {f, true};
  const TableFace* best = nullptr;
  int best_cost = std::numeric_limits<int>::max();
  for (const TableFace* f : family) {
    const int cost = Cost(wanted.traits, TraitsOfStyle(f->style));
    if (cost < best_cost) best = f, best_cost = cost;
  }
  return {best, false};
}

std::vector<const TableFace*> FamilyFaces(const std::vector<TableFace>& faces, const std::string& family) {
  std::vector<const TableFace*> out;
  for (const TableFace& f : faces)
    if (FoldedName(f.family) == FoldedName(family)) out.push_back(&f);
  return out;
}

}  // namespace

bool IsStyleName(const std::string& text) {
  static const char* const kWords[] = {"italic",  "oblique",   "regular", "book",       "normal",   "roman",
                                       "upright", "condensed", "narrow",  "compressed", "expanded", "extended",
                                       "semi",    "demi",      "extra",   "ultra",      "hairline", "thin",
                                       "light",   "medium",    "bold",    "black",      "heavy"};
  std::string rest = FoldedName(text);
  while (!rest.empty()) {
    size_t taken = 0;
    for (const char* word : kWords)
      if (rest.compare(0, std::string(word).size(), word) == 0) taken = std::max(taken, std::string(word).size());
    if (!taken) return false;
    rest.erase(0, taken);
  }
  return true;
}

AskedFace ParseFacePattern(const std::string& typed, const std::string& style) {
  AskedFace asked;
  FcPattern* pattern = FcNameParse(reinterpret_cast<const FcChar8*>(typed.c_str()));
  if (!pattern) return asked;
  FcChar8* value = nullptr;
  if (FcPatternGetString(pattern, FC_FAMILY, 0, &value) == FcResultMatch)
    asked.family = reinterpret_cast<const char*>(value);
  if (FcPatternGetString(pattern, FC_STYLE, 0, &value) == FcResultMatch) {
    asked.style = reinterpret_cast<const char*>(value);
    asked.traits = TraitsOfStyle(asked.style);
  }
  // ":bold" parses to an integer, ":weight=187.5" to a double.
  FcValue weight;
  if (FcPatternGet(pattern, FC_WEIGHT, 0, &weight) == FcResultMatch &&
      (weight.type == FcTypeInteger || weight.type == FcTypeDouble))
    asked.traits.weight =
        int(FcWeightToOpenTypeDouble(weight.type == FcTypeInteger ? double(weight.u.i) : weight.u.d) + 0.5);
  int slant = 0;
  if (FcPatternGetInteger(pattern, FC_SLANT, 0, &slant) == FcResultMatch) asked.traits.italic = slant > 0;
  int width = 0;
  if (FcPatternGetInteger(pattern, FC_WIDTH, 0, &width) == FcResultMatch) asked.traits.narrow_or_wide = width != 100;
  FcPatternDestroy(pattern);
  // A style adds to the pattern as it does for installed faces: "Family:bold" in italic.
  if (!style.empty()) {
    const StyleTraits added = TraitsOfStyle(style);
    if (added.weight != StyleTraits().weight) asked.traits.weight = added.weight;
    asked.traits.italic = asked.traits.italic || added.italic;
    asked.traits.narrow_or_wide = asked.traits.narrow_or_wide || added.narrow_or_wide;
    asked.style.clear();
  }
  return asked;
}

StyleTraits TraitsOfStyle(const std::string& style) {
  // Longer names first: "semibold" holds "bold", "extralight" holds "light".
  static const std::pair<const char*, int> kWeights[] = {
      {"extrablack", 950}, {"ultrablack", 950}, {"extrabold", 800},  {"ultrabold", 800}, {"semibold", 600},
      {"demibold", 600},   {"extralight", 200}, {"ultralight", 200}, {"semilight", 350}, {"demilight", 350},
      {"hairline", 100},   {"thin", 100},       {"light", 300},      {"medium", 500},    {"black", 900},
      {"heavy", 900},      {"bold", 700}};
  const std::string folded = FoldedName(style);
  StyleTraits traits;
  for (const auto& [word, weight] : kWeights)
    if (Has(folded, word)) {
      traits.weight = weight;
      break;
    }
  traits.italic = Has(folded, "italic") || Has(folded, "oblique");
  for (const char* word : {"condensed", "narrow", "compressed", "expanded", "extended"})
    traits.narrow_or_wide = traits.narrow_or_wide || Has(folded, word);
  return traits;
}

TableMatch ResolveTableFace(const std::vector<TableFace>& faces, const std::string& typed, const std::string& style) {
  for (const bool exact : {true, false})
    for (const TableFace& f : faces)
      if (exact ? f.name == typed : LowerCase(f.name) == LowerCase(typed))
        return style.empty() ? TableMatch{&f, true}
                             : InFamily(FamilyFaces(faces, f.family), {f.family, style, TraitsOfStyle(style)});
  if (typed.find(':') != std::string::npos) {
    const AskedFace asked = ParseFacePattern(typed, style);
    const auto family_faces = FamilyFaces(faces, asked.family);
    return family_faces.empty() ? TableMatch{} : InFamily(family_faces, asked);
  }
  // The longest run of leading words that names a family; the words after it are a style.
  std::vector<std::string> words;
  std::istringstream in(typed);
  for (std::string w; in >> w;) words.push_back(w);
  for (size_t n = words.size(); n > 0; --n) {
    std::string family, rest;
    for (size_t k = 0; k < words.size(); ++k) (k < n ? family : rest) += (k == 0 || k == n ? "" : " ") + words[k];
    const auto family_faces = FamilyFaces(faces, family);
    if (family_faces.empty() || !IsStyleName(rest)) continue;
    const std::string asked = rest.empty() ? style : style.empty() ? rest : rest + " " + style;
    return InFamily(family_faces, {family, asked, TraitsOfStyle(asked)});
  }
  return {};
}

}  // namespace fontrix::host
