// The tool's rows through --format, headers and JSON.
#include "host/tool/rows.h"

#include <gtest/gtest.h>

#include <cmath>

namespace fontrix::host {
namespace {

OutputRow Row() {
  OutputRow row;
  row.name = "DejaVuSans-Bold";
  row.family = "DejaVu Sans";
  row.style = "Bold";
  row.file = "/f/DejaVuSans-Bold.ttf";
  row.weight = 200;
  return row;
}

TEST(FormatRow, FieldsEscapesAndMissingValues) {
  OutputRow row = Row();
  EXPECT_EQ(FormatRow("%{name}\\t%{weight}%%\\n", row), "DejaVuSans-Bold\t200%\n");
  EXPECT_EQ(FormatRow("[%{score}][%{classes}][%{status}]", row), "[][][]");  // a row without them
  row.score = 0.5;
  row.classes = (1u << 4) | (1u << 3);
  EXPECT_EQ(FormatRow("%{score} %{classes}", row), "0.500000 monospace,sans-serif");
  EXPECT_EQ(FormatHeader("%{name}\\t%{score}\\n"), "NAME\tSCORE\n");
}

TEST(FormatRow, UnknownFieldsAndUnclosedBracesAreErrors) {
  EXPECT_NO_THROW(CheckFormat("%{name} %{family} %{style} %{file} %{index} %{weight} %{width} %{slant}"));
  EXPECT_THROW(CheckFormat("%{fullname}"), FormatError);
  EXPECT_THROW(CheckFormat("%{name"), FormatError);
}

TEST(JsonRow, OnlyTheFieldsARowHasAndNeverANonNumber) {
  OutputRow row = Row();
  EXPECT_EQ(JsonRow(row),
            "{\"name\": \"DejaVuSans-Bold\", \"family\": \"DejaVu Sans\", \"style\": \"Bold\", \"file\": "
            "\"/f/DejaVuSans-Bold.ttf\", \"index\": 0, \"weight\": 200, \"width\": 100, \"slant\": 0}");
  row.score = std::nan("");
  row.classes = 1u << 7;
  row.status = "used";
  const std::string json = JsonRow(row);
  EXPECT_NE(json.find("\"score\": 0, \"classes\": [\"fs_slab_serif\"], \"status\": \"used\"}"), std::string::npos)
      << json;
}

TEST(FoldSameOutlines, AnswersWithTheSameOutlinesAndScoreGoIntoTheBetterOnesRow) {
  auto row = [](const char* name, uint64_t print, double score) {
    OutputRow r = Row();
    r.name = name;
    r.outline_print = print;
    r.score = score;
    return r;
  };
  std::vector<OutputRow> rows = {row("STIXMath-Regular", 7, 1.9),
                                 row("Termes", 8, 1.9),
                                 row("STIX-Regular", 7, 1.9),
                                 row("Other", 7, 1.5),  // the same print but another score: not the same answer
                                 row("STIXGeneral-Regular", 7, 1.9),
                                 row("Unknown", 0, 1.9),
                                 row("Unknown2", 0, 1.9)};
  FoldSameOutlines(rows);
  ASSERT_EQ(rows.size(), 5u);
  EXPECT_EQ(rows[0].same_outlines, (std::vector<std::string>{"STIX-Regular", "STIXGeneral-Regular"}));
  EXPECT_EQ(rows[2].name, "Other");
  EXPECT_TRUE(rows[4].same_outlines.empty());  // no print: never folded
  EXPECT_EQ(FormatRow("%{same_outlines}", rows[0]), "STIX-Regular,STIXGeneral-Regular");
  EXPECT_NE(JsonRow(rows[0]).find("\"same_outlines\": [\"STIX-Regular\", \"STIXGeneral-Regular\"]}"),
            std::string::npos);
}

}  // namespace
}  // namespace fontrix::host
