// The JSON value layer: typed access that fails loudly, map-index reads, bounded parsing.
#include "classification/json/json_value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

namespace corvid::serialize {
namespace {

bool ParseText(const std::string& text, JsonValue& out, ParseError& error, uint32_t depth = 500, uint32_t list = 0) {
  std::istringstream in(text);
  return Parse(in, out, error, depth, list);
}

TEST(JsonValue, TypedAccessIndexingAndMissingMembers) {
  JsonValue v;
  ParseError error;
  ASSERT_TRUE(ParseText(R"([{"name":"A","featureValue":64.0,"n":3,"t":true,"z":null}])", v, error));
  EXPECT_EQ(v[0]["name"].AsString(), "A");
  EXPECT_EQ(v[0]["featureValue"].AsNumber(), 64.0);
  EXPECT_EQ(v[0]["n"].AsInteger(), 3);
  EXPECT_TRUE(v[0]["t"].AsBoolean());
  EXPECT_THROW(v[0]["name"].AsNumber(), MismatchedType);
  EXPECT_EQ(v[0].AsObject().count("missing"), 0u);
  EXPECT_EQ(v[0]["missing"].type(), JsonValue::kNull);  // inserted as null by the read
  EXPECT_EQ(v[0].AsObject().count("missing"), 1u);
  for (int32_t bad : {-1, 1}) {
    try {
      v[bad];
      FAIL() << bad;
    } catch (const std::out_of_range& e) {
      EXPECT_STREQ(e.what(), "Index into JsonValue array is out of bounds");
    }
  }
  JsonValue copy = v;  // a deep copy: equal, then independent
  EXPECT_EQ(copy, v);
  copy[0]["name"] = JsonValue("B");
  EXPECT_NE(copy, v);
  EXPECT_NE(JsonValue(std::nan("")), JsonValue(std::nan("")));
}

TEST(JsonValue, DepthAndListLimits) {
  JsonValue v;
  ParseError error;
  const std::string deep = std::string(2000, '[') + std::string(2000, ']');
  EXPECT_FALSE(ParseText(deep, v, error));
  EXPECT_EQ(error.message, "The number of nested objects has exceeded the limit.");
  EXPECT_TRUE(ParseText(std::string(500, '[') + std::string(500, ']'), v, error));
  EXPECT_FALSE(ParseText(std::string(501, '[') + std::string(501, ']'), v, error));
  EXPECT_TRUE(ParseText("[1,2,3,4,5]", v, error, 500, 0));
  EXPECT_FALSE(ParseText("[1,2,3,4,5]", v, error, 500, 4));
  EXPECT_EQ(error.message, "The number of objects in the array has exceeded the limit.");
  EXPECT_FALSE(ParseText("[1,", v, error));
  EXPECT_FALSE(error.message.empty());
}

}  // namespace
}  // namespace corvid::serialize
