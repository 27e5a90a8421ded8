// The offline scenario: the pure building blocks of the service, exercised
// without a model, a network or a data directory. Every check prints its line
// even when an earlier one failed.
#include <charconv>
#include <cmath>

#include "KELVOCore/Cache.h"
#include "KELVOCore/Dsp.h"
#include "KELVOCore/EnginePlaceholder.h"
#include "KELVOCore/Types.h"
#include "KELVOCore/Wav.h"
#include "KELVOSelfTest/Check.h"

namespace kelvo::selftest {

namespace {

// Shortest text that reads back as the same float, with ".0" on whole numbers
// so the speeds print as x0.7, x1.0, x1.6.
std::string shortestDecimal(float v) {
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text, v).ptr;
  std::string out(text, end);
  if (out.find_first_of(".en") == std::string::npos) out += ".0";
  return out;
}

// One second of a 0.5-amplitude tone at 44.1 kHz.
PcmBuffer testTone() {
  PcmBuffer tone;
  tone.sampleRate = 44100;
  tone.data.resize(44100);
  for (std::size_t i = 0; i < tone.data.size(); ++i) tone.data[i] = 0.5f * std::sin(0.05f * static_cast<float>(i));
  return tone;
}

void checkWavRoundTrip(const PcmBuffer& tone, bool& allPassed) {
  const auto parsed = parseWav(buildWav(tone, 1));
  const std::int64_t ms = parsed ? parsed->durationMs() : -1;
  check("WAV 往返", parsed && std::llabs(ms - 1000) < 2, formatText("%lld ms", static_cast<long long>(ms)), allPassed);
}

void checkTimeStretch(const PcmBuffer& tone, float speed, bool& allPassed) {
  const double expected = static_cast<double>(tone.durationMs()) / static_cast<double>(speed);
  const std::int64_t actual = timeStretch(tone, speed).durationMs();
  const double error = std::fabs(static_cast<double>(actual) - expected) / expected;
  check(formatText("WSOLA x%s", shortestDecimal(speed).c_str()), error < 0.05,
        formatText("%lld ms(期望 %.0f,误差 %.1f%%)", static_cast<long long>(actual), expected, error * 100), allPassed);
}

void checkBadWavRejected(bool& allPassed) {
  const Bytes junk(100, 0x41);
  check("坏 WAV 被拒", !parseWav(junk).has_value(), "", allPassed);
}

PcmBuffer checkPlaceholderSound(bool& allPassed) {
  PlaceholderEngine engine{EngineOptions{}};
  S2Params params;
  params.text = "各位旅客请注意,本次航班即将起飞。";
  params.temperature = 0.58f;
  params.topP = 0.8f;
  params.repetitionPenalty = 1.1f;
  PcmBuffer speech = engine.synthesize(params, VoiceHint{});
  const std::int64_t ms = speech.durationMs();
  check("占位引擎出声", ms > 500, formatText("%lld ms", static_cast<long long>(ms)), allPassed);
  return speech;
}

void checkPeakNormalisation(PcmBuffer speech, bool& allPassed) {
  speech = peakNormalize(std::move(speech), 0.95f);
  float peak = 0;
  for (float s : speech.data) peak = std::max(peak, std::fabs(s));
  check("峰值归一", std::fabs(peak - 0.95f) < 0.01f, formatText("%.3f", static_cast<double>(peak)), allPassed);
}

void checkLanguageNormalisation(bool& allPassed) {
  const std::pair<const char*, const char*> cases[] = {{"zh-CN", "zh"}, {"JP", "ja"}, {"自动", ""}, {"auto", ""}};
  bool ok = true;
  for (const auto& [input, expected] : cases) {
    if (normLang(input) != expected) {
      ok = false;
      break;
    }
  }
  check("语言归一", ok, "", allPassed);
}

void checkCacheKeyFollowsSpeed(bool& allPassed) {
  VoiceInfo voice;
  voice.id = "v1";
  const TtsRequest normal = TtsRequest::make("你好", "zh", TtsGender::automatic, 1.0f);
  const TtsRequest faster = TtsRequest::make("你好", "zh", TtsGender::automatic, 1.5f);
  check("缓存键跟语速走", makeCacheKey(normal, voice, "e", 0, false) != makeCacheKey(faster, voice, "e", 0, false), "",
        allPassed);
}

}  // namespace

bool runOffline() {
  bool allPassed = true;
  const PcmBuffer tone = testTone();
  checkWavRoundTrip(tone, allPassed);
  for (float speed : {0.7f, 1.0f, 1.6f}) checkTimeStretch(tone, speed, allPassed);
  checkBadWavRejected(allPassed);
  PcmBuffer speech = checkPlaceholderSound(allPassed);
  checkPeakNormalisation(std::move(speech), allPassed);
  checkLanguageNormalisation(allPassed);
  checkCacheKeyFollowsSpeed(allPassed);
  return allPassed;
}

}  // namespace kelvo::selftest
