// Clone-pack export and import at the size airlines actually ship: 20 voices of
// three 10 s clips each (44.1 kHz mono 16-bit WAV, about 50 MB). The figures
// are compared with Info-ZIP on the same files by bench/pack-bench.sh, which
// points KELVO_PACK_BENCH_DIR at a folder it keeps; without it the benchmarks
// work in a scratch folder of their own.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <random>

#include "KELVOCore/ClonePack.h"
#include "KELVOCore/Wav.h"

namespace {

namespace fs = std::filesystem;
using namespace kelvo;

constexpr int kVoices = 20;
constexpr int kClipsPerVoice = 3;

// Speech-like sound: a gliding voiced tone with a few harmonics, syllable-rate
// loudness and a little breath noise. Deflate gains something on it, as it does
// on recorded speech, but far from everything.
Bytes speechLikeClip(unsigned seed) {
  constexpr std::int64_t rate = 44100;
  std::mt19937 gen(seed);
  std::normal_distribution<float> breath(0.0f, 0.01f);
  const double base = 100.0 + seed % 120;
  PcmBuffer pcm;
  pcm.sampleRate = rate;
  pcm.data.resize(rate * 10);
  double phase = 0;
  for (std::size_t i = 0; i < pcm.data.size(); ++i) {
    const double t = static_cast<double>(i) / rate;
    phase += 2 * M_PI * base * (1.0 + 0.15 * std::sin(2 * M_PI * 0.7 * t)) / rate;
    const double voiced = 0.5 * std::sin(phase) + 0.25 * std::sin(2 * phase) + 0.12 * std::sin(3 * phase);
    const double loudness = 0.5 + 0.5 * std::sin(2 * M_PI * 4.0 * t + seed);
    pcm.data[i] = static_cast<float>(0.6 * voiced * loudness) + breath(gen);
  }
  return buildWav(pcm, 1);
}

// The folder the script keeps, or a scratch folder removed at exit.
std::string benchDir() {
  if (const char* dir = std::getenv("KELVO_PACK_BENCH_DIR")) return fs::path(dir).string() + "/";
  static const struct Scratch {
    Scratch() {
      std::string pattern = (fs::temp_directory_path() / "kelvo-bench-XXXXXX").string();
      if (mkdtemp(pattern.data()) == nullptr) std::abort();
      path = pattern + "/";
    }
    ~Scratch() {
      std::error_code ignored;
      fs::remove_all(path, ignored);
    }
    std::string path;
  } scratch;
  return scratch.path;
}

// The exporting installation, built once: 20 voices, each bound to an airline.
struct Source {
  Source() {
    unsigned seed = 1;
    for (int v = 0; v < kVoices; ++v) {
      VoiceCloneSpec spec;
      spec.display = formatText("voice %d", v);
      spec.language = "en";
      for (int c = 0; c < kClipsPerVoice; ++c) spec.clips.push_back({speechLikeClip(seed++), "clip text"});
      const std::string airline = formatText("A%d", 100 + v);
      config.setAirlineVoice(airline, "en", TtsGender::automatic, library.addClone(spec).id);
      keys.push_back(airlineKey(airline, "en", TtsGender::automatic));
    }
  }
  std::string root = benchDir() + "src/";
  AppConfig config{root + "data/config.json"};
  VoiceLibrary library{root + "data/voices.json", root + "clone/"};
  std::vector<std::string> keys;
};

std::string packPath() { return benchDir() + "pack.cln"; }

double peakRssMB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

void BM_PackExport(benchmark::State& state) {
  static Source source;
  PackSummary summary;
  for (auto _ : state) summary = exportPack(packPath(), source.keys, source.library, source.config);
  state.counters["archive_MB"] = static_cast<double>(summary.bytes) / 1e6;
  if (summary.voices != kVoices || summary.clips != kVoices * kClipsPerVoice) state.SkipWithError("voices missing");
}
BENCHMARK(BM_PackExport)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

// Into an empty installation each time. Uses the pack the export left behind,
// so that a run of this benchmark alone measures the memory of import alone.
void BM_PackImport(benchmark::State& state) {
  if (!fs::exists(packPath())) {
    static Source source;
    exportPack(packPath(), source.keys, source.library, source.config);
  }
  int round = 0;
  PackSummary summary;
  for (auto _ : state) {
    state.PauseTiming();
    const std::string root = benchDir() + formatText("dst%d/", round++);
    std::error_code ignored;
    fs::remove_all(root, ignored);
    AppConfig config(root + "data/config.json");
    VoiceLibrary library(root + "data/voices.json", root + "clone/");
    state.ResumeTiming();
    summary = importPack(packPath(), library, config);
    state.PauseTiming();
    fs::remove_all(root, ignored);
    state.ResumeTiming();
  }
  state.counters["archive_MB"] = static_cast<double>(summary.bytes) / 1e6;
  state.counters["peak_rss_MB"] = peakRssMB();
  if (summary.voicesAdded != kVoices || summary.bindings != kVoices) state.SkipWithError("import incomplete");
}
BENCHMARK(BM_PackImport)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

}  // namespace
