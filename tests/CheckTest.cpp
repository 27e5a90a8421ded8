#include "KELVOSelfTest/Check.h"

#include <gtest/gtest.h>

namespace kelvo::selftest {
namespace {

TEST(Check, LineFormatAndVerdict) {
  EXPECT_EQ(checkLine("WAV 往返", true, ""), "✓ WAV 往返");
  EXPECT_EQ(checkLine("坏 WAV 被拒", false, "-1 ms"), "✗ 坏 WAV 被拒  -1 ms");
  bool all = true;
  testing::internal::CaptureStdout();
  check("a", true, "", all);
  EXPECT_TRUE(all);
  check("b", false, "why", all);
  check("c", true, "", all);  // a later pass never clears an earlier failure
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "✓ a\n✗ b  why\n✓ c\n");
  EXPECT_FALSE(all);
}

}  // namespace
}  // namespace kelvo::selftest
