#include "KELVOCore/EngineOptions.h"

#include <gtest/gtest.h>

#include "tests/TestSupport.h"

namespace kelvo {
namespace {

// Writing and reading back every option is covered by the configuration's
// round trip; here: clamping, and what loading does with unusable values.
TEST(EngineOptions, LoadingClampsAndKeepsWhatIsUnusable) {
  const Json section = *parseJsonObject(std::string_view(R"({
      "compute": "  GPU ", "gpuLayers": -5, "threads": 1000, "topK": -1, "maxNewTokens": 10,
      "timeoutMs": 100, "temperature": 7.5, "topP": "0.5", "useMirror": "off",
      "repetitionPenalty": [1], "modelFile": "m.gguf"})"));
  const EngineOptions o = loadEngineOptions(section, EngineOptions{});
  EXPECT_EQ(o.compute, ComputeBackend::metal);
  EXPECT_EQ(o.gpuLayers, -1);
  EXPECT_EQ(o.threads, 256);
  EXPECT_EQ(o.topK, 0);
  EXPECT_EQ(o.maxNewTokens, 64);
  EXPECT_EQ(o.timeoutMs, 5000);
  EXPECT_EQ(o.temperature, 7.5f);
  EXPECT_EQ(o.topP, 0.5f);
  EXPECT_FALSE(o.useMirror);
  EXPECT_EQ(o.repetitionPenalty, KELVO::s2DefRepPenalty);  // mistyped: kept

  const EngineOptions high = loadEngineOptions(
      *parseJsonObject(std::string_view(R"({"gpuLayers":5000,"compute":"quantum","timeoutMs":1e12})")), o);
  EXPECT_EQ(high.gpuLayers, 999);
  EXPECT_EQ(high.compute, ComputeBackend::automatic);
  EXPECT_EQ(high.timeoutMs, 1860000);
  EXPECT_EQ(high.threads, 256);  // missing key keeps the current value
  EXPECT_EQ(high.modelFile, "m.gguf");
}

TEST(EngineOptions, ExtraArgumentsAndDescription) {
  EngineOptions o;
  EXPECT_TRUE(o.extraArgList().empty());
  o.extraArgs = " --flash-attn   --ctx 4096 ";
  EXPECT_EQ(o.extraArgList(), (std::vector<std::string>{"--flash-attn", "--ctx", "4096"}));
  test::ScopedUiLang en(UiLang::en);
  EXPECT_EQ(EngineOptions{}.describe(),
            "local s2.cpp · Auto (Metal when an Apple GPU is present) · temp 0.58 / top_p 0.80 / top_k 40");
}

}  // namespace
}  // namespace kelvo
