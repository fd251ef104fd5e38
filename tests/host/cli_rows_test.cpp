// The tool's rows through --format, headers and JSON.
#include "host/cli_rows.h"

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

}  // namespace
}  // namespace fontrix::host
