#pragma once
// The faces of the module's shipped similarity table as people name them: a document may name a
// face the machine lacks, and the table still knows what it looks like.
#include <string>
#include <vector>

namespace fontrix::host {

/// A face of the shipped table, as "QV Fontrix Table Suite" lists it.
struct TableFace {
  std::string name, family, style;
  bool installed = false;
};

struct TableMatch {
  const TableFace* face = nullptr;  ///< null: no face of `faces` is so named
  bool exact = false;               ///< the unique name, or a family and its style as asked
};

/// What a user typed resolved among `faces` the way installed fonts are: the unique name (exact,
/// then in any case); a family alone or followed by a style ("Averia Libre Bold"); a fontconfig
/// pattern ("Averia Libre:bold:italic", ":weight=...", ":slant=..."); with `style` added
/// ("italic", "Semi Bold"). Within a family: the face whose style is the one asked for, else the
/// nearest in weight of the same slant, normal widths first (the regular face when no style is
/// asked).
TableMatch ResolveTableFace(const std::vector<TableFace>& faces, const std::string& typed, const std::string& style);

/// What a style name says: a CSS weight (100-950), italic or oblique, and a width other than normal.
struct StyleTraits {
  int weight = 400;
  bool italic = false, narrow_or_wide = false;
};
StyleTraits TraitsOfStyle(const std::string& style);

/// Whether `text` is made only of the words style names are made of ("Bold Italic",
/// "SemiCondensed"; "" too), so that "Averia Sans" is not Averia in a style "Sans".
bool IsStyleName(const std::string& text);

/// What a face asked for names: a family, a style name asked for exactly (empty when none),
/// and the traits to come near.
struct AskedFace {
  std::string family, style;
  StyleTraits traits;
};
/// A fontconfig pattern ("Averia:bold:italic", ":weight=180", ":style=Light") read as a family
/// and what it asks of the face, with `style` added ("italic" makes "Family:bold" bold italic).
AskedFace ParseFacePattern(const std::string& typed, const std::string& style);

}  // namespace fontrix::host
