#include "KELVOCore/StringMemo.h"

#include <gtest/gtest.h>

namespace kelvo {
namespace {

TEST(StringMemoTest, ComputesOncePerKeyAndStaysBounded) {
  StringMemo<std::string> memo(/*capacity=*/2, /*maxKeyBytes=*/4);
  int calls = 0;
  // Each step: the key asked for, and how many computations there have been after it.
  const std::pair<std::string_view, int> steps[] = {
      {"ab", 1},    {"ab", 1},     // kept
      {"abcde", 2}, {"abcde", 3},  // too long to keep: computed every time
      {"c", 4},     {"ab", 4},     // two kept: the table is full
      {"d", 5},     {"c", 6},      // a third starts the table over
  };
  for (const auto& [key, wantCalls] : steps) {
    const std::string got = memo.get(key, [&, key = key] {
      ++calls;
      return std::string(key) + "!";
    });
    EXPECT_EQ(got, std::string(key) + "!") << key;
    EXPECT_EQ(calls, wantCalls) << key;
  }
}

}  // namespace
}  // namespace kelvo
