// fontrix substitute's decision over a made-up machine and module: font-family lists kept when
// they draw here, else their first family replaced by the best stand-in the facts allow.
#include "host/tool/substitute.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

#include "host/font_names.h"

namespace fontrix::host {
namespace {

TEST(FamilyList, QuotesEscapesSpacesAndErrors) {
  using List = std::vector<std::string>;
  EXPECT_EQ(ParseFamilyList("'Helvetica Neue', Arial,sans-serif"), (List{"Helvetica Neue", "Arial", "sans-serif"}));
  EXPECT_EQ(ParseFamilyList("  Times   New\tRoman , \"Gill Sans\" "), (List{"Times New Roman", "Gill Sans"}));
  EXPECT_EQ(ParseFamilyList("'It\\'s, odd', 'Back\\\\slash'"), (List{"It's, odd", "Back\\slash"}));
  for (const char* bad : {"", "  ", "Arial,", ",Arial", "a,,b", "'Open Sans", "'Open' Sans", "''"})
    EXPECT_THROW(ParseFamilyList(bad), FamilyListError) << bad;
  EXPECT_TRUE(IsGenericFamily("Sans-Serif"));
  EXPECT_TRUE(IsGenericFamily("system-ui"));
  EXPECT_FALSE(IsGenericFamily("DejaVu Sans"));
}

// fontconfig's weights: thin 0, light 50, regular 80, medium 100, semibold 180, bold 200, black 210.
HostFont Font(const std::string& name, const std::string& family, const std::string& style, int weight, int slant = 0,
              int width = 100) {
  HostFont f;
  f.unique_name = name;
  f.family = family;
  f.style = style;
  f.weight = weight;
  f.slant = slant;
  f.width = width;
  return f;
}

class FakeWorld : public FontWorld {
 public:
  FakeWorld() {
    fonts_ = {Font("DejaVuSans", "DejaVu Sans", "Book", 80),
              Font("DejaVuSans-Bold", "DejaVu Sans", "Bold", 200),
              Font("DejaVuSansCondensed-Bold", "DejaVu Sans", "Condensed Bold", 200, 0, 87),
              Font("DejaVuSerif", "DejaVu Serif", "Book", 80),
              Font("FooSans-Light", "Foo Sans", "Light", 50),
              Font("FooSans-Regular", "Foo Sans", "Regular", 80),
              Font("FooSans-Italic", "Foo Sans", "Italic", 80, 100),
              Font("FooSans-Black", "Foo Sans", "Black", 210),
              Font("Clone-Regular", "Clone Sans", "Regular", 80),
              Font("Clone-Bold", "Clone Sans", "Bold", 200)};
    for (const HostFont& f : fonts_) installed_.push_back(&f);
    WellKnownFamily arial{"Arial", "fs_sans_serif", {400, 700}, true, {{"Clone Sans", "clone"}}};
    WellKnownFamily gotham{"Gotham",
                           "fs_sans_serif",
                           {100, 300, 400, 700, 900},
                           true,
                           {{"Montserrat", "look-alike"}, {"Poppins", "look-alike"}}};
    WellKnownFamily garamond{"Garamond", "fs_serif", {400, 700}, true, {{"Absent Garamond", "revival"}}};
    families_ = {arial, gotham, garamond};
    known_ = {{"MontserratThin-Light", "Montserrat Thin", "Light", 300, false, false, "npm:@fontsource/montserrat",
               "OFL-1.1"},
              {"MontserratThin-Regular", "Montserrat Thin", "Regular", 400, false, false, "npm:@fontsource/montserrat",
               "OFL-1.1"},
              {"MontserratThin-Italic", "Montserrat Thin", "Italic", 400, true, false, "npm:@fontsource/montserrat",
               "OFL-1.1"},
              {"MontserratThin-SemiBold", "Montserrat Thin", "SemiBold", 600, false, false,
               "npm:@fontsource/montserrat", "OFL-1.1"},
              {"Poppins-Light", "Poppins", "Light", 300, false, false, "npm:@fontsource/poppins", "OFL-1.1"},
              {"DejaVuSans", "DejaVu Sans", "Book", 400, false, true, "debian:fonts-dejavu-core", "Bitstream Vera"}};
    table_ = {{"Averia-Regular", "Averia", "Regular", false}, {"Averia-Bold", "Averia", "Bold", false}};
  }

