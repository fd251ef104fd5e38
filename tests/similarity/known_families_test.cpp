// The table of well-known non-open families: the shipped file against the training corpus and the
// metric aliases it must agree with, lookups by any spelling, and every kind of damaged line
// refused with a sentence naming that line.
#include "similarity/known_families.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "shell/tab_fields.h"

namespace fontrix {
namespace {

using Why = KnownFamily::LookAlike::Why;

constexpr const char* kShipped = "data/known_families.tsv";
constexpr const char* kManifest = "training/corpus/manifest.tsv";
constexpr const char* kLabels = "training/corpus/labels.tsv";

std::vector<KnownFamily> Parse(const std::string& text) {
  std::istringstream in(text);
  return ParseKnownFamilies(in, "t.tsv");
}

// The rows of a tab-separated corpus file as maps from its header's column names.
std::vector<std::map<std::string, std::string>> ReadRows(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  if (!std::getline(in, line)) return {};
  const std::vector<std::string> header = TabFields(line);
  std::vector<std::map<std::string, std::string>> rows;
  while (std::getline(in, line)) {
    const std::vector<std::string> fields = TabFields(line);
    std::map<std::string, std::string> row;
    for (size_t c = 0; c < header.size() && c < fields.size(); ++c) row[header[c]] = fields[c];
    rows.push_back(std::move(row));
  }
  return rows;
}

const KnownFamily::LookAlike* LookAlikeNamed(const KnownFamily& known, const std::string& family) {
  for (const auto& alike : known.lookAlikes)
    if (alike.family == family) return &alike;
  return nullptr;
}

// ---- The shipped table.

// Read once; a table that does not read fails each test that asks for it, with the reader's sentence.
const std::vector<KnownFamily>& Shipped() {
  static const std::vector<KnownFamily> table = ReadKnownFamilies(kShipped);
  return table;
}

const KnownFamily& Named(const std::string& name) {
  const KnownFamily* known = FindKnownFamily(Shipped(), name);
  if (!known) throw std::runtime_error(name + " is not in the table");
  return *known;
}

TEST(ShippedKnownFamilies, ReadsWithTheFamiliesDesignersMeetMost) {
  EXPECT_GE(Shipped().size(), 150u);
  for (const char* name : {"Arial", "Helvetica", "Helvetica Neue", "Times New Roman", "Courier New", "Calibri",
                           "Cambria", "Georgia", "Verdana", "Futura", "Gill Sans", "Garamond", "Palatino", "Gotham",
                           "Proxima Nova", "Segoe UI", "Consolas", "Comic Sans"})
    EXPECT_NE(FindKnownFamily(Shipped(), name), nullptr) << name;
}

// The corpus's family names: as the faces name themselves (the manifest: "Montserrat Thin" for
// a web package's thin faces) and as their family is labelled ("Montserrat").
std::set<std::string> CorpusFamilies() {
  std::set<std::string> corpus;
  for (const auto& row : ReadRows(kManifest)) corpus.insert(row.at("family"));
  for (const auto& row : ReadRows(kLabels)) corpus.insert(row.at("family"));
  return corpus;
}

// A look-alike the corpus does not hold is a name the module can neither image nor offer.
TEST(ShippedKnownFamilies, EveryLookAlikeIsAFamilyOfTheCorpus) {
  const std::set<std::string> corpus = CorpusFamilies();
  ASSERT_GT(corpus.size(), 1000u) << kManifest << " was not read from the source tree";
  std::string missing;
  for (const KnownFamily& known : Shipped())
    for (const auto& alike : known.lookAlikes)
      if (!corpus.count(alike.family)) missing += " " + known.family + " -> " + alike.family + ";";
  EXPECT_EQ(missing, "");
}

// A family of the open corpus is no family to stand in for: its own name already finds it.
TEST(ShippedKnownFamilies, NamesNoOpenFamily) {
  const std::set<std::string> corpus = CorpusFamilies();
  std::string open;
  for (const std::string& family : corpus)
    if (const KnownFamily* known = FindKnownFamily(Shipped(), family))
      open += " " + known->family + " (" + family + ");";
  EXPECT_EQ(open, "");
}

// A clone or a revival is the same design, so the corpus labels it with the class the table gives
// the family it stands in for; a look-alike may cross classes (a flared sans for a flared serif).
TEST(ShippedKnownFamilies, ClonesAndRevivalsShareTheClassOfTheirFamily) {
  std::map<std::string, std::string> classOfFace;
  for (const auto& row : ReadRows(kLabels)) {
    const std::string classes = row.at("classes");
    classOfFace[row.at("unique_name")] = classes.substr(0, classes.find(','));
  }
  std::map<std::string, std::set<std::string>> classesOfFamily;
  for (const auto& row : ReadRows(kManifest)) {
    const auto label = classOfFace.find(row.at("unique_name"));
    if (label != classOfFace.end()) classesOfFamily[row.at("family")].insert(label->second);
  }
  for (const auto& row : ReadRows(kLabels)) {
    const std::string classes = row.at("classes");
    classesOfFamily[row.at("family")].insert(classes.substr(0, classes.find(',')));
  }
  ASSERT_FALSE(classesOfFamily.empty()) << kLabels << " was not read from the source tree";
  for (const KnownFamily& known : Shipped()) {
    std::string label = "fs_" + known.styleClass;
    std::replace(label.begin(), label.end(), ' ', '_');
    for (const auto& alike : known.lookAlikes) {
      if (alike.why == Why::kLookAlike) continue;
      EXPECT_TRUE(classesOfFamily[alike.family].count(label)) << known.family << " is " << known.styleClass << ", its "
                                                              << WhyName(alike.why) << " " << alike.family << " is not";
    }
  }
}

// The metric clones fontconfig's metric aliases (30-metric-aliases.conf) and the clones' own
// documentation name: a document set in these keeps its line breaks in the clone.
TEST(ShippedKnownFamilies, NamesTheKnownMetricClones) {
  EXPECT_EQ(Named("Arial").lookAlikes.front().why, Why::kClone);
  const KnownFamily& helvetica = Named("Helvetica");
  const auto* nimbus = LookAlikeNamed(helvetica, "Nimbus Sans");
  const auto* heros = LookAlikeNamed(helvetica, "TeX Gyre Heros");
  EXPECT_TRUE((nimbus && nimbus->why == Why::kClone) || (heros && heros->why == Why::kClone));
  ASSERT_NE(LookAlikeNamed(Named("Calibri"), "Carlito"), nullptr);
  EXPECT_EQ(LookAlikeNamed(Named("Calibri"), "Carlito")->why, Why::kClone);
  ASSERT_NE(LookAlikeNamed(Named("Cambria"), "Caladea"), nullptr);
  EXPECT_EQ(LookAlikeNamed(Named("Cambria"), "Caladea")->why, Why::kClone);
  ASSERT_NE(LookAlikeNamed(Named("Georgia"), "Gelasio"), nullptr);
  EXPECT_EQ(LookAlikeNamed(Named("Georgia"), "Gelasio")->why, Why::kClone);
  EXPECT_EQ(Named("Courier New").lookAlikes.front().why, Why::kClone);
  const KnownFamily& times = Named("Times New Roman");
  bool timesClone = false;
  for (const char* clone : {"Liberation Serif", "Tinos", "Nimbus Roman"})
    if (const auto* alike = LookAlikeNamed(times, clone)) timesClone |= alike->why == Why::kClone;
  EXPECT_TRUE(timesClone);
  // The clones of the PostScript core families, one to each.
  for (const auto& [family, clone] : std::map<std::string, std::string>{{"Courier", "Nimbus Mono PS"},
                                                                        {"Times", "Nimbus Roman"},
                                                                        {"Palatino", "P052"},
                                                                        {"New Century Schoolbook", "C059"},
                                                                        {"Avant Garde Gothic", "TeX Gyre Adventor"},
                                                                        {"Bookman", "TeX Gyre Bonum"}}) {
    const auto* alike = LookAlikeNamed(Named(family), clone);
    ASSERT_NE(alike, nullptr) << family;
    EXPECT_EQ(alike->why, Why::kClone) << family;
  }
}

TEST(ShippedKnownFamilies, DescribesTheFamilies) {
  const KnownFamily& courier = Named("Courier New");
  EXPECT_EQ(courier.styleClass, "monospace");
  EXPECT_EQ(courier.weights, (std::vector<int>{400, 700}));
  EXPECT_EQ(courier.widths, std::vector<int>{100});
  EXPECT_TRUE(courier.italic);
  EXPECT_EQ(Named("Arial Narrow").widths, std::vector<int>{87});
  EXPECT_EQ(Named("Comic Sans").styleClass, "handmade");
  EXPECT_FALSE(Named("Tahoma").italic);
}

// ---- Lookups.

TEST(KnownFamilyLookup, FindsAFamilyByAnySpellingOfItsNamesOnly) {
  const auto table = Parse(
      "Helvetica Neue\tNeue Helvetica\tsans serif\t400,700\t100\tyes\tInter\tlook-alike\n"
      "Arial\t\tsans serif\t400,700\t100\tyes\tArimo\tclone\n"
      "Arial Narrow\t\tsans serif\t400,700\t87\tyes\tLiberation Sans Narrow\tclone\n"
      "Times New Roman\tTimes New Roman PS\tserif\t400,700\t100\tyes\tTinos\tclone\n");
  auto find = [&](const std::string& name) {
    const KnownFamily* known = FindKnownFamily(table, name);
    return known ? known->family : std::string("(none)");
  };
  EXPECT_EQ(find("Helvetica Neue"), "Helvetica Neue");
  EXPECT_EQ(find("HelveticaNeue"), "Helvetica Neue");
  EXPECT_EQ(find("helvetica-neue"), "Helvetica Neue");
  EXPECT_EQ(find("HELVETICA_NEUE"), "Helvetica Neue");
  EXPECT_EQ(find(" Neue  Helvetica "), "Helvetica Neue");
  EXPECT_EQ(find("times new roman ps"), "Times New Roman");
  EXPECT_EQ(find("TimesNewRomanPS"), "Times New Roman");
  // A longer or shorter name is another family, not this one.
  EXPECT_EQ(find("Arial"), "Arial");
  EXPECT_EQ(find("ArialNarrow"), "Arial Narrow");
  EXPECT_EQ(find("Arial Narrow Bold"), "(none)");
  EXPECT_EQ(find("Aria"), "(none)");
  EXPECT_EQ(find("Helvetica"), "(none)");
  // Open families and names without a letter find nothing.
  EXPECT_EQ(find("Inter"), "(none)");
  EXPECT_EQ(find(""), "(none)");
  EXPECT_EQ(find(" -_"), "(none)");
}

// ---- Reading and damage.

TEST(KnownFamiliesFile, ReadsEveryColumn) {
  const auto table = Parse(
      "# comment\n"
      "\n"
      "  # an indented comment\n"
      "Gill Sans\tGill Sans Nova, GillSans \tsans serif\t300, 400,700\t75,100\tyes\tCabin\tlook-alike\r\n"
      "Bookman\t\tserif\t300,500\t100\tno\tTeX Gyre Bonum\tclone\tC059\trevival\tEB Garamond\tlook-alike\n"
      "Zapf Chancery\t\tscript\t500\t100\tyes\tZ003\trevival");  // no line break after the last line
  ASSERT_EQ(table.size(), 3u);
  const KnownFamily& gill = table[0];
  EXPECT_EQ(gill.family, "Gill Sans");
  EXPECT_EQ(gill.aliases, (std::vector<std::string>{"Gill Sans Nova", "GillSans"}));
  EXPECT_EQ(gill.styleClass, "sans serif");
  EXPECT_EQ(gill.weights, (std::vector<int>{300, 400, 700}));
  EXPECT_EQ(gill.widths, (std::vector<int>{75, 100}));
  EXPECT_TRUE(gill.italic);
  ASSERT_EQ(gill.lookAlikes.size(), 1u);
  EXPECT_EQ(gill.lookAlikes[0].family, "Cabin");  // the line's "\r" is no part of the why
  EXPECT_EQ(gill.lookAlikes[0].why, Why::kLookAlike);
  const KnownFamily& bookman = table[1];
  EXPECT_TRUE(bookman.aliases.empty());
  EXPECT_FALSE(bookman.italic);
  ASSERT_EQ(bookman.lookAlikes.size(), 3u);
  EXPECT_EQ(bookman.lookAlikes[0].why, Why::kClone);
  EXPECT_EQ(bookman.lookAlikes[1].family, "C059");
  EXPECT_EQ(bookman.lookAlikes[1].why, Why::kRevival);
  EXPECT_EQ(bookman.lookAlikes[2].why, Why::kLookAlike);
  EXPECT_EQ(table[2].family, "Zapf Chancery");
  EXPECT_STREQ(WhyName(Why::kClone), "clone");
  EXPECT_STREQ(WhyName(Why::kRevival), "revival");
  EXPECT_STREQ(WhyName(Why::kLookAlike), "look-alike");
}

// Each damaged line, put on line 4 after a comment and two whole families, is refused with an
// error naming the source, that line and what is wrong with it.
TEST(KnownFamiliesFile, RefusesEachDamagedLineByItsNumber) {
  const std::string before =
      "# family\taliases\t...\n"
      "Arial\tArial Plain\tsans serif\t400,700\t100\tyes\tArimo\tclone\n"
      "Helvetica Neue\tHelveticaNeue\tsans serif\t400\t100\tyes\tInter\tlook-alike\n";
  const std::string tail = "\tserif\t400,700\t100\tyes\tTinos\tclone";
  struct Damage {
    const char* what;
    std::string line;
    const char* says;
  };
  const std::vector<Damage> damages = {
      {"too few columns", "Times\t\tserif\t400\t100", "5 columns where a family line holds 8, 10 or 12"},
      {"a look-alike without its why", "Times\t" + tail + "\tNimbus Roman", "9 columns"},
      {"no look-alike", "Times\t\tserif\t400,700\t100\tyes", "no look-alike"},
      {"four look-alikes", "Times\t" + tail + "\tA\tclone\tB\tclone\tC\tclone", "more than three look-alikes"},
      {"an empty family", "\t" + tail, "the family name is empty"},
      {"a family of spaces", "   \t" + tail, "the family name is empty"},
      {"a family of separators", "-_-\t" + tail, "'-_-' is no name"},
      {"an empty alias", "Times\tTimes Roman,,Tms" + tail, "an empty alias among 'Times Roman,,Tms'"},
      {"an alias list ending in a comma", "Times\tTimes Roman," + tail, "an empty alias"},
      {"an unknown class", "Times\t\tsans-serif\t400\t100\tyes\tTinos\tclone", "no style class is called 'sans-serif'"},
      {"no weights", "Times\t\tserif\t\t100\tyes\tTinos\tclone", "no weights"},
      {"a weight of 0", "Times\t\tserif\t0,400\t100\tyes\tTinos\tclone", "0 among the weights is outside 1 to 1000"},
      {"a weight above 1000", "Times\t\tserif\t400,1001\t100\tyes\tTinos\tclone", "1001 among the weights is outside"},
      {"a weight in words", "Times\t\tserif\tbold\t100\tyes\tTinos\tclone", "'bold' among the weights is not a whole"},
      {"a negative weight", "Times\t\tserif\t-400\t100\tyes\tTinos\tclone", "'-400' among the weights"},
      {"weights descending", "Times\t\tserif\t700,400\t100\tyes\tTinos\tclone",
       "the weights are not in ascending order (400 after 700)"},
      {"a weight twice", "Times\t\tserif\t400,400\t100\tyes\tTinos\tclone", "not in ascending order"},
      {"an empty weight", "Times\t\tserif\t400,,700\t100\tyes\tTinos\tclone", "an empty item among the weights"},
      {"a width below 50", "Times\t\tserif\t400\t40,100\tyes\tTinos\tclone",
       "40 among the widths is outside 50 to 200"},
      {"a width above 200", "Times\t\tserif\t400\t100,250\tyes\tTinos\tclone", "250 among the widths is outside"},
      {"widths descending", "Times\t\tserif\t400\t100,75\tyes\tTinos\tclone", "the widths are not in ascending order"},
      {"a fractional width", "Times\t\tserif\t400\t87.5\tyes\tTinos\tclone", "'87.5' among the widths"},
      {"italic neither yes nor no", "Times\t\tserif\t400\t100\ttrue\tTinos\tclone", "italic is 'true'"},
      {"an unknown why", "Times\t\tserif\t400\t100\tyes\tTinos\tmetric",
       "the why of look-alike 1 is 'metric' where it is clone, revival or look-alike"},
      {"a look-alike without a name", "Times\t" + tail + "\t\tclone", "look-alike 2 has no family name"},
      {"the family as its own look-alike", "Times\t" + tail + "\ttimes\trevival", "look-alike 2 'times' is the family"},
      {"a look-alike twice", "Times\t" + tail + "\tTinos\tlook-alike", "look-alike 'Tinos' is given twice"},
      {"a family named twice", "ARIAL\t" + tail, "'ARIAL' is named twice (first on line 2)"},
      {"another family's alias as a family", "Arial Plain\t" + tail, "'Arial Plain' is named twice"},
      {"an alias named twice on its line", "Times\tTimes Roman, times roman" + tail, "'times roman' is named twice"},
      {"a name a lookup cannot tell apart", "Helvetica-Neue\t" + tail,
       "'Helvetica-Neue' cannot be told apart from 'Helvetica Neue' on line 3"},
  };
  for (const Damage& damage : damages) {
    try {
      Parse(before + damage.line + "\n# after\n");
      ADD_FAILURE() << damage.what << ": read without an error";
    } catch (const KnownFamiliesFileError& e) {
      const std::string message = e.what();
      EXPECT_EQ(message.rfind("t.tsv: line 4: ", 0), 0u) << damage.what << ": " << message;
      EXPECT_NE(message.find(damage.says), std::string::npos) << damage.what << ": " << message;
    }
  }
  // The lines before them are whole: spellings of one family's names that differ only in case
  // or separators are allowed, unlike the same name for two families.
  EXPECT_EQ(Parse(before).size(), 2u);
}

TEST(KnownFamiliesFile, RefusesATableWithoutAFamily) {
  EXPECT_THROW(Parse(""), KnownFamiliesFileError);
  try {
    Parse("# only comments\n\n");
    ADD_FAILURE() << "read without an error";
  } catch (const KnownFamiliesFileError& e) {
    EXPECT_STREQ(e.what(), "t.tsv: holds no family");
  }
}

TEST(KnownFamiliesFile, NamesAFileThatCannotBeRead) {
  const auto dir = std::filesystem::temp_directory_path() / "fontrix-known-families-test";
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir / "folder.tsv");
  const std::string missing = (dir / "missing.tsv").string();
  try {
    ReadKnownFamilies(missing);
    ADD_FAILURE() << "a missing file read";
  } catch (const KnownFamiliesFileError& e) {
    EXPECT_EQ(std::string(e.what()), missing + " is missing");
  }
  try {
    ReadKnownFamilies((dir / "folder.tsv").string());
    ADD_FAILURE() << "a folder read";
  } catch (const KnownFamiliesFileError& e) {
    EXPECT_NE(std::string(e.what()).find("folder.tsv"), std::string::npos) << e.what();
  }
  { std::ofstream(dir / "bad.tsv") << "# first\nArial\t\tsans serif\t400\t100\tyes\tArimo\n"; }
  try {
    ReadKnownFamilies((dir / "bad.tsv").string());
    ADD_FAILURE() << "a damaged file read";
  } catch (const KnownFamiliesFileError& e) {
    EXPECT_EQ(std::string(e.what()).rfind((dir / "bad.tsv").string() + ": line 2: ", 0), 0u) << e.what();
  }
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace fontrix
