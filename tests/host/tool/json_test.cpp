// The tool's JSON strings.
#include "host/tool/json.h"

#include <gtest/gtest.h>

#include <string>

namespace fontrix::host::testing {
namespace {

TEST(JsonString, EscapesAndRepairsText) {
  EXPECT_EQ(JsonString("DejaVu Sans"), "\"DejaVu Sans\"");
  EXPECT_EQ(JsonString("a\"b\\c\n\t\x01\x7f"), "\"a\\\"b\\\\c\\n\\t\\u0001\\u007f\"");
  EXPECT_EQ(JsonString("Caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"), "\"Caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80\"");
  const std::string replacement = "\xEF\xBF\xBD";
  EXPECT_EQ(JsonString("\xE9t\xC3"), "\"" + replacement + "t" + replacement + "\"");  // Latin-1, cut sequence
  EXPECT_EQ(JsonString("\xC0\xAF"), "\"" + replacement + replacement + "\"");         // overlong '/'
  EXPECT_EQ(JsonString("\xED\xA0\x80"), "\"" + replacement + replacement + replacement + "\"");  // surrogate
  EXPECT_EQ(JsonString(std::string("a\0b", 3)), "\"a\\u0000b\"");
}

}  // namespace
}  // namespace fontrix::host::testing