  const std::vector<const HostFont*>& Installed() override { return installed_; }
  std::vector<const HostFont*> ListedAs(const std::string& name) override {
    std::vector<const HostFont*> faces;
    if (LowerCase(name) == "dejavu sans condensed")
      for (const HostFont* f : installed_)
        if (f->width == 87) faces.push_back(f);
    return faces;
  }
  std::string DrawnWith(const std::string& name) override { return drawn_with[LowerCase(name)]; }
  const HostFont* Generic(const std::string& generic, const FaceTraits&) override {
    return &fonts_[generic == "serif" ? 3 : 0];
  }
  std::optional<WellKnownFamily> WellKnown(const std::string& name) override {
    for (const WellKnownFamily& f : families_)
      if (FoldedName(f.family) == FoldedName(name)) return f;
    return std::nullopt;
  }
  const std::vector<KnownFace>& Known() override { return known_; }
  std::vector<std::string> SimilarToKnown(const std::vector<std::string>& names) override {
    asked.push_back(names);
    // As the module does: the faces without a vector do not count, and none at all is no answer.
    for (const std::string& n : names)
      if (!without_vector.count(n)) return similar;
    return {};
  }
  const std::vector<TableFace>& Table() override { return table_; }
  std::vector<std::string> SimilarToTable(const std::string& name) override {
    asked.push_back({name});
    return similar;
  }

  std::map<std::string, std::string> drawn_with;  // by lower-case name: fontconfig's substitute
  std::vector<std::string> similar = {"Missing-Face", "FooSans-Regular", "DejaVuSerif"};
  std::vector<std::vector<std::string>> asked;  // the similarity queries made
  std::set<std::string> without_vector;         // known faces the data has no vector of

