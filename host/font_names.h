#pragma once
// The names of faces: one unique name for every usable face of the machine, and what people
// type resolved to one face the way fc-match users expect.
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "host/host.h"

namespace fontrix::host {

/// Makes the unique names of `fonts` (in list order) unique. A face whose name an earlier face
/// holds is
/// - a copy of that face when family, style and outline print are the same (the same face in
///   another file or format): it keeps the name and `duplicate_of` names the earlier face's file,
///   so the host answers "duplicate" for it;
/// - otherwise another face: it is renamed to the first free of "Family-Style" (spaces removed),
///   "Name-FileStem" and "Name-2", "Name-3", ... A derived name never takes a name some face of
///   the list carries of its own.
void NameFaces(std::vector<HostFont>& fonts);

/// A name as names are compared: lower case without spaces, hyphens and underscores ("Semi
/// Bold" == "semibold" == "SemiBold").
std::string FoldedName(const std::string& text);
/// ASCII lower case.
std::string LowerCase(std::string text);

/// Why the services leave a listed face out, as people read it; empty when they use it.
std::string UnusedReason(const HostFont& font);

/// A name that matches no face; what() says so and lists the closest names.
struct UnknownFont : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct ResolvedFont {
  const HostFont* font = nullptr;
  std::string note;  ///< what was chosen among several faces or substituted; empty when exact
};

/// What a user typed, resolved to one of `fonts` (the faces the services use), in this order:
/// the unique name (exact, then in any case); a font file (its first face); a family, or a
/// family followed by a style ("Open Sans Bold"), or a fontconfig pattern ("Open Sans:bold"),
/// with `style` added when given ("italic", "Semi Bold"): the face whose style is exactly the
/// one asked for, else the face fc-match chooses; a name fontconfig substitutes (an alias such
/// as Helvetica, or a generic family such as serif) resolves to its substitute. Throws
/// UnknownFont when nothing matches.
ResolvedFont ResolveFont(const std::vector<const HostFont*>& fonts, const std::string& typed,
                         const std::string& style = "");

/// Which faces `fontrix fonts PATTERN` keeps: those fc-list lists for the pattern (a family,
/// ":weight=bold", "DejaVu Sans:italic"), and, for a pattern without ':', those whose unique name
/// or family holds the text in any case.
class FontFilter {
 public:
  explicit FontFilter(const std::string& pattern);
  bool operator()(const HostFont& font) const;

 private:
  std::set<std::pair<std::string, int>> listed_;  // file and face index
  std::string text_;                              // lower case; empty: fontconfig's answer alone
};

}  // namespace fontrix::host
