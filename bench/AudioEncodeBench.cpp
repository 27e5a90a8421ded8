#include <benchmark/benchmark.h>

#include <fstream>
#include <iterator>

#include "KELVOCore/AudioFormat.h"
#include "KELVOCore/Dsp.h"
#include "KELVOCore/Wav.h"

namespace {

using namespace kelvo;

// Five seconds of real speech at the service's output rate: the fixture
// sentence, brought to 44.1 kHz and repeated. Empty when the fixture is missing.
PcmBuffer fiveSecondLine() {
  std::ifstream in(KELVO_FIXTURES_DIR "/speech.wav", std::ios::binary);
  const Bytes wav{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  const std::optional<PcmBuffer> speech = parseWav(wav);
  if (!speech) return {};
  const PcmBuffer at441 = resample(*speech, 44100);
  PcmBuffer line{{}, 44100};
  while (line.data.size() < 5 * 44100) line.data.insert(line.data.end(), at441.data.begin(), at441.data.end());
  line.data.resize(5 * 44100);
  return line;
}

// Targets for a 5 s line on the 2-core build machine: MP3 15 ms, Opus 25 ms,
// FLAC 10 ms. "out_kB" is the size of what the client receives.
void encodeLine(benchmark::State& state, AudioFormat format) {
  const PcmBuffer line = fiveSecondLine();
  if (line.isEmpty()) {
    state.SkipWithError("tests/fixtures/speech.wav is missing");
    return;
  }
  std::size_t size = 0;
  for (auto _ : state) {
    const std::optional<Bytes> out = encodeAudio(format, line);
    if (!out) state.SkipWithError("the encoder failed");
    size = out ? out->size() : 0;
    benchmark::DoNotOptimize(size);
  }
  state.counters["out_kB"] = static_cast<double>(size) / 1000.0;
}

BENCHMARK_CAPTURE(encodeLine, Mp3_5s, AudioFormat::mp3)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK_CAPTURE(encodeLine, Opus_5s, AudioFormat::opus)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK_CAPTURE(encodeLine, Flac_5s, AudioFormat::flac)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK_CAPTURE(encodeLine, Pcm_5s, AudioFormat::pcm)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace
