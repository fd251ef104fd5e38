// The list of open faces known without being installed: what it holds, and every way a line of it
// can be wrong.
#include "similarity/known_faces.h"

#include <gtest/gtest.h>

namespace fontrix {
namespace {

std::string File(const std::string& lines) { return std::string("# known faces\n") + kKnownFacesHeader + "\n" + lines; }

TEST(KnownFaces, ReadsEveryFieldAndWhereTheVectorIs) {
  const auto faces = ParseKnownFaces(File("Sans-Bold\tSans\tBold\t700\t0\tdebian:fonts-sans\tOFL-1.1\tshipped\n"
                                          "Script-Italic\tScript\tItalic\t400\t1\tnpm:@fontsource/script\t\t1\n"
                                          "Mark-Regular\tMark\tRegular\t400\t0\tdebian:fonts-mark\tMIT\tnone\n"),
                                     "faces.tsv", 2);
  ASSERT_EQ(faces.size(), 3u);
  EXPECT_EQ(faces[0].name, "Sans-Bold");
  EXPECT_EQ(faces[0].weight, 700);
  EXPECT_EQ(faces[0].vectorRow, KnownFace::kShipped);
  EXPECT_TRUE(faces[1].italic);
  EXPECT_EQ(faces[1].source, "npm:@fontsource/script");
  EXPECT_EQ(faces[1].vectorRow, 1);
  EXPECT_EQ(faces[2].vectorRow, KnownFace::kNone);
  EXPECT_EQ(KnownFacesByName(faces).at("Mark-Regular"), 2u);
}

TEST(KnownFaces, DamagedLinesAreRefusedWithTheirLineNumber) {
  const std::string good = "A-Regular\tA\tRegular\t400\t0\tdebian:fonts-a\tOFL-1.1\t0\n";
  const std::pair<std::string, std::string> damaged[] = {
      {"A-Regular\tA\tRegular\t400\t0\tdebian:fonts-a\tOFL-1.1\n", "8 tab-separated fields"},
      {"\tA\tRegular\t400\t0\tdebian:fonts-a\tOFL-1.1\t0\n", "unique name"},
      {"A-Regular\tA\tRegular\t400\t0\t\tOFL-1.1\t0\n", "source"},
      {"A-Regular\tA\tRegular\t1200\t0\tdebian:fonts-a\tOFL-1.1\t0\n", "weight"},
      {"A-Regular\tA\tRegular\tbold\t0\tdebian:fonts-a\tOFL-1.1\t0\n", "weight"},
      {"A-Regular\tA\tRegular\t400\tyes\tdebian:fonts-a\tOFL-1.1\t0\n", "italic"},
      {"A-Regular\tA\tRegular\t400\t0\tdebian:fonts-a\tOFL-1.1\t5\n", "not \"shipped\""},
      {"A-Regular\tA\tRegular\t400\t0\tdebian:fonts-a\tOFL-1.1\t-1\n", "not \"shipped\""},
  };
  for (const auto& [line, why] : damaged) {
    try {
      ParseKnownFaces(File(line), "faces.tsv", 2);
      ADD_FAILURE() << "read " << line;
    } catch (const KnownFacesFileError& e) {
      EXPECT_NE(std::string(e.what()).find("faces.tsv line 3: "), std::string::npos) << e.what();
      EXPECT_NE(std::string(e.what()).find(why), std::string::npos) << e.what();
    }
  }
  // One vector for two faces, or one face twice, would answer for one with the other's looks.
  EXPECT_THROW(ParseKnownFaces(File(good + "B-Regular\tB\tRegular\t400\t0\tdebian:fonts-b\tOFL-1.1\t0\n"), "f", 2),
               KnownFacesFileError);
  EXPECT_THROW(ParseKnownFaces(File(good + "A-Regular\tA\tRegular\t400\t0\tdebian:fonts-a\tOFL-1.1\t1\n"), "f", 2),
               KnownFacesFileError);
  // Without the header nothing says the columns are these.
  EXPECT_THROW(ParseKnownFaces(good, "f", 2), KnownFacesFileError);
  EXPECT_THROW(ParseKnownFaces("", "f", 2), KnownFacesFileError);
  EXPECT_THROW(ReadKnownFaces("/nonexistent/faces.tsv", 2), KnownFacesFileError);
}

}  // namespace
}  // namespace fontrix
