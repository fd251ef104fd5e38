// Unique names for listed faces, and names people type resolved to faces without fontconfig
// (unique names, family and style); the fontconfig paths run end to end in test_cli.py.
#include "host/font_names.h"

#include <gtest/gtest.h>

namespace fontrix::host {
namespace {

HostFont Face(const std::string& name, const std::string& family, const std::string& style, const std::string& file,
              uint64_t print) {
  HostFont f;
  f.unique_name = name;
  f.family = family;
  f.style = style;
  f.file = file;
  f.outline_print = print;
  return f;
}

std::vector<std::string> Names(const std::vector<HostFont>& fonts) {
  std::vector<std::string> names;
  for (const HostFont& f : fonts) names.push_back(f.unique_name);
  return names;
}

TEST(NameFaces, CopiesKeepTheNameOtherFacesGetDerivedOnes) {
  std::vector<HostFont> fonts = {
      Face("C059-Bold", "C059", "Bold", "/otf/C059-Bold.otf", 7),
      Face("C059-Bold", "C059", "Bold", "/t1/C059-Bold.t1", 7),              // the same face, Type 1
      Face("Lobster-Regular", "Lobster", "Bold", "/a/lobster.otf", 1),       // another design, same name:
      Face("Lobster-Regular", "Lobster", "Regular", "/b/lobster.otf", 2),    // its family and style
      Face("Lobster-Regular", "Lobster", "Regular", "/c/Lobster 1.otf", 3),  // then its file
      Face("Lobster-Regular", "Lobster", "Regular", "/d/Lobster 1.otf", 4),  // then a number
      Face("Lobster-Regular", "Lobster", "Regular", "/e/x.otf", 3),          // a copy of a renamed face
  };
  NameFaces(fonts);
  EXPECT_EQ(Names(fonts),
            (std::vector<std::string>{"C059-Bold", "C059-Bold", "Lobster-Regular", "Lobster-Regular-lobster",
                                      "Lobster-Regular-Lobster1", "Lobster-Regular-2", "Lobster-Regular-Lobster1"}));
  EXPECT_EQ(fonts[1].duplicate_of, "/otf/C059-Bold.otf");
  EXPECT_EQ(fonts[6].duplicate_of, "/c/Lobster 1.otf");
  for (size_t i : {0, 2, 3, 4, 5}) EXPECT_EQ(fonts[i].duplicate_of, "") << i;
  EXPECT_EQ(UnusedReason(fonts[1]), "a copy of the face in /otf/C059-Bold.otf");
  EXPECT_EQ(UnusedReason(fonts[0]), "");
}

// Of copies of one face, a file with clearly more glyphs is used whatever the listing order (a
// whole system file over a web subset of its Latin letters); copies about as full keep the first.
TEST(NameFaces, TheFullerCopyIsUsed) {
  auto face = [](const std::string& file, int glyphs) {
    HostFont f = Face("Lato-Regular", "Lato", "Regular", file, 5);
    f.glyphs = glyphs;
    return f;
  };
  std::vector<HostFont> fonts = {face("/web/lato-latin-400.woff2", 220), face("/otf/Lato-Regular.otf", 2164),
                                 face("/t1/Lato-Regular.t1", 2300), face("/web2/lato-latin-400.woff", 220)};
  NameFaces(fonts);
  EXPECT_EQ(Names(fonts), std::vector<std::string>(4, "Lato-Regular"));
  EXPECT_EQ(fonts[1].duplicate_of, "");
  for (size_t i : {0, 2, 3}) EXPECT_EQ(fonts[i].duplicate_of, "/otf/Lato-Regular.otf") << i;
}

TEST(NameFaces, DerivedNamesNeverTakeANameAFaceCarries) {
  // "Sans-Bold" is the second face's family-style name, but the third face carries it.
  std::vector<HostFont> fonts = {Face("Sans", "Sans", "Regular", "/a.ttf", 1),
                                 Face("Sans", "Sans", "Bold", "/b.ttf", 2),
                                 Face("Sans-Bold", "Other", "Bold", "/c.ttf", 3)};
  NameFaces(fonts);
  EXPECT_EQ(Names(fonts), (std::vector<std::string>{"Sans", "Sans-b", "Sans-Bold"}));
}

TEST(NameFaces, UnknownPrintsAreNeverTheSameFaceButSymbolFontsGoByName) {
  std::vector<HostFont> fonts = {Face("X", "X", "Regular", "/a.ttf", 0), Face("X", "X", "Regular", "/b.ttf", 0),
                                 Face("Dingbats", "D", "Regular", "/d.otf", 5),
                                 Face("Dingbats", "D", "Regular", "/d.t1", 6)};
  fonts[3].symbol = true;  // a copy in a symbol encoding
  NameFaces(fonts);
  EXPECT_EQ(Names(fonts), (std::vector<std::string>{"X", "X-Regular", "Dingbats", "Dingbats"}));
  EXPECT_EQ(fonts[3].duplicate_of, "/d.otf");
}

// Advances measured in two files of one face round differently, and a variable file's slant
// instances may differ from the italic file in a few glyphs: still one face. More glyphs off, or
// one far off, is another design.
TEST(NameFaces, AdvancesNearlyEqualMakeACopy) {
  auto with = [](HostFont f, int seed, std::vector<std::pair<size_t, int>> changes) {
    f.advances.assign(62, 0);
    for (size_t i = 0; i < 62; ++i) f.advances[i] = int16_t(400 + (i * 37 + size_t(seed)) % 300);
    for (auto [at, by] : changes) f.advances[at] = int16_t(f.advances[at] + by);
    return f;
  };
  const HostFont base = Face("Inter-ThinItalic", "Inter", "Thin Italic", "/italic.ttf", 1);
  std::vector<HostFont> fonts = {
      with(base, 0, {}),
      with(Face("Inter-ThinItalic", "Inter", "Thin Italic", "/var.ttf", 2), 0,
           {{3, 2}, {5, -1}, {16, 21}, {35, -31}, {40, 9}, {41, 15}, {42, 12}, {50, 6}}),
      with(Face("Inter-ThinItalic", "Inter", "Thin Italic", "/seven.ttf", 3), 0,
           {{1, 5}, {2, 5}, {3, 5}, {4, 5}, {5, 5}, {6, 5}, {7, 5}}),
      with(Face("Inter-ThinItalic", "Inter", "Thin Italic", "/far.ttf", 4), 0, {{9, 41}}),
  };
  NameFaces(fonts);
  EXPECT_EQ(fonts[1].duplicate_of, "/italic.ttf");
  EXPECT_EQ(fonts[2].duplicate_of, "");
  EXPECT_EQ(fonts[3].duplicate_of, "");
  EXPECT_NE(fonts[2].unique_name, "Inter-ThinItalic");
}

class ResolveFontTest : public testing::Test {
 protected:
  ResolveFontTest() {
    stored_ = {Face("OpenSans-Regular", "Open Sans", "Regular", "/os-r.ttf", 1),
               Face("OpenSans-Bold", "Open Sans", "Bold", "/os-b.ttf", 2),
               Face("OpenSans-SemiboldItalic", "Open Sans", "Semi Bold Italic", "/os-sbi.ttf", 3),
               Face("Inter", "Inter Display", "Regular", "/id.ttf", 4), Face("inter", "Inter", "Regular", "/i.ttf", 5)};
    for (const HostFont& f : stored_) fonts_.push_back(&f);
  }
  std::string Resolve(const std::string& typed, const std::string& style = "") {
    return ResolveFont(fonts_, typed, style).font->unique_name;
  }
  std::vector<HostFont> stored_;
  std::vector<const HostFont*> fonts_;
};

TEST_F(ResolveFontTest, UniqueNamesExactBeforeAnyCase) {
  EXPECT_EQ(Resolve("OpenSans-Bold"), "OpenSans-Bold");
  EXPECT_EQ(ResolveFont(fonts_, "opensans-bold").note, "");
  EXPECT_EQ(Resolve("opensans-bold"), "OpenSans-Bold");
  EXPECT_EQ(Resolve("inter"), "inter");
  EXPECT_EQ(Resolve("Inter"), "Inter");
  EXPECT_EQ(Resolve("INTER"), "Inter");  // the first in any case
}

TEST_F(ResolveFontTest, FamilyAndStyleInAnySpellingPickThatStyle) {
  EXPECT_EQ(Resolve("Open Sans Bold"), "OpenSans-Bold");
  EXPECT_EQ(Resolve("open sans semibold italic"), "OpenSans-SemiboldItalic");
  EXPECT_EQ(Resolve("OpenSans", "Semi-Bold Italic"), "OpenSans-SemiboldItalic");
  EXPECT_EQ(Resolve("OpenSans-Regular", "bold"), "OpenSans-Bold");  // a name with a style: its family's face
  EXPECT_EQ(ResolveFont(fonts_, "Open Sans Bold").note, "");
}

TEST_F(ResolveFontTest, UnknownNamesSuggestTheFamilysRegularFace) {
  try {
    Resolve("Opn Sans");
    FAIL() << "resolved";
  } catch (const UnknownFont& e) {
    EXPECT_EQ(std::string(e.what()).rfind("no installed font is named 'Opn Sans'; close names: OpenSans-Regular", 0),
              0u)
        << e.what();
  }
}

}  // namespace
}  // namespace fontrix::host
