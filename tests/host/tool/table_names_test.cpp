// Names of the shipped table's faces: resolved as installed faces' names are, with styles
// compared by what their names say.
#include "host/tool/table_names.h"

#include <gtest/gtest.h>

namespace fontrix::host {
namespace {

const std::vector<TableFace> kFaces = {
    {"Averia-Regular", "Averia", "Regular"},
    {"Averia-Bold", "Averia", "Bold"},
    {"Averia-Italic", "Averia", "Italic"},
    {"Averia-BoldItalic", "Averia", "Bold Italic"},
    {"Averia-Light", "Averia", "Light"},
    {"Averia-SemiBold", "Averia", "SemiBold"},
    {"AveriaCond-Bold", "Averia", "Condensed Bold"},
    {"Saira-ExtraLightItalic", "Saira Thin", "ExtraLight Italic"},
    {"Saira-Black", "Saira Thin", "Black"},
    {"Averia Serif-Regular", "Averia Serif", "Regular"},
};

std::string Resolved(const std::string& typed, const std::string& style = "") {
  const TableMatch m = ResolveTableFace(kFaces, typed, style);
  return m.face ? m.face->name + (m.exact ? " exact" : "") : "none";
}

TEST(TableNames, StyleNamesGiveWeightSlantAndWidth) {
  struct Case {
    const char* style;
    int weight;
    bool italic, narrow_or_wide;
  } cases[] = {{"Regular", 400, false, false},        {"Book", 400, false, false},
               {"SemiBold Italic", 600, true, false}, {"Semi-Bold", 600, false, false},
               {"ExtraLight", 200, false, false},     {"UltraBlack", 950, false, false},
               {"BoldOblique", 700, true, false},     {"Condensed Bold", 700, false, true},
               {"Black", 900, false, false},          {"Thin Italic", 100, true, false}};
  for (const Case& c : cases) {
    const StyleTraits t = TraitsOfStyle(c.style);
    EXPECT_EQ(t.weight, c.weight) << c.style;
    EXPECT_EQ(t.italic, c.italic) << c.style;
    EXPECT_EQ(t.narrow_or_wide, c.narrow_or_wide) << c.style;
  }
}

TEST(TableNames, UniqueNamesFamiliesAndStyles) {
  EXPECT_EQ(Resolved("Averia-Bold"), "Averia-Bold exact");
  EXPECT_EQ(Resolved("averia-bolditalic"), "Averia-BoldItalic exact");
  EXPECT_EQ(Resolved("Averia-Bold", "italic"), "Averia-Italic exact");  // another face of its family
  EXPECT_EQ(Resolved("Averia"), "Averia-Regular");                      // the regular face, but nothing was asked
  EXPECT_EQ(Resolved("averia bold italic"), "Averia-BoldItalic exact");
  EXPECT_EQ(Resolved("Averia", "Bold Italic"), "Averia-BoldItalic exact");
  // The longest family wins: "Averia Serif" is not Averia in the style "Serif".
  EXPECT_EQ(Resolved("Averia Serif"), "Averia Serif-Regular");
  // A style the family lacks: the nearest weight of the same slant, normal widths first.
  EXPECT_EQ(Resolved("Averia ExtraLight"), "Averia-Light");
  EXPECT_EQ(Resolved("Averia Heavy"), "Averia-Bold");
  EXPECT_EQ(Resolved("Averia Black Italic"), "Averia-BoldItalic");
  EXPECT_EQ(Resolved("Saira Thin"), "Saira-Black");  // the slant counts before the weight
  EXPECT_EQ(Resolved("Averia Sans"), "none");
  EXPECT_EQ(Resolved("Nobody-Regular"), "none");
}

TEST(TableNames, FontconfigPatterns) {
  EXPECT_EQ(Resolved("Averia:bold"), "Averia-Bold");
  EXPECT_EQ(Resolved("Averia:bold:italic"), "Averia-BoldItalic");
  EXPECT_EQ(Resolved("Averia:weight=180"), "Averia-SemiBold");  // fontconfig's demibold
  EXPECT_EQ(Resolved("Averia:light:oblique"), "Averia-Italic");
  EXPECT_EQ(Resolved("Averia:style=Light"), "Averia-Light exact");
  EXPECT_EQ(Resolved("Averia:bold", "italic"), "Averia-BoldItalic");  // the style adds to the pattern
  EXPECT_EQ(Resolved("Averia Serif:bold"), "Averia Serif-Regular");
  EXPECT_EQ(Resolved("Nobody:bold"), "none");
  EXPECT_EQ(Resolved(":bold"), "none");
}

}  // namespace
}  // namespace fontrix::host
