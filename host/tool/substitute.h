#pragma once
// What `fontrix substitute` decides for a CSS font-family list: keep it when this machine draws
// it (its first family, or a later one, is installed, or is drawn by an installed clone), else
// the installed face to set its text in instead, and why. The decision asks a FontWorld for the
// facts, so that it is tested without a module; the tool's world is the host and the module's
// suites.
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/host.h"
#include "host/tool/known_fonts.h"
#include "host/tool/table_names.h"

namespace fontrix::host {

/// A font-family value that cannot be read: an unclosed quote, an empty name.
struct FamilyListError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The families of a CSS font-family value, in order: quoted names (single or double quotes,
/// backslash escapes) unquoted, unquoted names with their runs of spaces made one. Throws
/// FamilyListError for a value without a family, an empty entry or an unclosed quote.
std::vector<std::string> ParseFamilyList(const std::string& css);

/// CSS's generic families ("serif", "sans-serif", "system-ui", ...) and fontconfig's own
/// ("sans", "mono"), in any case.
bool IsGenericFamily(const std::string& family);

/// What the decision asks of the machine and the module.
class FontWorld {
 public:
  virtual ~FontWorld() = default;
  /// The installed faces, copies of one face left out.
  virtual const std::vector<const HostFont*>& Installed() = 0;
  /// The installed faces fontconfig lists under `name` as another of their family names (a
  /// localised or older one, or a width's: "DejaVu Sans Condensed").
  virtual std::vector<const HostFont*> ListedAs(const std::string& name) = 0;
  /// The family fontconfig draws `name` with when it substitutes one (an alias); "" when it
  /// would draw its default font, as for any unknown name.
  virtual std::string DrawnWith(const std::string& name) = 0;
  /// The installed face fontconfig draws the generic family `generic` with at `wanted`.
  virtual const HostFont* Generic(const std::string& generic, const FaceTraits& wanted) = 0;
  /// The module's well-known family `name` names (a family or an alias); nullopt when none.
  virtual std::optional<WellKnownFamily> WellKnown(const std::string& name) = 0;
  /// The module's known faces, installed or not.
  virtual const std::vector<KnownFace>& Known() = 0;
  /// The installed fonts most like the known faces `names` (weighted best first), best first.
  virtual std::vector<std::string> SimilarToKnown(const std::vector<std::string>& names) = 0;
  /// The faces of the module's shipped similarity table.
  virtual const std::vector<TableFace>& Table() = 0;
  /// The installed fonts most like the table's face `name`, best first.
  virtual std::vector<std::string> SimilarToTable(const std::string& name) = 0;
};

/// The answer for one font-family list.
struct Substitution {
  std::string requested;
  std::string action;              ///< "keep", "replace" or "none"
  const HostFont* face = nullptr;  ///< the face that draws the text; null for "none"
  /// installed, fallback, clone, revival, look-alike, similar, known-face, table-face or unknown
  std::string kind;
  std::string why;
};

/// Decides for the font-family list `css` (valid for ParseFamilyList) at the weight and slant
/// `wanted`.
Substitution Substitute(FontWorld& world, const std::string& css, const FaceTraits& wanted);

/// The substitution as a JSON object: requested, action, family, face (unique name), style,
/// weight (CSS), italic, width (per cent; weight, italic and width null without a face), kind, why.
std::string JsonSubstitution(const Substitution& s);

}  // namespace fontrix::host
