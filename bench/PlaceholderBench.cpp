#include <benchmark/benchmark.h>

#include "KELVOCore/EnginePlaceholder.h"

namespace {

// A typical announcement of about 60 characters. The counter "per_audio_s" is
// the synthesis time for one second of audio; it must stay below 2 ms.
void speakAnnouncement(benchmark::State& state, const char* text) {
  kelvo::PlaceholderEngine engine;
  kelvo::S2Params params;
  params.text = text;
  kelvo::VoiceHint hint;
  hint.gender = kelvo::TtsGender::female;
  hint.seed = 20240611;
  double audioSeconds = 0;
  for (auto _ : state) {
    const kelvo::PcmBuffer pcm = engine.synthesize(params, hint);
    benchmark::DoNotOptimize(pcm.data.data());
    audioSeconds += static_cast<double>(pcm.data.size()) / static_cast<double>(pcm.sampleRate);
  }
  state.counters["per_audio_s"] =
      benchmark::Counter(audioSeconds, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_placeholderEnglish(benchmark::State& state) {
  speakAnnouncement(state, "Flight CA1523 to Shanghai is now boarding at gate 18. Thank you.");
}
BENCHMARK(BM_placeholderEnglish)->Unit(benchmark::kMicrosecond);

void BM_placeholderChinese(benchmark::State& state) {
  speakAnnouncement(state,
                    "各位旅客请注意,您乘坐的CA1523次航班现在开始登机,请携带好您的随身物品,由18号登机口登机。谢谢!");
}
BENCHMARK(BM_placeholderChinese)->Unit(benchmark::kMicrosecond);

}  // namespace