 private:
  std::vector<HostFont> fonts_;
  std::vector<const HostFont*> installed_;
  std::vector<WellKnownFamily> families_;
  std::vector<KnownFace> known_;
  std::vector<TableFace> table_;
};

// "action kind face": what a test compares.
std::string Decided(FakeWorld& world, const std::string& css, FaceTraits wanted = {}) {
  const Substitution s = Substitute(world, css, wanted);
  return s.action + " " + s.kind + " " + (s.face ? s.face->unique_name : "-");
}

TEST(Substitute, ListsDrawnHereAreKept) {
  FakeWorld world;
  EXPECT_EQ(Decided(world, "'DejaVu Sans', serif", {700, false, false}), "keep installed DejaVuSans-Bold");
  EXPECT_EQ(Decided(world, "dejavusans"), "keep installed DejaVuSans");  // fontconfig ignores case and spaces
  EXPECT_EQ(Decided(world, "'DejaVu Sans Condensed'"), "keep installed DejaVuSansCondensed-Bold");
  // A later family draws it; a generic family before it would have drawn first.
  const Substitution later = Substitute(world, "'Helvetica Neue', 'DejaVu Serif', sans-serif", {});
  EXPECT_EQ(later.action + " " + later.kind + " " + later.face->family, "keep fallback DejaVu Serif");
  EXPECT_NE(later.why.find("DejaVu Serif"), std::string::npos) << later.why;
  EXPECT_EQ(Decided(world, "Zzyzx, sans-serif, 'DejaVu Serif'"), "none unknown -");
  EXPECT_EQ(Decided(world, "serif"), "keep fallback DejaVuSerif");
  // A face named as a family is no family fontconfig draws, but its own family is installed.
  EXPECT_EQ(Decided(world, "'Foo Sans Black', serif"), "replace installed FooSans-Black");
  EXPECT_EQ(Decided(world, "FooSans-Italic"), "replace installed FooSans-Italic");
  EXPECT_TRUE(world.asked.empty());
}

TEST(Substitute, AWellKnownFamilyDrawnByItsInstalledCloneIsKept) {
  FakeWorld world;
  world.drawn_with["arial"] = "Clone Sans";
  EXPECT_EQ(Decided(world, "Arial", {700, false, false}), "keep clone Clone-Bold");
  EXPECT_EQ(Decided(world, "Gotham, Arial"), "keep fallback Clone-Regular");
  // Where fontconfig does not draw it with the clone, the clone replaces it.
  world.drawn_with.clear();
  const Substitution s = Substitute(world, "Arial", {});
  EXPECT_EQ(s.action + " " + s.kind + " " + s.face->unique_name, "replace clone Clone-Regular");
  EXPECT_EQ(s.why, "clone of Arial");
}

TEST(Substitute, AWellKnownFamilyWithoutAnInstalledLookAlikeGoesThroughTheirKnownFaces) {
  FakeWorld world;
  // The look-alikes' faces nearest what was asked, best look-alike first; then the first
  // installed answer at the face of its family nearest the weight and slant.
  const Substitution light = Substitute(world, "'Gotham Light'", {});
  EXPECT_EQ(light.action + " " + light.kind + " " + light.face->unique_name, "replace similar FooSans-Light");
  EXPECT_EQ(light.why, "most like Montserrat Light, which looks like Gotham (not installed)");
  ASSERT_EQ(world.asked.size(), 1u);
  EXPECT_EQ(world.asked[0], (std::vector<std::string>{"MontserratThin-Light", "Poppins-Light"}));
  world.asked.clear();
  EXPECT_EQ(Decided(world, "Gotham", {400, true, false}), "replace similar FooSans-Italic");
  EXPECT_EQ(world.asked[0], (std::vector<std::string>{"MontserratThin-Italic", "Poppins-Light"}));
  EXPECT_EQ(Decided(world, "Gotham", {900, false, false}), "replace similar FooSans-Black");
  // A first family Fontrix does not know gives way to the next it knows, before a generic name.
  const Substitution later = Substitute(world, "Zzyzx, 'Gotham Light', sans-serif", {});
  EXPECT_EQ(later.action + " " + later.kind + " " + later.face->unique_name, "replace similar FooSans-Light");
  EXPECT_EQ(later.why.rfind("Zzyzx is unknown; Gotham Light, later in the list: most like Montserrat Light", 0), 0u)
      << later.why;
  EXPECT_EQ(Decided(world, "Zzyzx, sans-serif, Gotham"), "none unknown -");
  // Nothing known of the look-alikes: the generic family of the style class.
  const Substitution garamond = Substitute(world, "Garamond", {});
  EXPECT_EQ(garamond.action + " " + garamond.kind + " " + garamond.face->unique_name, "replace fallback DejaVuSerif");
  EXPECT_NE(garamond.why.find("Absent Garamond"), std::string::npos) << garamond.why;
}

TEST(Substitute, KnownOpenFacesAndTableFacesThatAreNotInstalled) {
  FakeWorld world;
  const Substitution semibold = Substitute(world, "'Montserrat SemiBold', sans-serif", {});
  EXPECT_EQ(semibold.action + " " + semibold.kind + " " + semibold.face->unique_name,
            "replace known-face FooSans-Regular");
  EXPECT_NE(semibold.why.find("npm:@fontsource/montserrat, OFL-1.1"), std::string::npos) << semibold.why;
  EXPECT_EQ(world.asked.back(), (std::vector<std::string>{"MontserratThin-SemiBold"}));
  EXPECT_EQ(Decided(world, "Averia", {700, false, false}), "replace table-face FooSans-Black");
  EXPECT_EQ(world.asked.back(), (std::vector<std::string>{"Averia-Bold"}));
  // A known family without an answer is known, though not answered.
  world.similar = {"Missing-Face"};
  const Substitution unanswered = Substitute(world, "Montserrat", {});
  EXPECT_EQ(unanswered.action + " " + unanswered.kind, "none known-face");
  EXPECT_NE(unanswered.why.find("npm:@fontsource/montserrat"), std::string::npos) << unanswered.why;
}

TEST(Substitute, FacesTheDataHasNoVectorOfGiveWayToTheNextNearest) {
  FakeWorld world;
  world.without_vector = {"MontserratThin-Light", "Poppins-Light", "MontserratThin-SemiBold"};
  const Substitution light = Substitute(world, "Gotham Light", {});
  EXPECT_EQ(light.action + " " + light.kind + " " + light.face->unique_name, "replace similar FooSans-Light");
  EXPECT_EQ(world.asked, (std::vector<std::vector<std::string>>{{"MontserratThin-Light", "Poppins-Light"},
                                                                {"MontserratThin-Regular"}}));
  EXPECT_EQ(light.why, "most like Montserrat Regular, which looks like Gotham (not installed)");
  world.asked.clear();
  EXPECT_EQ(Decided(world, "Montserrat", {700, false, false}), "replace known-face FooSans-Black");
  EXPECT_EQ(world.asked.front(), (std::vector<std::string>{"MontserratThin-SemiBold"}));
  EXPECT_EQ(world.asked.back(), (std::vector<std::string>{"MontserratThin-Regular"}));
}

}  // namespace
}  // namespace fontrix::host
