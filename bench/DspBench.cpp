// Time-stretch and resampling on a minute of speech, with SoundTouch's
// time-stretch on the same input beside ours. The "audio_s" counter is
// seconds of audio handled per second of wall time (the real-time factor).
#include <benchmark/benchmark.h>

#include <SoundTouch.h>

#include <cstdio>
#include <cstdlib>
#include <map>

#include "KELVOCore/Correlate.h"
#include "KELVOCore/Dsp.h"
#include "KELVOCore/Wav.h"

namespace {

constexpr double kSeconds = 60.0;

// The espeak-ng fixture, brought to `rate` and repeated to a minute.
const kelvo::PcmBuffer& minuteOfSpeech(std::int64_t rate) {
  static std::map<std::int64_t, kelvo::PcmBuffer> cache;
  auto& pcm = cache[rate];
  if (pcm.isEmpty()) {
    const auto bytes = kelvo::loadFileBytes(KELVO_FIXTURES_DIR "/speech.wav");
    const auto speech = bytes ? kelvo::parseWav(*bytes) : std::nullopt;
    if (!speech) {
      std::fprintf(stderr, "kelvo-bench: cannot read %s/speech.wav\n", KELVO_FIXTURES_DIR);
      std::exit(1);
    }
    const kelvo::PcmBuffer clip = kelvo::resample(*speech, rate);
    const auto total = static_cast<std::size_t>(kSeconds * static_cast<double>(rate));
    pcm.sampleRate = rate;
    pcm.data.reserve(total);
    while (pcm.data.size() < total) {
      pcm.data.insert(pcm.data.end(), clip.data.begin(),
                      clip.data.begin() + static_cast<std::ptrdiff_t>(std::min(clip.data.size(), total - pcm.data.size())));
    }
  }
  return pcm;
}

void reportRealTime(benchmark::State& state) {
  state.counters["audio_s"] = benchmark::Counter(kSeconds, benchmark::Counter::kIsIterationInvariantRate);
}

void BM_timeStretch(benchmark::State& state, float speed) {
  const kelvo::PcmBuffer& input = minuteOfSpeech(44100);
  for (auto _ : state) benchmark::DoNotOptimize(kelvo::timeStretch(input, speed));
  reportRealTime(state);
}
BENCHMARK_CAPTURE(BM_timeStretch, speed_0_7, 0.7f)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_timeStretch, speed_1_6, 1.6f)->Unit(benchmark::kMillisecond);

// SoundTouch with its default tempo settings, streamed the way it is meant to
// be used: blocks in, whatever is ready out.
void BM_soundTouchTempo(benchmark::State& state, float speed) {
  const kelvo::PcmBuffer& input = minuteOfSpeech(44100);
  constexpr std::size_t block = 4096;
  std::vector<float> out(static_cast<std::size_t>(static_cast<double>(input.data.size()) / speed) + 44100);
  for (auto _ : state) {
    soundtouch::SoundTouch st;
    st.setSampleRate(44100);
    st.setChannels(1);
    st.setTempo(speed);
    std::size_t got = 0;
    auto drain = [&] {
      while (got < out.size()) {
        const unsigned n = st.receiveSamples(out.data() + got, static_cast<unsigned>(out.size() - got));
        if (n == 0) break;
        got += n;
      }
    };
    for (std::size_t at = 0; at < input.data.size(); at += block) {
      st.putSamples(input.data.data() + at, static_cast<unsigned>(std::min(block, input.data.size() - at)));
      drain();
    }
    st.flush();
    drain();
    benchmark::DoNotOptimize(got);
  }
  reportRealTime(state);
}
BENCHMARK_CAPTURE(BM_soundTouchTempo, speed_0_7, 0.7f)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_soundTouchTempo, speed_1_6, 1.6f)->Unit(benchmark::kMillisecond);

// The search of one 44.1 kHz frame: 707 candidate offsets of 882 samples.
void BM_correlateLags(benchmark::State& state) {
  const kelvo::PcmBuffer& input = minuteOfSpeech(44100);
  constexpr std::size_t n = 882, lags = 707;
  std::vector<float> out(lags), scratch(kelvo::correlateScratchSize(n, lags));
  const float* x = input.data.data() + 44100;
  for (auto _ : state) {
    kelvo::correlateLags(x, x + 20000, n, lags, out.data(), scratch.data());
    benchmark::DoNotOptimize(out.data());
  }
  state.counters["MAC"] = benchmark::Counter(static_cast<double>(n * lags), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_correlateLags);

// The engine speaks at 24 kHz; clients get 44.1 kHz.
void BM_resample24kTo44k(benchmark::State& state) {
  const kelvo::PcmBuffer& input = minuteOfSpeech(24000);
  for (auto _ : state) benchmark::DoNotOptimize(kelvo::resample(input, 44100));
  reportRealTime(state);
}
BENCHMARK(BM_resample24kTo44k)->Unit(benchmark::kMillisecond);

}  // namespace
