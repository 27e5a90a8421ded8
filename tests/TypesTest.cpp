#include "KELVOCore/Types.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "KELVOCore/I18n.h"

namespace kelvo {
namespace {

TEST(Types, TrimmingCoversUnicodeWhiteSpace) {
  EXPECT_EQ(trimmed("  hi \t\n"), "hi");
  EXPECT_EQ(trimmed("\u3000登机\u3000"), "登机");          // ideographic space
  EXPECT_EQ(trimmed("\u00A0gate 5\u00A0\u2028"), "gate 5");  // no-break space, line separator
  EXPECT_EQ(trimmed("a\u3000b"), "a\u3000b");               // inner spaces stay
  EXPECT_EQ(trimmed("\u3000 \n"), "");
  EXPECT_EQ(trimmed(""), "");
  // Broken UTF-8 is kept rather than eaten.
  EXPECT_EQ(trimmed(" \xFF "), "\xFF");
}

TEST(Types, CharactersAreCodePoints) {
  EXPECT_EQ(characterCount("登机口 5\xFF"), 6);  // a stray byte counts as one
  EXPECT_EQ(firstCharacters("登机口 5", 2), "登机");
  EXPECT_EQ(firstCharacters("ab", 40), "ab");
}

TEST(Types, LanguageNormalisation) {
  EXPECT_EQ(normLang("zh-CN"), "zh");
  EXPECT_EQ(normLang("zh-Hans-CN"), "zh");
  EXPECT_EQ(normLang("JA_jp"), "ja");
  EXPECT_EQ(normLang("pt-BR"), "pt");
  EXPECT_EQ(normLang(" EN "), "en");
  EXPECT_EQ(normLang("cn"), "zh");
  EXPECT_EQ(normLang("JP"), "ja");
  EXPECT_EQ(normLang("kr"), "ko");
  EXPECT_EQ(normLang("auto"), "");
  EXPECT_EQ(normLang("AUTO-x"), "");
  EXPECT_EQ(normLang("自动"), "");
  EXPECT_EQ(normLang("русский"), "");
  EXPECT_EQ(normLang("e1"), "");
  EXPECT_EQ(normLang(""), "");
  // "-" wins over "_" even when "_" comes first.
  EXPECT_EQ(normLang("de_at-x"), "");
  EXPECT_EQ(normLang("fr_CA"), "fr");
}

TEST(Types, AirlineAndSpeedNormalisation) {
  EXPECT_EQ(normAirline("  cca\u3000"), "CCA");
  EXPECT_EQ(normAirline("ça1"), "ÇA1");
  EXPECT_EQ(clampSpeed(0), 1.0f);
  EXPECT_EQ(clampSpeed(-1), 1.0f);
  EXPECT_EQ(clampSpeed(std::numeric_limits<float>::quiet_NaN()), 1.0f);
  EXPECT_EQ(clampSpeed(0.3f), 0.5f);
  EXPECT_EQ(clampSpeed(5), 2.0f);
  EXPECT_EQ(clampSpeed(std::numeric_limits<float>::infinity()), 2.0f);
  EXPECT_EQ(clampSpeed(1.37f), 1.37f);
}

TEST(Types, EnumerationCodesParseLeniently) {
  EXPECT_EQ(parseGender(" F "), TtsGender::female);
  EXPECT_EQ(parseGender("男"), TtsGender::male);
  EXPECT_EQ(parseGender("MALE"), TtsGender::male);
  EXPECT_EQ(parseGender("default"), TtsGender::automatic);
  EXPECT_EQ(parseGender(""), TtsGender::automatic);
  EXPECT_EQ(code(TtsGender::automatic), "default");
  EXPECT_EQ(genderFromRaw(2), TtsGender::male);
  EXPECT_FALSE(genderFromRaw(3).has_value());
  EXPECT_FALSE(genderFromRaw(-1).has_value());
  EXPECT_FALSE(priorityFromRaw(2).has_value());

  EXPECT_EQ(parseComputeBackend(" GPU "), ComputeBackend::metal);
  EXPECT_EQ(parseComputeBackend("Metal"), ComputeBackend::metal);
  EXPECT_EQ(parseComputeBackend("cpu"), ComputeBackend::cpu);
  EXPECT_EQ(parseComputeBackend("cuda"), ComputeBackend::automatic);
  EXPECT_EQ(code(ComputeBackend::automatic), "auto");

  EXPECT_EQ(parseSpeedMode("wsola"), TtsSpeedMode::engine);
  EXPECT_EQ(parseSpeedMode(" Stretch"), TtsSpeedMode::localStretch);
  EXPECT_EQ(parseSpeedMode("RESAMPLE"), TtsSpeedMode::localResample);
  for (auto m : {TtsSpeedMode::engine, TtsSpeedMode::localStretch, TtsSpeedMode::localResample}) {
    EXPECT_EQ(parseSpeedMode(code(m)), m);
  }
}

TEST(Types, ErrorNamesAndStatuses) {
  EXPECT_EQ(errorName(TtsErrorCode::none), "ok");
  EXPECT_EQ(httpStatus(TtsErrorCode::none), 500);
  EXPECT_EQ(errorName(TtsErrorCode::engineNotConnected), "engine_not_connected");
  EXPECT_EQ(httpStatus(TtsErrorCode::engineNotConnected), 503);
  EXPECT_EQ(httpStatus(TtsErrorCode::textTooLong), 413);
  EXPECT_EQ(httpStatus(TtsErrorCode::badVoice), 404);
  EXPECT_EQ(httpStatus(TtsErrorCode::timeout), 504);
  EXPECT_EQ(errorName(TtsErrorCode::notFound), "not_found");
  EXPECT_EQ(httpStatus(TtsErrorCode::notFound), 404);
  const TtsError e(TtsErrorCode::queueFull, "busy");
  EXPECT_EQ(e.httpStatus(), 503);
  EXPECT_STREQ(e.what(), "busy");
}

TEST(Types, RequestNormalisationAndDescription) {
  TtsRequest r;
  r.text = "\u3000Boarding now\u00A0";
  r.airline = " cca ";
  r.style = " [ calm ] ";
  r.voiceId = " v1 ";
  r.speed = 7;
  r.sampleRate = -5;
  r.language = " ZH ";
  r.normalize();
  EXPECT_EQ(r.text, "Boarding now");
  EXPECT_EQ(r.airline, "CCA");
  EXPECT_EQ(r.style, "calm");
  EXPECT_EQ(r.voiceId, "v1");
  EXPECT_EQ(r.speed, 2.0f);
  EXPECT_EQ(r.sampleRate, 0);
  EXPECT_EQ(r.language, " ZH ");  // the pipeline normalises languages, not the request
  EXPECT_EQ(r.effectiveText(), "[calm] Boarding now");

  TtsRequest s;
  s.style = "[x";
  s.normalize();
  EXPECT_EQ(s.style, "[x");
  s.style = "[]";
  s.normalize();
  EXPECT_EQ(s.style, "");
  EXPECT_EQ(s.effectiveText(), "");

  const TtsRequest hello = TtsRequest::make(" Hello ", "zh", TtsGender::female, 1.0f);
  EXPECT_EQ(hello.describe(), "[zh/female/- x1.00] Hello");
  TtsRequest styled = TtsRequest::make("Hi", "en", TtsGender::automatic, 1.25f);
  styled.voiceId = "v9";
  styled.style = "calm";
  EXPECT_EQ(styled.describe(), "[en/default/v9 x1.25 calm] Hi");
}

TEST(Types, PcmBufferDurations) {
  PcmBuffer b;
  b.data.assign(441, 0.0f);
  b.sampleRate = 44100;
  EXPECT_EQ(b.durationMs(), 10);
  b.sampleRate = 0;
  EXPECT_EQ(b.durationMs(), 0);
  b.data.assign(22, 0.0f);  // 0.5 ms rounds half away from zero
  b.sampleRate = 44000;
  EXPECT_EQ(b.durationMs(), 1);
  EXPECT_EQ(PcmBuffer::silence(44100, 10).data.size(), 441u);
  EXPECT_TRUE(PcmBuffer::silence(44100, 0.01).isEmpty());
  EXPECT_EQ(PcmBuffer::silence(8000, 0.1).data.size(), 1u);  // 0.8 rounds to one sample
}

TEST(Types, Sha256IsUpperCaseHex) {
  EXPECT_EQ(sha256Utf8(""), "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855");
  EXPECT_EQ(sha256Utf8("abc"), "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
  const Bytes bytes{'a', 'b', 'c'};
  EXPECT_EQ(sha256Bytes(bytes), sha256Utf8("abc"));
}

TEST(Types, LanguageTableAndDisplay) {
  setUiLang(UiLang::en);
  ASSERT_EQ(commonLanguages().size(), 28u);
  EXPECT_EQ(commonLanguages().front(), "zh");
  EXPECT_EQ(commonLanguages()[16], "id");
  EXPECT_EQ(commonLanguages().back(), "hu");
  EXPECT_EQ(langDisplay("ja-JP"), "日本語");
  EXPECT_EQ(langDisplay("xx"), "xx");
  EXPECT_EQ(langDisplay("auto"), "Auto");
  EXPECT_EQ(langWithCode("KR"), "한국어 (ko)");
  EXPECT_EQ(langWithCode(""), "Auto (auto)");
  EXPECT_EQ(display(TtsGender::female), "Female");
  setUiLang(UiLang::zh);
  EXPECT_EQ(langWithCode("auto"), "自动 (auto)");
  setUiLang(UiLang::automatic);
}

}  // namespace
}  // namespace kelvo
