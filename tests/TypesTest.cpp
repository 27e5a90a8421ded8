#include "KELVOCore/Types.h"

#include <gtest/gtest.h>

#include <limits>
#include <tuple>

#include "tests/TestSupport.h"

namespace kelvo {
namespace {

using Texts = std::pair<std::string_view, std::string_view>;

TEST(Types, CharactersAreCodePoints) {
  EXPECT_EQ(characterCount("登机口 5\xFF"), 6);  // a stray byte counts as one
  EXPECT_EQ(firstCharacters("登机口 5", 2), "登机");
  EXPECT_EQ(firstCharacters("ab", 40), "ab");
}

TEST(Types, TextNormalisation) {
  // Unicode white space goes at both ends, inner spaces stay, broken UTF-8 is kept rather than eaten.
  const Texts trims[] = {{"  hi \t\n", "hi"},
                         {"\u3000登机\u3000", "登机"},
                         {"\u00A0gate 5\u00A0\u2028", "gate 5"},
                         {"a\u3000b", "a\u3000b"},
                         {"\u3000 \n", ""},
                         {"", ""},
                         {" \xFF ", "\xFF"}};
  for (const auto& [in, out] : trims) EXPECT_EQ(trimmed(in), out) << in;

  // The first "-" wins over any "_"; aliases map; anything but a-z is no language.
  const Texts langs[] = {{"zh-CN", "zh"}, {"zh-Hans-CN", "zh"}, {"JA_jp", "ja"}, {" EN ", "en"},
                         {"cn", "zh"},    {"JP", "ja"},         {"kr", "ko"},    {"auto", ""},
                         {"AUTO-x", ""},  {"自动", ""},         {"e1", ""},      {"", ""},
                         {"de_at-x", ""}};
  for (const auto& [in, out] : langs) EXPECT_EQ(normLang(in), out) << in;

  EXPECT_EQ(normAirline("  cca\u3000"), "CCA");
  EXPECT_EQ(normAirline("ça1"), "ÇA1");
  const std::pair<float, float> speeds[] = {{0, 1},        {-1, 1}, {std::numeric_limits<float>::quiet_NaN(), 1},
                                            {0.3f, 0.5f},  {5, 2},  {std::numeric_limits<float>::infinity(), 2},
                                            {1.37f, 1.37f}};
  for (const auto& [in, out] : speeds) EXPECT_EQ(clampSpeed(in), out) << in;
}

TEST(Types, EnumerationCodesParseLeniently) {
  // Trimmed and any case; anything unknown is the automatic choice.
  const std::pair<std::string_view, TtsGender> genders[] = {{" F ", TtsGender::female},
                                                             {"男", TtsGender::male},
                                                             {"MALE", TtsGender::male},
                                                             {"", TtsGender::automatic},
                                                             {"default", TtsGender::automatic}};
  for (const auto& [text, gender] : genders) EXPECT_EQ(parseGender(text), gender) << text;
  EXPECT_EQ(code(TtsGender::automatic), "default");

  const std::pair<std::string_view, ComputeBackend> backends[] = {{" GPU ", ComputeBackend::metal},
                                                                   {"Metal", ComputeBackend::metal},
                                                                   {"cpu", ComputeBackend::cpu},
                                                                   {"cuda", ComputeBackend::automatic}};
  for (const auto& [text, backend] : backends) EXPECT_EQ(parseComputeBackend(text), backend) << text;
  EXPECT_EQ(code(ComputeBackend::automatic), "auto");

  const std::pair<std::string_view, TtsSpeedMode> modes[] = {{"wsola", TtsSpeedMode::engine},
                                                              {" Stretch", TtsSpeedMode::localStretch},
                                                              {"RESAMPLE", TtsSpeedMode::localResample}};
  for (const auto& [text, mode] : modes) {
    EXPECT_EQ(parseSpeedMode(text), mode) << text;
    EXPECT_EQ(parseSpeedMode(code(mode)), mode) << text;
  }
}

TEST(Types, ErrorNamesAndStatuses) {
  // The first and last codes of the table and `none` outside it.
  const std::tuple<TtsErrorCode, std::string_view, int> rows[] = {
      {TtsErrorCode::none, "ok", 500},
      {TtsErrorCode::engineNotConnected, "engine_not_connected", 503},
      {TtsErrorCode::textTooLong, "text_too_long", 413},
      {TtsErrorCode::badVoice, "bad_voice", 404},
      {TtsErrorCode::timeout, "timeout", 504},
      {TtsErrorCode::notFound, "not_found", 404},
      {TtsErrorCode::badPack, "bad_pack", 400}};
  for (const auto& [c, name, status] : rows) {
    EXPECT_EQ(errorName(c), name);
    EXPECT_EQ(httpStatus(c), status) << name;
  }
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
  EXPECT_EQ(std::tie(r.text, r.airline, r.style, r.voiceId), std::make_tuple("Boarding now", "CCA", "calm", "v1"));
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

  EXPECT_EQ(TtsRequest::make(" Hello ", "zh", TtsGender::female, 1.0f).describe(), "[zh/female/- x1.00] Hello");
  TtsRequest styled = TtsRequest::make("Hi", "en", TtsGender::automatic, 1.25f);
  styled.voiceId = "v9";
  styled.style = "calm";
  EXPECT_EQ(styled.describe(), "[en/default/v9 x1.25 calm] Hi");
}

TEST(Types, PcmBufferDurationsAndHashes) {
  PcmBuffer b{std::vector<float>(441), 44100};
  EXPECT_EQ(b.durationMs(), 10);
  b.sampleRate = 0;
  EXPECT_EQ(b.durationMs(), 0);
  EXPECT_EQ((PcmBuffer{std::vector<float>(22), 44000}.durationMs()), 1);  // 0.5 ms rounds half away from zero
  EXPECT_EQ(PcmBuffer::silence(44100, 10).data.size(), 441u);
  EXPECT_TRUE(PcmBuffer::silence(44100, 0.01).isEmpty());
  EXPECT_EQ(PcmBuffer::silence(8000, 0.1).data.size(), 1u);  // 0.8 rounds to one sample

  EXPECT_EQ(sha256Utf8(""), "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855");
  EXPECT_EQ(sha256Utf8("abc"), "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
  EXPECT_EQ(sha256Bytes(Bytes{'a', 'b', 'c'}), sha256Utf8("abc"));
}

TEST(Types, LanguageTableAndDisplay) {
  test::ScopedUiLang en(UiLang::en);
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
}

}  // namespace
}  // namespace kelvo
