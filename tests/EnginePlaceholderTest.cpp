#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <thread>

#include "KELVOCore/EnginePlaceholder.h"
#include "KELVOCore/Paths.h"
#include "tests/TestSupport.h"

namespace kelvo {
namespace {

std::vector<SegmentKind> kinds(std::string_view text) {
  std::vector<SegmentKind> k;
  for (const Segment& s : placeholderSegments(text)) k.push_back(s.kind);
  return k;
}

PcmBuffer speak(PlaceholderEngine& engine, std::string text, TtsGender gender = TtsGender::automatic,
                std::int64_t seed = 7) {
  S2Params params;
  params.text = std::move(text);
  VoiceHint hint;
  hint.gender = gender;
  hint.seed = seed;
  return engine.synthesize(params, hint);
}

std::size_t zeroCrossings(const std::vector<float>& x) {
  std::size_t n = 0;
  for (std::size_t i = 1; i < x.size(); ++i) n += (x[i - 1] < 0) != (x[i] < 0);
  return n;
}

bool silent(std::vector<float>::const_iterator from, std::vector<float>::const_iterator to) {
  return std::all_of(from, to, [](float v) { return v == 0.0f; });
}

constexpr auto V = SegmentKind::voiced;
constexpr auto F = SegmentKind::fricative;
constexpr auto P = SegmentKind::pause;

TEST(EnginePlaceholder, SegmentsFollowCharacters) {
  // Letters and numbers of any script sound (a few Latin letters hiss), one
  // grapheme cluster is one sound (a marked s is no longer the plain fricative),
  // bracketed tags, other symbols and broken bytes yield nothing, and every text
  // ends in a pause.
  for (std::string_view text : {"a", "e\u0301", "s\u0301"}) EXPECT_EQ(kinds(text), (std::vector{V, P})) << text;
  for (std::string_view text : {"s", "Z"}) EXPECT_EQ(kinds(text), (std::vector{F, P})) << text;
  for (std::string_view text : {"", "#", "[calm]", "🙂", "\xff", "]"}) EXPECT_EQ(kinds(text), std::vector{P}) << text;
  EXPECT_EQ(kinds("你好。"), (std::vector{V, V, P, P}));
  EXPECT_EQ(kinds("7½Ⅻ"), (std::vector{V, V, V, P}));
  EXPECT_EQ(kinds("[[x]y]z"), (std::vector{V, F, P}));

  // 80 ms a letter below U+2E80 and 170 ms above, 70 ms a space (a CRLF is one
  // cluster), 220 ms a pause mark, 120 ms at the end; 44.1 samples a ms.
  const std::pair<std::string_view, std::int64_t> lengths[] = {
      {"a", 3528 + 5292}, {"ж", 3528 + 5292}, {"你好。", 7497 + 7497 + 9702 + 5292}, {"  \r\n\u3000", 4 * 3087 + 5292}};
  for (const auto& [text, samples] : lengths) {
    std::int64_t total = 0;
    for (const Segment& s : placeholderSegments(text)) total += segmentSamples(s);
    EXPECT_EQ(total, samples) << text;
  }
  EXPECT_EQ(placeholderSegments("d")[0].stress, 0.75f);
  EXPECT_EQ(placeholderSegments("c")[0].stress, 1.0f);
}

TEST(EnginePlaceholder, SilenceAndShape) {
  PlaceholderEngine engine;
  for (const char* text : {"", " \n\t\u3000"}) {
    const PcmBuffer pcm = speak(engine, text);
    EXPECT_TRUE(pcm.isEmpty()) << text;
    EXPECT_EQ(pcm.sampleRate, 44100);
  }
  const PcmBuffer tagOnly = speak(engine, "[calm]");
  ASSERT_EQ(tagOnly.data.size(), 5292u);
  EXPECT_TRUE(silent(tagOnly.data.begin(), tagOnly.data.end()));

  // A leading space is heard as 70 ms of silence before the sound.
  const PcmBuffer spaced = speak(engine, " a");
  ASSERT_EQ(spaced.data.size(), 3087u + 3528u + 5292u);
  EXPECT_TRUE(silent(spaced.data.begin(), spaced.data.begin() + 3087));
  EXPECT_EQ(spaced.data.back(), 0.0f);

  // The fricative is noise, the vowel a buzz: far more zero crossings.
  const PcmBuffer hiss = speak(engine, "s");
  const PcmBuffer buzz = speak(engine, "a");
  const std::vector<float> hissPart(hiss.data.begin(), hiss.data.begin() + 3528);
  const std::vector<float> buzzPart(buzz.data.begin(), buzz.data.begin() + 3528);
  EXPECT_GT(zeroCrossings(hissPart), 3 * zeroCrossings(buzzPart));
  EXPECT_GT(zeroCrossings(buzzPart), 20u);
  for (const PcmBuffer* pcm : {&hiss, &buzz}) {
    const float peak = std::abs(*std::max_element(pcm->data.begin(), pcm->data.end(),
                                                  [](float x, float y) { return std::abs(x) < std::abs(y); }));
    EXPECT_GT(peak, 0.05f);
    EXPECT_LE(peak, 0.41f);  // 1.85 × 0.22 at the very most
  }
}

TEST(EnginePlaceholder, DeterministicPerSeedAndGender) {
  PlaceholderEngine one;
  PlaceholderEngine other;
  const std::string text = "Flight CA981 to Beijing, gate 12. 请登机。";
  const PcmBuffer base = speak(one, text, TtsGender::female, 42);
  EXPECT_EQ(speak(other, text, TtsGender::female, 42).data, base.data);
  EXPECT_EQ(speak(one, text, TtsGender::female, 42 + (std::int64_t{5} << 32)).data, base.data);
  EXPECT_EQ(speak(one, text, TtsGender::female, -1).data, speak(one, text, TtsGender::female, 0xFFFFFFFF).data);
  EXPECT_NE(speak(one, text, TtsGender::female, 43).data, base.data);
  EXPECT_NE(speak(one, text, TtsGender::male, 42).data, base.data);

  for (std::int64_t seed : {0, 1, 42, 123456789, -7}) {
    EXPECT_EQ(placeholderPitch(TtsGender::male, seed),
              placeholderPitch(TtsGender::male, seed + (std::int64_t{1} << 40)));
    for (auto [gender, hz] :
         {std::pair{TtsGender::automatic, 155.0f}, {TtsGender::female, 205.0f}, {TtsGender::male, 112.0f}}) {
      const float f0 = placeholderPitch(gender, seed);
      EXPECT_GE(f0, hz * 0.85f - 1e-3f);
      EXPECT_LE(f0, hz * 1.15f + 1e-3f);
    }
  }
  // The pitch falls linearly from the first segment to the last; one segment is the first.
  EXPECT_EQ(declination(0, 1), 1.0f);
  EXPECT_NEAR(declination(5, 11), 0.91f, 1e-6);
  EXPECT_NEAR(declination(9, 10), 0.82f, 1e-6);
}

TEST(EnginePlaceholder, ParallelSynthesisMatchesSerial) {
  PlaceholderEngine engine;
  const std::string text = "Last call for passengers of flight MU5101, 请到 A12 登机口。";
  const std::vector<float> expected = speak(engine, text, TtsGender::male, 99).data;
  std::vector<std::vector<float>> results(4);
  std::vector<std::thread> threads;
  for (auto& r : results) {
    threads.emplace_back([&] {
      for (int k = 0; k < 3; ++k) r = speak(engine, text, TtsGender::male, 99).data;
    });
  }
  threads.emplace_back([&] {
    for (int k = 0; k < 50; ++k) {
      EngineOptions o = engine.options();
      o.threads = k;
      engine.configure(o);
    }
  });
  for (auto& t : threads) t.join();
  for (const auto& r : results) EXPECT_EQ(r, expected);
  EXPECT_EQ(engine.options().threads, 49);
}

// Its name is checked where the service opens on an empty data root.
TEST(EnginePlaceholder, LeavesSpeedToTheServiceAndSaysItIsFake) {
  PlaceholderEngine engine;
  EXPECT_FALSE(engine.supportsNativeSpeed());
  test::ScopedUiLang ui(UiLang::en);
  const auto before = std::chrono::system_clock::now();
  const EngineHealth en = engine.checkHealth();
  EXPECT_TRUE(en.ready);
  EXPECT_EQ(en.backend, "placeholder waveform");
  EXPECT_EQ(en.detail, "no model in " + KELVOPaths::modelsDir() +
                           " yet; this is audible fake audio, only to prove the pipeline works");
  EXPECT_TRUE(en.exePath.empty());
  EXPECT_GE(en.probedAt, before);
}

}  // namespace
}  // namespace kelvo
