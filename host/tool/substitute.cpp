// fontrix substitute's decision: a font-family list kept when this machine draws it, else its
// first family replaced by the installed face that stands in for it best, with why.
#include "host/tool/substitute.h"

#include <algorithm>
#include <cctype>
#include <set>

#include "host/font_names.h"
#include "host/tool/json.h"

namespace fontrix::host {
namespace {

// Family names as fontconfig compares them: case and spaces do not count.
std::string Blankless(const std::string& name) {
  std::string out;
  for (unsigned char c : name)
    if (c != ' ') out += char(std::tolower(c));
  return out;
}

std::string StyleClassName(const std::string& label) {
  std::string name = label.rfind("fs_", 0) == 0 ? label.substr(3) : label;
  std::replace(name.begin(), name.end(), '_', ' ');
  return name;
}

// The generic family that stands for a style class where nothing else does.
const char* GenericOfClass(const std::string& label) {
  if (label == "fs_serif" || label == "fs_slab_serif") return "serif";
  if (label == "fs_monospace") return "monospace";
  if (label == "fs_script" || label == "fs_handmade") return "cursive";
  if (label == "fs_decorative" || label == "fs_blackletter") return "fantasy";
  return "sans-serif";
}

class Decision {
 public:
  Decision(FontWorld& world, const std::string& css, const FaceTraits& wanted)
      : world_(world), families_(ParseFamilyList(css)), wanted_(wanted) {
    answer_.requested = css;
  }

  Substitution Decide() {
    if (Kept()) return answer_;
    // The first family is replaced; where Fontrix knows nothing of it, the next family it knows
    // before a generic name stands for what the list asks, as it would draw where installed.
    std::optional<Substitution> unanswered;  // a family Fontrix knows but has no stand-in for
    for (const std::string& family : families_) {
      if (IsGenericFamily(family)) break;
      if (!FromInstalledFace(family) && !FromWellKnown(family) && !FromKnownFace(family) && !FromTable(family))
        continue;
      if (answer_.action == "none") {
        if (!unanswered) unanswered = answer_;
        continue;
      }
      if (family != families_[0])
        answer_.why = families_[0] + (unanswered ? " has no stand-in here; " : " is unknown; ") + family +
                      ", later in the list: " + answer_.why;
      return answer_;
    }
    if (unanswered) return *unanswered;
    Answer("none", nullptr, "unknown", "unknown font");
    return answer_;
  }

 private:
  // The installed faces of a family (by fontconfig's comparison of names).
  std::vector<const HostFont*> FacesOf(const std::string& family) {
    std::vector<const HostFont*> faces;
    for (const HostFont* f : world_.Installed())
      if (Blankless(f->family) == Blankless(family)) faces.push_back(f);
    return faces;
  }

  const HostFont* Nearest(const std::vector<const HostFont*>& faces, const FaceTraits& wanted) const {
    std::vector<FaceTraits> traits;
    for (const HostFont* f : faces) traits.push_back(TraitsOf(*f));
    const size_t i = NearestFace(traits, wanted);
    return i < faces.size() ? faces[i] : nullptr;
  }

  void Answer(const char* action, const HostFont* face, const std::string& kind, const std::string& why) {
    answer_.action = action;
    answer_.face = face;
    answer_.kind = kind;
    answer_.why = why;
  }

  // The list stays when one of its families, before the first generic name, is drawn here.
  bool Kept() {
    for (size_t i = 0; i < families_.size(); ++i) {
      const std::string& family = families_[i];
      const std::string later = i ? family + ", later in the list, " : "";
      if (IsGenericFamily(family)) {
        // A generic name always draws, so nothing after it is reached; alone it is not a font
        // this machine lacks.
        if (i > 0) return false;
        const HostFont* face = world_.Generic(family, wanted_);
        if (!face) return false;
        Answer("keep", face, "fallback", family + " is a generic family, drawn here with " + face->family);
        return true;
      }
      std::vector<const HostFont*> faces = FacesOf(family);
      std::string why = i ? later + "is installed" : "installed";
      if (faces.empty()) {
        faces = world_.ListedAs(family);
        if (!faces.empty()) why = (i ? later : family + " ") + "is installed, another name of " + faces[0]->family;
      }
      std::string kind = i ? "fallback" : "installed";
      if (faces.empty()) {
        // A well-known family fontconfig draws with an installed clone (its metric aliases).
        const std::optional<WellKnownFamily> known = world_.WellKnown(family);
        const std::string drawn = known ? world_.DrawnWith(family) : "";
        if (!drawn.empty())
          for (const WellKnownFamily::LookAlike& a : known->look_alikes)
            if (a.why == "clone" && Blankless(a.family) == Blankless(drawn) && !FacesOf(drawn).empty()) {
              faces = FacesOf(drawn);
              why = (i ? later : family + " ") + "is drawn here with " + drawn + ", its clone";
              kind = i ? "fallback" : "clone";
              break;
            }
      }
      if (!faces.empty()) {
        Answer("keep", Nearest(faces, wanted_), kind, why);
        return true;
      }
    }
    return false;
  }

  // The installed answer a similarity query gives first, at the face of its family nearest
  // what was asked.
  const HostFont* FirstInstalled(const std::vector<std::string>& answers, const FaceTraits& wanted) {
    for (const std::string& name : answers)
      for (const HostFont* f : world_.Installed())
        if (f->unique_name == name) return Nearest(FacesOf(f->family), wanted);
    return nullptr;
  }

  // A face named as a family, as files converted from other formats name them ("DejaVu Sans
  // Bold"): fontconfig knows no such family, but its family is installed.
  bool FromInstalledFace(const std::string& name) {
    const auto splits = FamilyAndStyle(name);
    for (size_t i = 1; i < splits.size(); ++i) {
      const auto& [family, words] = splits[i];
      const std::vector<const HostFont*> faces = FacesOf(family);
      if (faces.empty()) continue;
      const HostFont* face = Nearest(faces, WithStyle(wanted_, words));
      Answer("replace", face, "installed", name + " is a face of the installed family " + face->family);
      return true;
    }
    return false;
  }

  bool FromWellKnown(const std::string& name) {
    const std::optional<WellKnownMatch> match =
        ResolveWellKnown([this](const std::string& n) { return world_.WellKnown(n); }, name, "", wanted_);
    if (!match) return false;
    const WellKnownFamily& family = match->family;
    // The first look-alike installed, best first.
    for (const WellKnownFamily::LookAlike& a : family.look_alikes) {
      const std::vector<const HostFont*> faces = FacesOf(a.family);
      if (!faces.empty()) {
        Answer("replace", Nearest(faces, match->wanted), a.why, LookAlikeWhy(a.why, family.family));
        return true;
      }
    }
    // None is: the installed fonts most like the look-alikes' faces the module knows, the
    // nearest of each that the data has a vector of.
    std::vector<std::vector<const KnownFace*>> groups;
    for (const WellKnownFamily::LookAlike& a : family.look_alikes)
      groups.push_back(NearestFirst(FacesOfFamily(world_.Known(), a.family), match->wanted));
    size_t round = 0;
    const std::vector<std::string> answers = AskNearestFirst<std::vector<std::string>>(
        groups, [this](const std::vector<std::string>& names) { return world_.SimilarToKnown(names); }, round);
    if (const HostFont* face = FirstInstalled(answers, match->wanted)) {
      size_t k = 0;
      while (groups[k].size() <= round) ++k;
      const WellKnownFamily::LookAlike& a = family.look_alikes[k];
      Answer("replace", face, "similar",
             "most like " + a.family + " " + StyleOf(*groups[k][round]) + ", which " +
                 (a.why == "look-alike" ? "looks like " : "is a " + a.why + " of ") + family.family +
                 " (not installed)");
      return true;
    }
    // Nothing known of them: the generic family of the style class, as a browser would fall back.
    std::string alikes;  // "A", "A and B", "A, B and C"
    const auto& all = family.look_alikes;
    for (size_t i = 0; i < all.size(); ++i)
      alikes += (i == 0 ? "" : i + 1 == all.size() ? " and " : ", ") + all[i].family;
    const char* generic = GenericOfClass(family.style_class);
    const HostFont* face = world_.Generic(generic, match->wanted);
    if (!face) return false;
    Answer("replace", face, "fallback",
           family.family + " is a " + StyleClassName(family.style_class) + " family whose look-alike" +
               (all.size() == 1 ? " " + alikes + " is" : "s " + alikes + " are") +
               " neither installed nor known here: the " + generic + " font");
    return true;
  }

  bool FromKnownFace(const std::string& name) {
    for (const auto& [family, words] : FamilyAndStyle(name)) {
      const FaceTraits wanted = WithStyle(wanted_, words);
      const std::vector<const KnownFace*> faces = NearestFirst(FacesOfFamily(world_.Known(), family), wanted);
      if (faces.empty()) continue;
      // The face nearest what was asked that the data has a vector of.
      size_t round = 0;
      const std::vector<std::string> answers = AskNearestFirst<std::vector<std::string>>(
          {faces}, [this](const std::vector<std::string>& names) { return world_.SimilarToKnown(names); }, round);
      const KnownFace& face = *faces[std::min(round, faces.size() - 1)];
      const std::string where = " (" + face.source + ", " + face.licence + ")";
      if (const HostFont* answer = FirstInstalled(answers, wanted)) {
        Answer("replace", answer, "known-face",
               "most like " + face.family + " " + StyleOf(face) + ", an open font not installed here" + where);
      } else {
        Answer("none", nullptr, "known-face",
               face.family + " is an open font not installed here" + where +
                   ", and no installed font is known to be like it");
      }
      return true;
    }
    return false;
  }

  bool FromTable(const std::string& name) {
    std::vector<TableFace> missing;
    for (const TableFace& f : world_.Table())
      if (!f.installed) missing.push_back(f);
    for (const auto& [family, words] : FamilyAndStyle(name)) {
      std::vector<FaceTraits> traits;
      std::vector<const TableFace*> faces;
      for (const TableFace& f : missing)
        if (FoldedName(f.family) == FoldedName(family)) {
          const StyleTraits t = TraitsOfStyle(f.style);
          faces.push_back(&f);
          traits.push_back({t.weight, t.italic, t.narrow_or_wide});
        }
      if (faces.empty()) continue;
      const FaceTraits wanted = WithStyle(wanted_, words);
      const TableFace& face = *faces[NearestFace(traits, wanted)];
      const HostFont* answer = FirstInstalled(world_.SimilarToTable(face.name), wanted);
      if (!answer) return false;
      Answer("replace", answer, "table-face",
             "most like " + face.family + " " + face.style +
                 ", a face of the module's similarity table that is not installed");
      return true;
    }
    return false;
  }

  FontWorld& world_;
  const std::vector<std::string> families_;
  const FaceTraits wanted_;
  Substitution answer_;
};

}  // namespace

std::vector<std::string> ParseFamilyList(const std::string& css) {
  std::vector<std::string> families;
  size_t i = 0;
  auto space = [&](size_t at) { return at < css.size() && std::isspace(static_cast<unsigned char>(css[at])); };
  while (true) {
    while (space(i)) ++i;
    std::string name;
    if (i < css.size() && (css[i] == '\'' || css[i] == '"')) {
      const char quote = css[i++];
      for (; i < css.size() && css[i] != quote; ++i) {
        if (css[i] == '\\' && i + 1 < css.size()) ++i;
        name += css[i];
      }
      if (i >= css.size()) throw FamilyListError("an unclosed quote in the font-family list '" + css + "'");
      ++i;
      while (space(i)) ++i;
      if (i < css.size() && css[i] != ',')
        throw FamilyListError("text after a quoted name in the font-family list '" + css + "'");
    } else {
      // Unquoted: identifiers, their runs of spaces made one.
      for (; i < css.size() && css[i] != ','; ++i) {
        if (space(i)) {
          if (!name.empty() && name.back() != ' ') name += ' ';
        } else {
          name += css[i];
        }
      }
      while (!name.empty() && name.back() == ' ') name.pop_back();
    }
    if (name.empty() || name.find_first_not_of(' ') == std::string::npos)
      throw FamilyListError(css.find_first_not_of(" \t\n") == std::string::npos
                                ? "an empty font-family list"
                                : "an empty name in the font-family list '" + css + "'");
    families.push_back(name);
    if (i >= css.size()) return families;
    ++i;  // the comma
  }
}

bool IsGenericFamily(const std::string& family) {
  static const std::set<std::string> kGeneric = {
      "serif",        "sans-serif", "monospace", "cursive", "fantasy",  "system-ui", "ui-serif", "ui-sans-serif",
      "ui-monospace", "ui-rounded", "math",      "emoji",   "fangsong", "sans",      "mono"};
  return kGeneric.count(LowerCase(family)) > 0;
}

Substitution Substitute(FontWorld& world, const std::string& css, const FaceTraits& wanted) {
  return Decision(world, css, wanted).Decide();
}

std::string JsonSubstitution(const Substitution& s) {
  const HostFont* f = s.face;
  const FaceTraits traits = f ? TraitsOf(*f) : FaceTraits{};
  return "{\"requested\": " + JsonString(s.requested) + ", \"action\": " + JsonString(s.action) +
         ", \"family\": " + JsonString(f ? f->family : "") + ", \"face\": " + JsonString(f ? f->unique_name : "") +
         ", \"style\": " + JsonString(f ? f->style : "") +
         (f ? ", \"weight\": " + std::to_string(traits.weight) + ", \"italic\": " + (traits.italic ? "true" : "false") +
                  ", \"width\": " + std::to_string(f->width)
            : ", \"weight\": null, \"italic\": null, \"width\": null") +
         ", \"kind\": " + JsonString(s.kind) + ", \"why\": " + JsonString(s.why) + "}";
}

}  // namespace fontrix::host
