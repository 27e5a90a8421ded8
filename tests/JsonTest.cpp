#include "KELVOCore/Json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <tuple>

#include "tests/TestSupport.h"

namespace kelvo {
namespace {

TEST(Json, TypedReadsCoerceOrFallBack) {
  const Json o = *parseJsonObject(std::string_view(R"({"a":" 42 ","b":"+7","c":"4.0","d":4.9,"e":-4.9,"f":true,
      "g":"12 kg","h":"-3","i":"+-3","j":"99999999999999999999","k":1e30,"l":[1],"m":null,"n":"","yes":"YES",
      "off":"off","zero":0,"two":2.5,"frac":1.5,"e3":"1e3","inf":"inf","plus":"+1.5"})"));
  // Whole numbers only; fractions truncate toward zero, overflowing text is
  // unusable and huge numbers saturate instead of being undefined behaviour.
  const std::pair<const char*, std::int64_t> ints[] = {{"a", 42},        {"b", 7}, {"c", 9},  {"d", 4}, {"e", -4},
                                                       {"f", 1},         {"g", 9}, {"h", -3}, {"i", 9}, {"j", 9},
                                                       {"k", INT64_MAX}, {"l", 9}, {"m", 9},  {"n", 9}, {"missing", 9}};
  for (const auto& [key, value] : ints) EXPECT_EQ(jInt(o, key, 9), value) << key;
  EXPECT_EQ(jInt(Json(), "a", 9), 9);
  EXPECT_EQ(jInt(Json::array({1}), "a", 9), 9);

  // Text other than the yes-words is false, not the default.
  const std::tuple<const char*, bool, bool> bools[] = {
      {"yes", false, true},  {"off", true, false}, {"n", true, false}, {"m", true, true},
      {"zero", true, false}, {"two", false, true}, {"l", true, true}};
  for (const auto& [key, def, value] : bools) EXPECT_EQ(jBool(o, key, def), value) << key;

  const std::pair<const char*, std::string> texts[] = {{"l", "d"},      {"m", "d"}, {"zero", "0"},
                                                       {"frac", "1.5"}, {"f", "1"}, {"yes", "YES"}};
  for (const auto& [key, value] : texts) EXPECT_EQ(jStr(o, key, "d"), value) << key;

  const std::pair<const char*, double> floats[] = {
      {"e3", 1000.0}, {"g", -1.0}, {"plus", 1.5}, {"zero", 0.0}, {"l", -1.0}};
  for (const auto& [key, value] : floats) EXPECT_EQ(jFloat(o, key, -1), value) << key;
  EXPECT_TRUE(std::isinf(jFloat(o, "inf", 0)));

  EXPECT_TRUE(jArr(o, "l").has_value());
  EXPECT_FALSE(jArr(o, "zero").has_value());
  EXPECT_FALSE(jObj(o, "l").has_value());
}

TEST(Json, ParsingAcceptsOnlyObjects) {
  for (const std::string_view bad : {" \n\u3000", "[1,2]", "{\"a\":", "{\"a\":\"\xFF\"}"}) {
    EXPECT_FALSE(parseJsonObject(bad)) << bad;
  }
  EXPECT_FALSE(parseJsonObject(std::span<const std::uint8_t>()));
  EXPECT_TRUE(parseJsonObject(std::string_view(" {} ")));
}

TEST(Json, WritingSortsKeysAndKeepsSlashes) {
  const Json o = {{"zeta", 1}, {"alpha", "a/b"}, {"mid", {{"y", 2}, {"x", 1}}}};
  EXPECT_EQ(jsonString(o, false), R"({"alpha":"a/b","mid":{"x":1,"y":2},"zeta":1})");
  EXPECT_EQ(jsonString(o, true),
            "{\n  \"alpha\": \"a/b\",\n  \"mid\": {\n    \"x\": 1,\n    \"y\": 2\n  },\n"
            "  \"zeta\": 1\n}");
  // A string that is not UTF-8 is repaired, not dropped to "{}".
  EXPECT_EQ(jsonString(Json{{"k", "\xFFok"}}, false), "{\"k\":\"\xEF\xBF\xBDok\"}");
  EXPECT_EQ(jsonData(Json{{"k", 1}}, false), test::bytesOf("{\"k\":1}"));

  EXPECT_EQ(jsonNumber(0.58f, 2), 0.58);
  EXPECT_EQ(jsonNumber(0.125f, 2), 0.13);  // half away from zero
  EXPECT_EQ(jsonNumber(-0.125f, 2), -0.13);
  EXPECT_EQ(jsonString(Json{{"t", jsonNumber(0.8f, 2)}}, false), "{\"t\":0.8}");
}

}  // namespace
}  // namespace kelvo
