// Fonts the machine lacks, as the module knows them: names resolved among its known faces and
// well-known families, faces chosen by weight and slant, and its known fonts suite asked as
// another plug-in asks it.
#include "host/tool/known_fonts.h"

#include <fontconfig/fontconfig.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <tuple>

#include "host/font_names.h"
#include "host/tool/queries.h"
#include "sdk/fontrix_suites.h"

namespace fontrix::host {
namespace {

// What orders faces for a wanted one: the slant, then the width class, then the distance in
// weight, then, at the same distance, CSS's side (lighter up to 500, heavier above).
std::tuple<bool, bool, int, bool> Distance(const FaceTraits& face, const FaceTraits& wanted) {
  const bool wrong_side = wanted.weight <= 500 ? face.weight > wanted.weight : face.weight < wanted.weight;
  return {face.italic != wanted.italic, face.narrow_or_wide != wanted.narrow_or_wide,
          std::abs(face.weight - wanted.weight), wrong_side};
}

// "Montserrat" for "Montserrat Thin": the family without its trailing style words, or "" when it
// has none (or is nothing else).
std::string BareFamily(const std::string& family) {
  std::vector<std::string> words;
  std::istringstream in(family);
  for (std::string w; in >> w;) words.push_back(w);
  for (size_t n = 1; n < words.size(); ++n) {
    std::string bare, rest;
    for (size_t k = 0; k < words.size(); ++k) (k < n ? bare : rest) += (k == 0 || k == n ? "" : " ") + words[k];
    if (IsStyleName(rest)) return bare;
  }
  return "";
}

// The words of a name, split at spaces and hyphens ("HelveticaNeue-BoldItalic").
std::vector<std::string> NameWords(const std::string& text) {
  std::vector<std::string> words;
  std::string word;
  for (char c : text + " ") {
    if (c == ' ' || c == '-') {
      if (!word.empty()) words.push_back(word);
      word.clear();
    } else {
      word += c;
    }
  }
  return words;
}

WellKnownMatch Matched(const WellKnownFamily& family, const std::string& style, FaceTraits wanted) {
  wanted.weight = NearestWeight(family.weights, wanted.weight);
  return {family, wanted, style};
}

std::string Joined(const std::string& a, const std::string& b) { return a.empty() ? b : b.empty() ? a : a + " " + b; }

}  // namespace

FaceTraits TraitsOf(const HostFont& font) {
  return {int(FcWeightToOpenTypeDouble(font.weight) + 0.5), font.slant > 0, font.width != 100};
}

FaceTraits TraitsOf(const KnownFace& face) {
  // The width is said by the style, or by a family named for it ("Roboto Condensed").
  return {face.weight, face.italic, TraitsOfStyle(face.style + " " + face.family).narrow_or_wide};
}

size_t NearestFace(const std::vector<FaceTraits>& faces, const FaceTraits& wanted) {
  size_t best = faces.size();
  for (size_t i = 0; i < faces.size(); ++i)
    if (best == faces.size() || Distance(faces[i], wanted) < Distance(faces[best], wanted)) best = i;
  return best;
}

int NearestWeight(const std::vector<int>& weights, int wanted) {
  std::vector<FaceTraits> faces;
  for (int w : weights) faces.push_back({w, false, false});
  const size_t i = NearestFace(faces, {wanted, false, false});
  return i < weights.size() ? weights[i] : wanted;
}

std::string LookAlikeWhy(const std::string& why, const std::string& family) {
  if (why == "clone") return "clone of " + family;
  if (why == "revival") return "revival of " + family;
  return "looks like " + family;
}

std::vector<const KnownFace*> FacesOfFamily(const std::vector<KnownFace>& faces, const std::string& family) {
  const std::string wanted = FoldedName(family);
  std::vector<const KnownFace*> out;
  for (const KnownFace& f : faces)
    if (FoldedName(f.family) == wanted) out.push_back(&f);
  // The bare name only where no family has the name itself: "Roboto" is not "Roboto Condensed".
  if (out.empty())
    for (const KnownFace& f : faces)
      if (FoldedName(BareFamily(f.family)) == wanted) out.push_back(&f);
  return out;
}

std::vector<std::pair<std::string, std::string>> FamilyAndStyle(const std::string& typed) {
  std::vector<std::pair<std::string, std::string>> splits = {{typed, ""}};
  const std::vector<std::string> words = NameWords(typed);
  for (size_t n = words.size(); n-- > 1;) {
    std::string name, rest;
    for (size_t k = 0; k < words.size(); ++k) (k < n ? name : rest) += (k == 0 || k == n ? "" : " ") + words[k];
    if (IsStyleName(rest)) splits.emplace_back(name, rest);
  }
  return splits;
}

FaceTraits WithStyle(FaceTraits asked, const std::string& words) {
  const StyleTraits said = TraitsOfStyle(words);
  if (said.weight != StyleTraits().weight) asked.weight = said.weight;
  asked.italic = asked.italic || said.italic;
  asked.narrow_or_wide = asked.narrow_or_wide || said.narrow_or_wide;
  return asked;
}

std::vector<const KnownFace*> NearestFirst(std::vector<const KnownFace*> faces, const FaceTraits& wanted) {
  std::stable_sort(faces.begin(), faces.end(), [&](const KnownFace* a, const KnownFace* b) {
    return Distance(TraitsOf(*a), wanted) < Distance(TraitsOf(*b), wanted);
  });
  return faces;
}

std::string StyleOf(const KnownFace& face) {
  const StyleTraits said = TraitsOfStyle(face.style);
  if (said.weight == face.weight && said.italic == face.italic) return face.style;
  static const std::pair<int, const char*> kNames[] = {
      {100, "Thin"},     {200, "ExtraLight"}, {300, "Light"},     {400, "Regular"}, {500, "Medium"},
      {600, "SemiBold"}, {700, "Bold"},       {800, "ExtraBold"}, {900, "Black"},   {950, "ExtraBlack"}};
  const char* name = kNames[0].second;
  int off = std::abs(kNames[0].first - face.weight);
  for (const auto& [weight, word] : kNames)
    if (std::abs(weight - face.weight) < off) name = word, off = std::abs(weight - face.weight);
  if (!face.italic) return name;
  return std::string(name) == "Regular" ? "Italic" : std::string(name) + " Italic";
}

KnownMatch ResolveKnownFace(const std::vector<KnownFace>& faces, const std::string& typed, const std::string& style) {
  // The face of `family` nearest `wanted`; exact when something was asked and it has just that.
  auto in_family = [&](const std::string& family, const FaceTraits& wanted, bool asked) -> KnownMatch {
    const std::vector<const KnownFace*> members = NearestFirst(FacesOfFamily(faces, family), wanted);
    if (members.empty()) return {};
    const KnownFace* f = members[0];
    const FaceTraits have = TraitsOf(*f);
    return {f, FoldedName(f->family) == FoldedName(family) ? f->family : BareFamily(f->family),
            asked && have.weight == wanted.weight && have.italic == wanted.italic &&
                have.narrow_or_wide == wanted.narrow_or_wide};
  };
  for (const bool exact : {true, false})
    for (const KnownFace& f : faces)
      if (exact ? f.name == typed : LowerCase(f.name) == LowerCase(typed))
        return style.empty() ? KnownMatch{&f, f.family, true} : in_family(f.family, WithStyle({}, style), true);
  if (typed.find(':') != std::string::npos) {
    const AskedFace asked = ParseFacePattern(typed, style);
    return in_family(asked.family, {asked.traits.weight, asked.traits.italic, asked.traits.narrow_or_wide}, true);
  }
  for (const auto& [family, words] : FamilyAndStyle(typed)) {
    const std::string asked = Joined(words, style);
    if (const KnownMatch match = in_family(family, WithStyle({}, asked), !asked.empty()); match.face) return match;
  }
  return {};
}

std::optional<WellKnownMatch> ResolveWellKnown(
    const std::function<std::optional<WellKnownFamily>(const std::string&)>& lookup, const std::string& typed,
    const std::string& style, const FaceTraits& asked) {
  if (typed.find(':') != std::string::npos) {
    const AskedFace pattern = ParseFacePattern(typed, "");
    if (pattern.family.empty()) return std::nullopt;
    const std::optional<WellKnownFamily> family = lookup(pattern.family);
    if (!family) return std::nullopt;
    FaceTraits wanted = asked;
    if (pattern.traits.weight != StyleTraits().weight) wanted.weight = pattern.traits.weight;
    wanted.italic = wanted.italic || pattern.traits.italic;
    wanted.narrow_or_wide = wanted.narrow_or_wide || pattern.traits.narrow_or_wide;
    return Matched(*family, Joined(pattern.style, style), WithStyle(wanted, style));
  }
  for (const auto& [name, words] : FamilyAndStyle(typed)) {
    const std::optional<WellKnownFamily> family = lookup(name);
    if (!family) continue;
    // An alias may carry style words of its own: "Calibri Light" is Calibri's light face.
    const bool alias = words.empty() && FoldedName(family->family) != FoldedName(name);
    return Matched(*family, Joined(words, style), WithStyle(asked, Joined(alias ? name : words, style)));
  }
  return std::nullopt;
}

// The suite, acquired for one call and released after it; nullptr when the module has none.
namespace {
class Suite {
 public:
  explicit Suite(Host& host)
      : host_(host),
        suite_(static_cast<const FontrixKnownFontsSuite*>(
            host.AcquireSuite(kFontrixKnownFontsSuite, kFontrixKnownFontsSuiteVersion))) {}
  ~Suite() {
    if (suite_) host_.ReleaseSuite(kFontrixKnownFontsSuite, kFontrixKnownFontsSuiteVersion);
  }
  Suite(const Suite&) = delete;
  Suite& operator=(const Suite&) = delete;
  const FontrixKnownFontsSuite* operator->() const { return suite_; }
  explicit operator bool() const { return suite_ != nullptr; }

 private:
  Host& host_;
  const FontrixKnownFontsSuite* suite_;
};

void CheckKnown(QVErr err, const std::string& what) {
  if (err == kQVNotInitialisedErr)
    throw Failure("the similarity service is not running (switched off, or its data is missing)");
  Check(err, what);
}
}  // namespace

const std::vector<KnownFace>& KnownFonts::Faces() {
  if (faces_) return *faces_;
  std::vector<KnownFace> faces;
  if (Suite suite{host_}) {
    FontrixKnownFaceList list{&faces, [](void* c, const FontrixKnownFace* f) {
                                static_cast<std::vector<KnownFace>*>(c)->push_back(
                                    {f->name, f->family, f->style, f->weight, f->italic != 0, f->installed != 0,
                                     f->source ? f->source : "", f->licence ? f->licence : ""});
                              }};
    CheckKnown(suite->GetKnownFaces(&list), "listing the known faces");
  }
  faces_ = std::move(faces);
  return *faces_;
}

std::optional<WellKnownFamily> KnownFonts::Family(const std::string& name) {
  Suite suite{host_};
  if (!suite) return std::nullopt;
  std::optional<WellKnownFamily> found;
  const QVErr err = suite->GetKnownFamily(name.c_str(), &found, [](void* c, const FontrixKnownFamily* f) {
    WellKnownFamily family;
    family.family = f->family;
    family.style_class = f->styleClass ? f->styleClass : "";
    family.weights.assign(f->weights, f->weights + f->weightCount);
    family.italic = f->italic != 0;
    for (int32_t i = 0; i < f->openFamilyCount; ++i) family.look_alikes.push_back({f->openFamilies[i], f->why[i]});
    *static_cast<std::optional<WellKnownFamily>*>(c) = std::move(family);
  });
  if (err == kQVNotFoundErr) return std::nullopt;
  CheckKnown(err, "the known family query");
  return found;
}

std::vector<std::pair<std::string, double>> KnownFonts::SimilarTo(const std::vector<std::string>& names) {
  std::vector<std::pair<std::string, double>> found;
  Suite suite{host_};
  if (!suite || names.empty()) return found;
  std::vector<const char*> pointers;
  for (const std::string& n : names) pointers.push_back(n.c_str());
  FontrixFontList list{&found, [](void* c) { static_cast<std::vector<std::pair<std::string, double>>*>(c)->clear(); },
                       [](void* c, const FontrixFontResult* f) {
                         static_cast<std::vector<std::pair<std::string, double>>*>(c)->emplace_back(f->name, f->score);
                       }};
  const QVErr err = suite->GetSimilarToKnownFaces(pointers.data(), int32_t(pointers.size()), &list);
  if (err == kQVNotFoundErr) return {};
  CheckKnown(err, "the similar-font query");
  return found;
}

}  // namespace fontrix::host
