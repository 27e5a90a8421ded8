#include "KELVOCore/Base64.h"

#include <gtest/gtest.h>

namespace kelvo {
namespace {

TEST(Base64Test, RoundTripsEveryTailLength) {
  Bytes data;
  for (int n = 0; n < 260; ++n) {
    const std::string text = base64Encode(data);
    EXPECT_EQ(text.size() % 4, 0u);
    ASSERT_EQ(base64Decode(text), data) << n;
    data.push_back(static_cast<std::uint8_t>(n * 37));
  }
}

TEST(Base64Test, AcceptsWhatEncodersSendAndRefusesTheRest) {
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {"TWFu", "Man"},          {"TWE=", "Ma"},   {"TWE", "Ma"},        {"TQ==", "M"},
      {"TQ", "M"},              {"TW\r\nFu", "Man"}, {" TWFu\n", "Man"}, {"", ""},
      {"TWFu!", std::nullopt},  {"T", std::nullopt},  {"TQ=x", std::nullopt}, {"TQ===", std::nullopt},
      {"=TWE", std::nullopt},   {"TWFu-_", std::nullopt}, {"TW=u", std::nullopt},
  };
  for (const auto& [text, expected] : cases) {
    const std::optional<Bytes> got = base64Decode(text);
    ASSERT_EQ(got.has_value(), expected.has_value()) << text;
    if (got) {
      EXPECT_EQ(std::string(got->begin(), got->end()), *expected) << text;
    }
  }
}

}  // namespace
}  // namespace kelvo
