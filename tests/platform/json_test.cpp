#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "melvo/platform/json.h"

namespace melvo {
namespace {

TEST(JsonWriting, PrettyLayoutSortsKeysAndEscapesSlash) {
  Json j = Json::object();
  j["b"] = Json::Array{1, "x/y"};
  j["a"] = Json::object();
  j["é"] = true;
  j["B"] = nullptr;
  EXPECT_EQ(j.dump(JsonStyle::Pretty),
            "{\n  \"B\" : null,\n  \"a\" : {},\n  \"b\" : [\n    1,\n    \"x\\/y\"\n  ],\n"
            "  \"é\" : true\n}");
  EXPECT_EQ(j.dump(JsonStyle::Line), "{\"B\":null,\"a\":{},\"b\":[1,\"x\\/y\"],\"é\":true}");
}

TEST(JsonWriting, StringsAndNumbers) {
  std::string s;
  appendJsonString(s, "q\"\\\n\t\x01あ");
  EXPECT_EQ(s, "\"q\\\"\\\\\\n\\t\\u0001あ\"");
  auto num = [](double d) {
    std::string o;
    appendJsonNumber(o, d);
    return o;
  };
  EXPECT_EQ(num(120.0), "120");
  EXPECT_EQ(num(-0.5), "-0.5");
  EXPECT_EQ(num(0.1), "0.1");
  EXPECT_EQ(num(120.004), "120.004");
  EXPECT_EQ(num(1e300), "1e+300");
  EXPECT_THROW(num(std::nan("")), JsonError);
  EXPECT_THROW(num(std::numeric_limits<double>::infinity()), JsonError);
}

TEST(JsonParsing, RoundTripsAndReportsTypes) {
  Json j = Json::parse(R"({"z":[1,2.5,"a\/b",null,true],"a":{"k":-3},"big":18446744073709551615})");
  EXPECT_EQ(j.find("z")->asArray()[2].asString(), "a/b");
  EXPECT_EQ(j.find("a")->find("k")->asInt(), -3);
  EXPECT_TRUE(j.find("big")->isNumber());
  EXPECT_EQ(Json::parse(j.dump()), j);
  EXPECT_EQ(Json::parse(j.dump(JsonStyle::Pretty)), j);
  EXPECT_THROW(j.find("z")->asString(), JsonError);
  EXPECT_THROW(Json::parse("{\"a\":"), JsonError);
  EXPECT_THROW(Json::parse("not json"), JsonError);
  EXPECT_EQ(Json(2.0).asInt(), 2);
  EXPECT_THROW(Json(2.5).asInt(), JsonError);
}

}  // namespace
}  // namespace melvo
