#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include "KELVOCore/Files.h"
#include "KELVOCore/Json.h"
#include "KELVOCore/Memory.h"
#include "KELVOCore/Paths.h"
#include "KELVOCore/Service.h"
#include "KELVOCore/Wav.h"

namespace {

namespace fs = std::filesystem;
using namespace kelvo;

std::string scratchDir() {
  std::string pattern = (fs::temp_directory_path() / "kelvo-bench-XXXXXX").string();
  return mkdtemp(pattern.data()) != nullptr ? pattern + "/" : std::string();
}

// 5 s of a tone at `rate`: what one announcement line comes back as.
PcmBuffer fiveSeconds(std::int64_t rate) {
  PcmBuffer pcm{std::vector<float>(static_cast<std::size_t>(rate * 5)), rate};
  for (std::size_t i = 0; i < pcm.data.size(); ++i) pcm.data[i] = 0.4f * std::sin(0.03f * static_cast<float>(i));
  return pcm;
}

// Hands back a prepared line at once, so what is measured is the service around it.
class InstantEngine final : public TtsEngine {
 public:
  explicit InstantEngine(std::int64_t rate) : line_(fiveSeconds(rate)) {}
  std::string name() const override { return "instant"; }
  bool ready() const override { return true; }
  bool supportsNativeSpeed() const override { return false; }
  void configure(const EngineOptions&) override {}
  EngineOptions options() const override { return {}; }
  EngineHealth checkHealth() override { return {}; }
  PcmBuffer synthesize(const S2Params&, const VoiceHint&) override { return line_; }

 private:
  PcmBuffer line_;
};

Bytes referenceClip() { return buildWav({std::vector<float>(16000, 0.2f), 16000}, 1); }

// A service on a scratch root with one bound English voice, answered by an
// instant engine of `rate` (the real engine is missing there). The allocator
// is set up as `kelvo serve` sets it up.
struct Rig {
  explicit Rig(std::int64_t rate) : root(scratchDir()) {
    keepLineBuffersInHeap();
    auto config = std::make_shared<AppConfig>(root + "data/config.json");
    auto voices = std::make_shared<VoiceLibrary>(root + "data/voices.json", root + "clone/");
    voices->setConfig(config);
    const VoiceInfo voice = voices->addClone({"Anna", "en", TtsGender::female, {{referenceClip(), "words"}}, "", ""});
    config->setDefaultVoice("en", TtsGender::female, voice.id);
    auto cache = std::make_shared<WavCache>(root + "temp/");
    auto s2 = std::make_shared<S2LocalEngine>(EngineOptions{}, root);
    s2->start();
    service = TtsService::create({config, voices, cache, s2, std::make_shared<InstantEngine>(rate)});
  }
  ~Rig() {
    service.reset();
    std::error_code ignored;
    fs::remove_all(root, ignored);
  }
  Rig(const Rig&) = delete;
  Rig& operator=(const Rig&) = delete;

  std::string root;
  std::shared_ptr<TtsService> service;
};

const std::string kLine = "Ladies and gentlemen, flight KL 1234 to Amsterdam is now boarding at gate D7.";

// One line asked for again and again: normalise, resolve, key, lookup and the
// read of a 5 s 44.1 kHz clip (441 KB, from the page cache); at a speed other
// than 1 also the parse, WSOLA time-stretch and re-encode.
void cacheHitLoop(benchmark::State& state, float speed) {
  Rig rig(44100);
  const TtsRequest request = TtsRequest::make(kLine, "en", TtsGender::female, speed);
  rig.service->synthesize(request);
  for (auto _ : state) {
    const TtsResult hit = rig.service->synthesize(request);
    if (!hit.fromCache) state.SkipWithError("miss");
    benchmark::DoNotOptimize(hit.wav.data());
  }
}

void BM_ServiceCacheHit5s(benchmark::State& state) { cacheHitLoop(state, 1.0f); }
BENCHMARK(BM_ServiceCacheHit5s)->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);

