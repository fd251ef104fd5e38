#pragma once
// Fonts the machine does not have, as the module's known fonts suite describes them: the open
// faces its data knows (installed or not) and the well-known families that are not open, with the
// open families that look like them. A document names such fonts; the tool answers with
// installed ones. The pure parts (names resolved, faces chosen by weight and slant) take their
// facts as arguments, so that they are tested without a module.
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/host.h"
#include "host/tool/table_names.h"

namespace fontrix::host {

/// An open face the module's data knows, as the known fonts suite lists it.
struct KnownFace {
  std::string name, family, style;
  int weight = 400;  ///< CSS weight
  bool italic = false, installed = false;
  std::string source, licence;  ///< "debian:PACKAGE" or "npm:@fontsource/ID"; its licence
};

/// A well-known family that is not open, as the known fonts suite gives it.
struct WellKnownFamily {
  std::string family, style_class;  ///< style_class: a label string such as "fs_sans_serif"
  std::vector<int> weights;         ///< CSS weights it comes in, ascending
  bool italic = false;
  struct LookAlike {
    std::string family, why;  ///< why: "clone", "revival" or "look-alike"
  };
  std::vector<LookAlike> look_alikes;  ///< best first
};

/// How a face compares with what was asked: CSS weight, slant, and a width other than normal.
struct FaceTraits {
  int weight = 400;
  bool italic = false, narrow_or_wide = false;
};
FaceTraits TraitsOf(const HostFont& font);
FaceTraits TraitsOf(const KnownFace& face);

/// The index of the face of `faces` nearest `wanted`: of the same slant first, then of the same
/// width class, then of the nearest weight, a tie going as CSS's font matching goes (to the
/// lighter for 500 and below, to the heavier above), then the first; faces.size() when empty.
size_t NearestFace(const std::vector<FaceTraits>& faces, const FaceTraits& wanted);
/// The weight of `weights` a family draws `wanted` with, by the same rule; `wanted` when empty.
int NearestWeight(const std::vector<int>& weights, int wanted);

/// How the phrase "why" words a look-alike of `family`: "clone of Arial", "revival of Garamond",
/// "looks like Gotham".
std::string LookAlikeWhy(const std::string& why, const std::string& family);

/// The known faces of a family are found under its name, and where the data names it with a
/// style word ("Montserrat Thin", as a web package's files say) under its bare name too, unless
/// a family has that name itself: "Roboto" is not "Roboto Condensed".
std::vector<const KnownFace*> FacesOfFamily(const std::vector<KnownFace>& faces, const std::string& family);
/// `faces` nearest `wanted` first, in NearestFace's order.
std::vector<const KnownFace*> NearestFirst(std::vector<const KnownFace*> faces, const FaceTraits& wanted);
/// A known face's style as people read it: its style name, or, where that name does not say its
/// weight and slant (a web package's "Regular" of weight 300), the CSS name of its weight
/// ("Light", "SemiBold Italic").
std::string StyleOf(const KnownFace& face);

/// Asks `ask` about the first face of each group (groups best first, each nearest what was asked
/// first) and, while it answers nothing (the data has a vector of none of them), about the next
/// of each; `round` is set to the round that answered. Empty when none does.
template <typename Answer>
Answer AskNearestFirst(const std::vector<std::vector<const KnownFace*>>& groups,
                       const std::function<Answer(const std::vector<std::string>&)>& ask, size_t& round) {
  for (round = 0;; ++round) {
    std::vector<std::string> names;
    for (const auto& group : groups)
      if (round < group.size()) names.push_back(group[round]->name);
    if (names.empty()) return {};
    Answer answer = ask(names);
    if (!answer.empty()) return answer;
  }
}

/// The known face a name asks for, the family name it was found under, and whether it is the
/// face asked for: its unique name, or the weight and slant its style words say.
struct KnownMatch {
  const KnownFace* face = nullptr;
  std::string family;
  bool exact = false;
};
/// What a user typed resolved among `faces` as the table's names are (ResolveTableFace), but by
/// the faces' own weights and slants, since a web package's style names may not say them: the
/// unique name (exact, then in any case; with `style`, the face of its family nearest that), a
/// fontconfig pattern, or a family (as FacesOfFamily finds it) with style words, and `style`
/// added; within a family the face nearest what was asked (NearestFace).
KnownMatch ResolveKnownFace(const std::vector<KnownFace>& faces, const std::string& typed, const std::string& style);

/// The ways `typed` reads as a family and trailing style words, the whole name first, split at
/// spaces and hyphens: "Gotham Light" is ("Gotham Light", "") and ("Gotham", "Light");
/// "HelveticaNeue-BoldItalic" ends with ("HelveticaNeue", "BoldItalic").
std::vector<std::pair<std::string, std::string>> FamilyAndStyle(const std::string& typed);
/// `asked` with what style words say over it: a weight they name (other than regular), italic, a
/// width other than normal.
FaceTraits WithStyle(FaceTraits asked, const std::string& words);

/// The well-known family a name asks for, and the face it asks of it.
struct WellKnownMatch {
  WellKnownFamily family;
  FaceTraits wanted;  ///< weight: one the family comes in
  std::string style;  ///< the style words asked ("Light", "Bold Italic"); empty when none
};
/// Looks `typed` up as a well-known family: the whole name (a family or an alias: an alias's
/// style words, "Calibri Light", say the face), then without its trailing style words ("Gotham
/// Light", "HelveticaNeue-BoldItalic"), or a fontconfig pattern's family ("Gotham:bold"); `style`
/// adds to what is asked, and what the name and `style` say adds to `asked` (WithStyle); the
/// weight is then the nearest the family comes in. `lookup` answers one name; nullopt when no
/// name finds a family.
std::optional<WellKnownMatch> ResolveWellKnown(
    const std::function<std::optional<WellKnownFamily>(const std::string&)>& lookup, const std::string& typed,
    const std::string& style, const FaceTraits& asked = {});

/// The module's known fonts suite, asked as another plug-in asks it. A module without the suite,
/// or without its data, knows no fonts: the lists are empty and every name is unknown.
class KnownFonts {
 public:
  explicit KnownFonts(Host& host) : host_(host) {}
  /// Every known face (fetched once). Throws Failure when the similarity service is not running.
  const std::vector<KnownFace>& Faces();
  /// The well-known family `name` names; nullopt when the table has none (or there is no suite).
  std::optional<WellKnownFamily> Family(const std::string& name);
  /// The installed fonts most like the known faces `names` (best first: weighted 1, 1/2, ...)
  /// with their scores; empty when none of them is known.
  std::vector<std::pair<std::string, double>> SimilarTo(const std::vector<std::string>& names);

 private:
  Host& host_;
  std::optional<std::vector<KnownFace>> faces_;
};

}  // namespace fontrix::host
