#include "KELVOCore/Json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

namespace kelvo {
namespace {

Json obj(const char* text) { return *parseJsonObject(std::string_view(text)); }

TEST(Json, IntegersFromStringsAndNumbers) {
  const Json o = obj(R"({"a":" 42 ","b":"+7","c":"4.0","d":4.9,"e":-4.9,"f":true,"g":"12 kg",
                        "h":"-3","i":"+-3","j":"99999999999999999999","k":1e30,"l":[1],"m":null,"n":""})");
  EXPECT_EQ(jInt(o, "a", 0), 42);
  EXPECT_EQ(jInt(o, "b", 0), 7);
  EXPECT_EQ(jInt(o, "c", -1), -1);
  EXPECT_EQ(jInt(o, "d", 0), 4);
  EXPECT_EQ(jInt(o, "e", 0), -4);
  EXPECT_EQ(jInt(o, "f", 0), 1);
  EXPECT_EQ(jInt(o, "g", -1), -1);
  EXPECT_EQ(jInt(o, "h", 0), -3);
  EXPECT_EQ(jInt(o, "i", 5), 5);
  EXPECT_EQ(jInt(o, "j", 5), 5);  // overflow is not a number we can use
  EXPECT_EQ(jInt(o, "k", 0), INT64_MAX);  // saturates instead of undefined behaviour
  EXPECT_EQ(jInt(o, "l", 9), 9);
  EXPECT_EQ(jInt(o, "m", 9), 9);
  EXPECT_EQ(jInt(o, "n", 9), 9);
  EXPECT_EQ(jInt(o, "missing", 9), 9);
  EXPECT_EQ(jInt(Json(), "a", 9), 9);
  EXPECT_EQ(jInt(Json::array({1}), "a", 9), 9);
}

TEST(Json, BooleansStringsAndFloats) {
  const Json o = obj(R"({"yes":"YES","off":"off","empty":"","null":null,"zero":0,"two":2.5,
                        "num":5,"frac":1.5,"big":1e21,"arr":[1],"e3":"1e3","bad":"12abc","inf":"inf",
                        "plus":"+1.5","t":true})");
  EXPECT_TRUE(jBool(o, "yes", false));
  EXPECT_FALSE(jBool(o, "off", true));   // text other than yes-words is false, not the default
  EXPECT_FALSE(jBool(o, "empty", true));
  EXPECT_TRUE(jBool(o, "null", true));
  EXPECT_FALSE(jBool(o, "zero", true));
  EXPECT_TRUE(jBool(o, "two", false));
  EXPECT_TRUE(jBool(o, "arr", true));

  EXPECT_EQ(jStr(o, "arr", "d"), "d");
  EXPECT_EQ(jStr(o, "num"), "5");
  EXPECT_EQ(jStr(o, "frac"), "1.5");
  EXPECT_EQ(jStr(o, "t"), "1");
  EXPECT_EQ(jStr(o, "yes"), "YES");
  EXPECT_EQ(jStr(o, "null", "d"), "d");

  EXPECT_EQ(jFloat(o, "e3", 0), 1000.0);
  EXPECT_EQ(jFloat(o, "bad", -1), -1.0);
  EXPECT_TRUE(std::isinf(jFloat(o, "inf", 0)));
  EXPECT_EQ(jFloat(o, "plus", 0), 1.5);
  EXPECT_EQ(jFloat(o, "num", 0), 5.0);
  EXPECT_EQ(jFloat(o, "arr", 2), 2.0);

  EXPECT_TRUE(jArr(o, "arr").has_value());
  EXPECT_FALSE(jArr(o, "num").has_value());
  EXPECT_FALSE(jObj(o, "arr").has_value());
}

TEST(Json, ParsingAcceptsOnlyObjects) {
  EXPECT_FALSE(parseJsonObject(std::string_view(" \n\u3000")).has_value());
  EXPECT_FALSE(parseJsonObject(std::string_view("[1,2]")).has_value());
  EXPECT_FALSE(parseJsonObject(std::string_view("{\"a\":")).has_value());
  EXPECT_FALSE(parseJsonObject(std::string_view("{\"a\":\"\xFF\"}")).has_value());
  EXPECT_FALSE(parseJsonObject(std::span<const std::uint8_t>()).has_value());
  EXPECT_TRUE(parseJsonObject(std::string_view(" {} ")).has_value());
}

TEST(Json, WritingSortsKeysAndKeepsSlashes) {
  Json o = {{"zeta", 1}, {"alpha", "a/b"}, {"mid", {{"y", 2}, {"x", 1}}}};
  const std::string pretty = jsonString(o, true);
  EXPECT_LT(pretty.find("alpha"), pretty.find("mid"));
  EXPECT_LT(pretty.find("mid"), pretty.find("zeta"));
  EXPECT_LT(pretty.find("\"x\""), pretty.find("\"y\""));
  EXPECT_NE(pretty.find('\n'), std::string::npos);
  EXPECT_NE(pretty.find("a/b"), std::string::npos);
  EXPECT_EQ(jsonString(o, false).find('\n'), std::string::npos);
  EXPECT_NE(jsonString(o, false).find("a/b"), std::string::npos);
  // A string that is not UTF-8 is repaired, not dropped to "{}".
  const std::string repaired = jsonString(Json{{"k", "\xFFok"}}, false);
  EXPECT_NE(repaired.find("ok"), std::string::npos);
  EXPECT_EQ(jsonData(Json{{"k", 1}}, false), (std::vector<std::uint8_t>{'{', '"', 'k', '"', ':', '1', '}'}));

  EXPECT_EQ(jsonNumber(0.58f, 2), 0.58);
  EXPECT_EQ(jsonNumber(0.125f, 2), 0.13);   // half away from zero
  EXPECT_EQ(jsonNumber(-0.125f, 2), -0.13);
  EXPECT_EQ(jsonString(Json{{"t", jsonNumber(0.8f, 2)}}, false), "{\"t\":0.8}");
}

}  // namespace
}  // namespace kelvo
