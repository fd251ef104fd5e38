// Fonts the machine lacks: faces chosen by weight and slant, names read as well-known families
// with their style words, and known faces found under the family names people use.
#include "host/tool/known_fonts.h"

#include <gtest/gtest.h>

#include <map>

namespace fontrix::host {
namespace {

KnownFace Face(const std::string& name, const std::string& family, const std::string& style, int weight, bool italic) {
  KnownFace f;
  f.name = name;
  f.family = family;
  f.style = style;
  f.weight = weight;
  f.italic = italic;
  return f;
}

TEST(NearestFace, SlantThenWidthThenWeightWithCssTies) {
  const std::vector<FaceTraits> faces = {
      {400, false, false}, {700, false, false}, {300, true, false}, {700, false, true}, {600, false, false}};
  EXPECT_EQ(NearestFace(faces, {700, false, false}), 1u);
  EXPECT_EQ(NearestFace(faces, {700, true, false}), 2u);   // the only italic, though far in weight
  EXPECT_EQ(NearestFace(faces, {700, false, true}), 3u);   // the only narrow one
  EXPECT_EQ(NearestFace(faces, {650, false, false}), 1u);  // a tie above 500 goes heavier
  EXPECT_EQ(NearestFace(faces, {100, false, false}), 0u);
  EXPECT_EQ(NearestFace({}, {400, false, false}), 0u);
  // Up to 500 a tie goes lighter, as CSS's font matching does.
  EXPECT_EQ(NearestWeight({300, 500}, 400), 300);
  EXPECT_EQ(NearestWeight({500, 700}, 600), 700);
  EXPECT_EQ(NearestWeight({900}, 400), 900);
  EXPECT_EQ(NearestWeight({}, 350), 350);
}

TEST(KnownFaces, FoundUnderTheFamilyNamesPeopleUse) {
  const std::vector<KnownFace> faces = {
      Face("MontserratThin-Light", "Montserrat Thin", "Light", 300, false),
      Face("MontserratThin-SemiBold", "Montserrat Thin", "SemiBold", 600, false),
      Face("Roboto-Regular", "Roboto", "Regular", 400, false),
      Face("RobotoCondensed-Regular", "Roboto Condensed", "Regular", 400, false),
  };
  // A family the data names with a style word is found under its bare name too.
  std::vector<std::string> names;
  for (const KnownFace* f : FacesOfFamily(faces, "montserrat")) names.push_back(f->name);
  EXPECT_EQ(names, (std::vector<std::string>{"MontserratThin-Light", "MontserratThin-SemiBold"}));
  // But a family of that name keeps it: Roboto is not Roboto Condensed.
  ASSERT_EQ(FacesOfFamily(faces, "Roboto").size(), 1u);
  EXPECT_EQ(FacesOfFamily(faces, "Roboto Condensed").size(), 1u);
  EXPECT_TRUE(TraitsOf(faces[3]).narrow_or_wide);
  // A web package's style names may not say the weight; the weight then names the style.
  EXPECT_EQ(StyleOf(Face("Poppins-Light", "Poppins", "Regular", 300, false)), "Light");
  EXPECT_EQ(StyleOf(Face("Poppins-SemiBoldItalic", "Poppins", "Italic", 600, true)), "SemiBold Italic");
  EXPECT_EQ(StyleOf(Face("Poppins-Italic", "Poppins", "Italic", 400, true)), "Italic");
  EXPECT_EQ(StyleOf(Face("Averia-BoldItalic", "Averia", "Bold Italic", 700, true)), "Bold Italic");
}

// "name family exact" of what a name resolves to, or "none".
std::string Known(const std::vector<KnownFace>& faces, const std::string& typed, const std::string& style = "") {
  const KnownMatch m = ResolveKnownFace(faces, typed, style);
  return m.face ? m.face->name + " " + m.family + (m.exact ? " exact" : "") : "none";
}

TEST(KnownFaces, NamesResolveByTheFacesWeightsAndSlants) {
  // A web package's styles: "Regular" and "Italic" whatever the weight.
  const std::vector<KnownFace> faces = {
      Face("Poppins-Light", "Poppins", "Regular", 300, false),
      Face("Poppins-Regular", "Poppins", "Regular", 400, false),
      Face("Poppins-Italic", "Poppins", "Italic", 400, true),
      Face("Poppins-SemiBold", "Poppins", "Regular", 600, false),
      Face("MontserratThin-Bold", "Montserrat Thin", "Bold", 700, false),
  };
  EXPECT_EQ(Known(faces, "Poppins Light"), "Poppins-Light Poppins exact");
  EXPECT_EQ(Known(faces, "Poppins-SemiBold"), "Poppins-SemiBold Poppins exact");
  EXPECT_EQ(Known(faces, "poppins-semibold", "italic"), "Poppins-Italic Poppins exact");  // another of its family
  EXPECT_EQ(Known(faces, "Poppins"), "Poppins-Regular Poppins");  // the regular, but nothing was asked
  EXPECT_EQ(Known(faces, "Poppins", "Semi Bold"), "Poppins-SemiBold Poppins exact");
  EXPECT_EQ(Known(faces, "Poppins Medium Italic"), "Poppins-Italic Poppins");
  EXPECT_EQ(Known(faces, "Poppins:light"), "Poppins-Light Poppins exact");
  // Found under its bare name, and said so.
  EXPECT_EQ(Known(faces, "Montserrat Bold"), "MontserratThin-Bold Montserrat exact");
  EXPECT_EQ(Known(faces, "Poppins Sans"), "none");
  EXPECT_EQ(Known(faces, "Nobody:bold"), "none");
}

WellKnownFamily Family(const std::string& name, std::vector<int> weights) {
  WellKnownFamily f;
  f.family = name;
  f.weights = std::move(weights);
  f.look_alikes = {{"Open Family", "look-alike"}};
  return f;
}

// A lookup over a few families and aliases, compared as the module compares names.
std::optional<WellKnownFamily> Lookup(const std::string& name) {
  static const std::map<std::string, WellKnownFamily> kFamilies = {
      {"gotham", Family("Gotham", {100, 200, 300, 400, 500, 700, 800, 900})},
      {"gothamnarrow", Family("Gotham", {100, 200, 300, 400, 500, 700, 800, 900})},
      {"helveticaneue", Family("Helvetica Neue", {100, 300, 400, 700})},
      {"calibri", Family("Calibri", {300, 400, 700})},
      {"calibrilight", Family("Calibri", {300, 400, 700})},
      {"arialblack", Family("Arial Black", {900})},
  };
  std::string folded;
  for (char c : name)
    if (c != ' ' && c != '-' && c != '_') folded += char(std::tolower(static_cast<unsigned char>(c)));
  const auto found = kFamilies.find(folded);
  return found == kFamilies.end() ? std::nullopt : std::optional<WellKnownFamily>(found->second);
}

std::string Read(const std::string& typed, const std::string& style = "", FaceTraits asked = {}) {
  const std::optional<WellKnownMatch> m = ResolveWellKnown(Lookup, typed, style, asked);
  if (!m) return "none";
  return m->family.family + " " + std::to_string(m->wanted.weight) + (m->wanted.italic ? " italic" : "") +
         (m->wanted.narrow_or_wide ? " narrow" : "") + " [" + m->style + "]";
}

TEST(WellKnownNames, FamiliesAliasesAndStyleWords) {
  EXPECT_EQ(Read("Gotham"), "Gotham 400 []");
  EXPECT_EQ(Read("Gotham Light"), "Gotham 300 [Light]");
  EXPECT_EQ(Read("Helvetica Neue Bold Italic"), "Helvetica Neue 700 italic [Bold Italic]");
  EXPECT_EQ(Read("HelveticaNeue-BoldItalic"), "Helvetica Neue 700 italic [BoldItalic]");
  EXPECT_EQ(Read("Gotham", "Medium"), "Gotham 500 [Medium]");
  EXPECT_EQ(Read("Gotham:bold:italic"), "Gotham 700 italic []");
  // An alias says its face: Calibri Light is light, Gotham Narrow narrow.
  EXPECT_EQ(Read("Calibri Light"), "Calibri 300 []");
  EXPECT_EQ(Read("Gotham Narrow"), "Gotham 400 narrow []");
  // What is asked apart from the name stands where the name says nothing else.
  EXPECT_EQ(Read("Gotham", "", {700, true, false}), "Gotham 700 italic []");
  EXPECT_EQ(Read("Gotham Light", "", {700, false, false}), "Gotham 300 [Light]");
  // The weight is one the family comes in.
  EXPECT_EQ(Read("Arial Black"), "Arial Black 900 []");
  EXPECT_EQ(Read("Helvetica Neue Medium"), "Helvetica Neue 400 [Medium]");
  // Words after a family that are not style words make another name.
  EXPECT_EQ(Read("Gotham Rounded"), "none");
  EXPECT_EQ(Read("Zzyzx Bold"), "none");
  EXPECT_EQ(Read(":bold"), "none");
}

TEST(WellKnownNames, StyleWordsOverWhatWasAsked) {
  const FaceTraits bold_italic = WithStyle({400, false, false}, "Bold Italic");
  EXPECT_EQ(bold_italic.weight, 700);
  EXPECT_TRUE(bold_italic.italic);
  // "Regular" says nothing a weight of 600 should give way to.
  EXPECT_EQ(WithStyle({600, false, false}, "Regular").weight, 600);
  EXPECT_TRUE(WithStyle({400, true, false}, "Light").italic);
  const auto splits = FamilyAndStyle("Open Sans Semi Bold");
  ASSERT_EQ(splits.size(), 3u);
  EXPECT_EQ(splits[0], std::make_pair(std::string("Open Sans Semi Bold"), std::string()));
  EXPECT_EQ(splits[1], std::make_pair(std::string("Open Sans Semi"), std::string("Bold")));
  EXPECT_EQ(splits[2], std::make_pair(std::string("Open Sans"), std::string("Semi Bold")));
}

}  // namespace
}  // namespace fontrix::host