// The same hit as the HTTP route takes it: the clip opened, never read.
void BM_ServiceCacheHitOpenClip5s(benchmark::State& state) {
  Rig rig(44100);
  const TtsRequest request = TtsRequest::make(kLine, "en", TtsGender::female, 1.0f);
  rig.service->synthesize(request);
  rig.service->cache().flush();
  for (auto _ : state) {
    const TtsReply hit = rig.service->answer(request, {});
    if (!hit.file) state.SkipWithError("not an open clip");
    benchmark::DoNotOptimize(hit.file.get());
  }
}
BENCHMARK(BM_ServiceCacheHitOpenClip5s)->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_ServiceCacheHitRetimed5s(benchmark::State& state) { cacheHitLoop(state, 1.5f); }
BENCHMARK(BM_ServiceCacheHitRetimed5s)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

// A new line each time from an engine that answers at once with 5 s at 24 kHz:
// queue hand-off, resampling to 44.1 kHz, peak normalisation and WAV encoding,
// until the caller has its answer. The cache write (atomic, with fsync) follows
// on the cache's writer thread and is waited for outside the timing, so each
// line meets a writer that keeps up. No budget: evictions would add file
// deletions, which a cache without a budget never pays; the iteration count
// keeps the scratch cache to about 450 MB.
void BM_ServiceFreshOverhead5s(benchmark::State& state) {
  Rig rig(24000);
  rig.service->config().setOutputSampleRate(44100);
  rig.service->config().setNormalizeOutput(true);
  std::int64_t n = 0;
  for (auto _ : state) {
    const TtsResult fresh =
        rig.service->synthesize(TtsRequest::make(kLine + " " + std::to_string(n++), "en", TtsGender::female, 1.0f));
    if (fresh.fromCache || fresh.sampleRate != 44100) state.SkipWithError("not a fresh 44.1 kHz line");
    state.PauseTiming();
    rig.service->cache().flush();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_ServiceFreshOverhead5s)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(200)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

// From nothing to ready to serve: configuration, 100 voices, a cache of 10,000
// lines, queue and pre-bake threads, the orphan sweep and the engine start
// (which finds nothing under the root and leaves the placeholder in charge).
// open() settles the data root for the process, so this runs only when
// nothing before it has.
void BM_ServiceOpen10kLines100Voices(benchmark::State& state) {
  const std::string root = scratchDir();
  setenv("KELVO_HOME", root.c_str(), 1);
  if (KELVOPaths::dataRoot() != root) {
    state.SkipWithError("the data root was settled earlier; run with --benchmark_filter=ServiceOpen");
    return;
  }
  KELVOPaths::ensureDirectories();
  {
    auto config = std::make_shared<AppConfig>();
    config->save();
    VoiceLibrary voices;
    voices.setConfig(config);
    const Bytes clip = referenceClip();
    for (int i = 0; i < 100; ++i) voices.addClone({"Voice " + std::to_string(i), "en", TtsGender::female,
                                                   {{clip, "words " + std::to_string(i)}}, "", ""});
  }
  const Bytes wav = buildWav({std::vector<float>(100, 0.25f), 44100}, 1);
  Json index = Json::object();
  for (int i = 0; i < 10000; ++i) {
    const std::string key = sha256Utf8(std::to_string(i));
    // Plain writes: ten thousand fsyncs would only measure the disk.
    std::ofstream(KELVOPaths::cacheDir() + key + ".wav", std::ios::binary)
        .write(reinterpret_cast<const char*>(wav.data()), static_cast<std::streamsize>(wav.size()));
    index[key] = {{"file", key + ".wav"}, {"voice", "v-0"}, {"text", kLine}, {"language", "en"}, {"speed", 1.0},
                  {"sampleRate", 44100},  {"durationMs", 2}, {"bytes", wav.size()}};
  }
  writeFileAtomic(KELVOPaths::cacheDir() + "index.json", jsonData(index, false));
  for (auto _ : state) {
    auto service = TtsService::open();
    state.PauseTiming();
    if (service->voices().count() != 100 || service->cache().stats().count != 10000) state.SkipWithError("not loaded");
    service.reset();  // stopping is not part of the start
    state.ResumeTiming();
  }
  std::error_code ignored;
  fs::remove_all(root, ignored);
}
BENCHMARK(BM_ServiceOpen10kLines100Voices)->Unit(benchmark::kMillisecond)->Iterations(10);

}  // namespace
