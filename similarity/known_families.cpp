#include "similarity/known_families.h"

#include <algorithm>
#include <cctype>
#include <sstream>
#include <unordered_map>

#include "shell/file_bytes.h"
#include "shell/tab_fields.h"

namespace fontrix {

const char* const kKnownFamilyClasses[8] = {"blackletter", "decorative", "handmade", "monospace",
                                            "sans serif",  "script",     "serif",    "slab serif"};

const char* WhyName(KnownFamily::LookAlike::Why why) {
  switch (why) {
    case KnownFamily::LookAlike::Why::kClone:
      return "clone";
    case KnownFamily::LookAlike::Why::kRevival:
      return "revival";
    case KnownFamily::LookAlike::Why::kLookAlike:
      return "look-alike";
  }
  return "look-alike";
}

namespace {

constexpr size_t kFamilyColumns = 6;
constexpr size_t kMaxLookAlikes = 3;

bool IsSeparator(char c) { return c == ' ' || c == '-' || c == '_'; }

// The name as a lookup sees it: ASCII letters folded to lower case, separators dropped.
std::string LookupKey(const std::string& name) {
  std::string key;
  key.reserve(name.size());
  for (char c : name)
    if (!IsSeparator(c)) key += char(std::tolower(static_cast<unsigned char>(c)));
  return key;
}

std::string Lower(const std::string& name) {
  std::string lower = name;
  for (char& c : lower) c = char(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

// Hand-edited cells often carry a stray space at either end; it is no part of a name or number.
std::string Trim(const std::string& text) {
  const size_t first = text.find_first_not_of(' ');
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::vector<std::string> CommaList(const std::string& text) {
  std::vector<std::string> items;
  std::stringstream in(text);
  std::string item;
  while (std::getline(in, item, ',')) items.push_back(Trim(item));
  if (!text.empty() && text.back() == ',') items.push_back("");  // getline drops a last empty item
  return items;
}

class Parser {
 public:
  explicit Parser(const std::string& source) : source_(source) {}

  [[noreturn]] void Fail(const std::string& what) const {
    throw KnownFamiliesFileError(source_ + ": line " + std::to_string(line_) + ": " + what);
  }
  void Next() { ++line_; }
  int Line() const { return line_; }

  // Ascending whole numbers between low and high; `what` names them in the plural ("weights").
  std::vector<int> Numbers(const std::string& text, const char* what, int low, int high) const {
    const std::string noun(what);
    if (Trim(text).empty()) Fail("no " + noun + ": the column needs at least one");
    std::vector<int> numbers;
    for (const std::string& item : CommaList(text)) {
      if (item.empty()) Fail("an empty item among the " + noun + " '" + text + "'");
      if (item.size() > 9 || item.find_first_not_of("0123456789") != std::string::npos)
        Fail("'" + item + "' among the " + noun + " is not a whole number");
      const int value = std::stoi(item);
      if (value < low || value > high)
        Fail(item + " among the " + noun + " is outside " + std::to_string(low) + " to " + std::to_string(high));
      if (!numbers.empty() && value <= numbers.back())
        Fail("the " + noun + " are not in ascending order (" + item + " after " + std::to_string(numbers.back()) + ")");
      numbers.push_back(value);
    }
    return numbers;
  }

 private:
  std::string source_;
  int line_ = 0;
};

struct NameSeen {
  int line;
  size_t family;  // index of the family the name belongs to
  std::string name;
};

}  // namespace

std::vector<KnownFamily> ParseKnownFamilies(std::istream& in, const std::string& source) {
  Parser parse(source);
  std::vector<KnownFamily> families;
  // Every family name and alias, by the key a lookup compares, and by its lower-case spelling.
  std::unordered_map<std::string, NameSeen> byKey;
  std::unordered_map<std::string, int> byLower;
  std::string line;
  while (std::getline(in, line)) {
    parse.Next();
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#') continue;
    const std::vector<std::string> f = TabFields(line);
    const size_t columns = f.size();
    if (columns == kFamilyColumns) parse.Fail("no look-alike: a family needs one to three");
    if (columns > kFamilyColumns + 2 * kMaxLookAlikes && columns % 2 == 0)
      parse.Fail("more than three look-alikes (" + std::to_string(columns) + " columns)");
    if (columns < kFamilyColumns || columns % 2 != 0)
      parse.Fail(std::to_string(columns) +
                 " columns where a family line holds 8, 10 or 12 (six about the family, then a family and a why "
                 "for each of one to three look-alikes)");

    KnownFamily known;
    const size_t index = families.size();
    known.family = Trim(f[0]);
    if (known.family.empty()) parse.Fail("the family name is empty");
    if (!Trim(f[1]).empty()) {
      known.aliases = CommaList(f[1]);
      for (const std::string& alias : known.aliases)
        if (alias.empty()) parse.Fail("an empty alias among '" + f[1] + "'");
    }
    auto note = [&](const std::string& name) {
      const auto lower = byLower.emplace(Lower(name), parse.Line());
      if (!lower.second)
        parse.Fail("'" + name + "' is named twice (first on line " + std::to_string(lower.first->second) + ")");
      const std::string key = LookupKey(name);
      if (key.empty()) parse.Fail("'" + name + "' is no name: it holds only spaces, hyphens and underscores");
      const auto seen = byKey.emplace(key, NameSeen{parse.Line(), index, name});
      // Spellings of one family that differ only in case or separators are harmless; the same
      // key for two families would leave a lookup to pick one of them.
      if (!seen.second && seen.first->second.family != index)
        parse.Fail("'" + name + "' cannot be told apart from '" + seen.first->second.name + "' on line " +
                   std::to_string(seen.first->second.line) + " by a lookup");
    };
    note(known.family);
    for (const std::string& alias : known.aliases) note(alias);

    known.styleClass = Trim(f[2]);
    if (std::find_if(std::begin(kKnownFamilyClasses), std::end(kKnownFamilyClasses),
                     [&](const char* name) { return known.styleClass == name; }) == std::end(kKnownFamilyClasses))
      parse.Fail("no style class is called '" + f[2] +
                 "' (blackletter, decorative, handmade, monospace, sans serif, script, serif, slab serif)");
    known.weights = parse.Numbers(f[3], "weights", 1, 1000);
    known.widths = parse.Numbers(f[4], "widths", 50, 200);
    const std::string italic = Trim(f[5]);
    if (italic != "yes" && italic != "no") parse.Fail("italic is '" + f[5] + "' where it is yes or no");
    known.italic = italic == "yes";

    for (size_t c = kFamilyColumns; c < columns; c += 2) {
      const std::string number = std::to_string((c - kFamilyColumns) / 2 + 1);
      KnownFamily::LookAlike alike;
      alike.family = Trim(f[c]);
      if (alike.family.empty()) parse.Fail("look-alike " + number + " has no family name");
      if (LookupKey(alike.family) == LookupKey(known.family))
        parse.Fail("look-alike " + number + " '" + alike.family + "' is the family itself");
      for (const auto& earlier : known.lookAlikes)
        if (LookupKey(earlier.family) == LookupKey(alike.family))
          parse.Fail("look-alike '" + alike.family + "' is given twice");
      const std::string why = Trim(f[c + 1]);
      if (why == "clone")
        alike.why = KnownFamily::LookAlike::Why::kClone;
      else if (why == "revival")
        alike.why = KnownFamily::LookAlike::Why::kRevival;
      else if (why == "look-alike")
        alike.why = KnownFamily::LookAlike::Why::kLookAlike;
      else
        parse.Fail("the why of look-alike " + number + " is '" + f[c + 1] +
                   "' where it is clone, revival or look-alike");
      known.lookAlikes.push_back(std::move(alike));
    }
    families.push_back(std::move(known));
  }
  if (in.bad()) throw KnownFamiliesFileError(source + ": cannot be read");
  if (families.empty()) throw KnownFamiliesFileError(source + ": holds no family");
  return families;
}

std::vector<KnownFamily> ReadKnownFamilies(const std::string& path) {
  std::istringstream in(ReadDataFile<KnownFamiliesFileError>(path));
  return ParseKnownFamilies(in, path);
}

namespace {

// Whether a and b are one name to a lookup, compared in place: this runs for every name of the
// table at every lookup, so nothing is copied.
bool SameName(const std::string& a, const std::string& b) {
  size_t i = 0, j = 0;
  while (true) {
    while (i < a.size() && IsSeparator(a[i])) ++i;
    while (j < b.size() && IsSeparator(b[j])) ++j;
    if (i == a.size() || j == b.size()) return i == a.size() && j == b.size();
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[j]))) return false;
    ++i;
    ++j;
  }
}

}  // namespace

const KnownFamily* FindKnownFamily(const std::vector<KnownFamily>& families, const std::string& name) {
  if (LookupKey(name).empty()) return nullptr;
  for (const KnownFamily& known : families) {
    if (SameName(known.family, name)) return &known;
    for (const std::string& alias : known.aliases)
      if (SameName(alias, name)) return &known;
  }
  return nullptr;
}

}  // namespace fontrix
