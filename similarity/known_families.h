#pragma once
// Well-known families a document may name that are not open (the families of the common
// operating systems and office suites, the best sellers of type history, popular web-licensed
// families), each with what it is and the open families that can stand in for it. The table is
// hand-kept from public facts in the data folder, "known_families.tsv":
//
//   # comment lines
//   family <TAB> aliases <TAB> class <TAB> weights <TAB> widths <TAB> italic <TAB> open family <TAB> why ...
//
// aliases: other names documents use, comma-separated, may be empty. class: the primary style
// class, one of the eight names in kKnownFamilyClasses. weights: CSS weights (1 to 1000),
// comma-separated and ascending. widths: CSS font-stretch percentages (50 to 200), the same way.
// italic: "yes" or "no". Then one to three open look-alikes, best first, each a family name and
// why it stands in: "clone" (same advance widths, text keeps its line breaks), "revival" (an open
// digitisation or revival of the same historical design) or "look-alike" (another design that
// looks close).
#include <istream>
#include <stdexcept>
#include <string>
#include <vector>

namespace fontrix {

constexpr const char* kKnownFamiliesFileName = "known_families.tsv";

/// The style class names the table's class column may hold, in the classifier's class order.
extern const char* const kKnownFamilyClasses[8];

struct KnownFamily {
  std::string family;
  std::vector<std::string> aliases;
  std::string styleClass;
  std::vector<int> weights, widths;
  bool italic = false;
  struct LookAlike {
    std::string family;
    enum class Why { kClone, kRevival, kLookAlike } why = Why::kLookAlike;
  };
  std::vector<LookAlike> lookAlikes;  ///< one to three, best first
};

/// The word the table writes for `why`: "clone", "revival" or "look-alike".
const char* WhyName(KnownFamily::LookAlike::Why why);

/// A table that cannot be used; the message names the source, the line and what is wrong.
class KnownFamiliesFileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Reads the table from `in`; `source` names it in errors. Throws KnownFamiliesFileError for a
/// line that is not whole: a column count that is not six columns and one to three pairs, an
/// empty family or alias, an unknown class or why, weights outside 1..1000 or widths outside
/// 50..200 or either not ascending, an italic column other than yes/no, a look-alike named twice
/// on a line or naming the family itself, and a name (family or alias) given twice, or two
/// families' names that a lookup could not tell apart; and for a table without a family.
std::vector<KnownFamily> ParseKnownFamilies(std::istream& in, const std::string& source);
/// ParseKnownFamilies on the file `path`; a missing or unreadable file is a KnownFamiliesFileError.
std::vector<KnownFamily> ReadKnownFamilies(const std::string& path);

/// The family `name` names, by its family name or an alias, compared without regard to case,
/// spaces, hyphens and underscores ("HelveticaNeue" and "helvetica-neue" find "Helvetica Neue");
/// nullptr when none does.
const KnownFamily* FindKnownFamily(const std::vector<KnownFamily>& families, const std::string& name);

}  // namespace fontrix
