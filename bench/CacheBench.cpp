#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include "KELVOCore/Cache.h"
#include "KELVOCore/Files.h"
#include "KELVOCore/Json.h"
#include "KELVOCore/Wav.h"

namespace {

namespace fs = std::filesystem;
using kelvo::WavCache;

// A scratch cache directory, removed with everything in it.
class ScratchDir {
 public:
  ScratchDir() {
    std::string pattern = (fs::temp_directory_path() / "kelvo-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern + "/";
  }
  ~ScratchDir() {
    std::error_code ignored;
    if (!path_.empty()) fs::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// A mono 16-bit line of `bytes` bytes, as the pipeline stores it.
kelvo::TtsResult line(std::size_t bytes) {
  kelvo::PcmBuffer pcm;
  pcm.sampleRate = 44100;
  pcm.data.assign((bytes - 44) / 2, 0.25f);
  kelvo::TtsResult r;
  r.wav = kelvo::buildWav(pcm, 1);
  r.sampleRate = pcm.sampleRate;
  r.durationMs = pcm.durationMs();
  r.voiceId = "A1B2C3D4";
  r.language = "zh";
  return r;
}

const std::string kText = "各位旅客请注意,您乘坐的航班现在开始登机,请带好随身物品。";

// The hit path of a request: lookup, recency update and the read of a 200 KB
// file (from the page cache, as for every line served more than once).
void BM_tryGetHit_200KB(benchmark::State& state) {
  ScratchDir dir;
  WavCache cache(dir.path());
  const std::string key = kelvo::sha256Utf8(kText);
  cache.put(key, line(200 * 1024), kText);
  for (auto _ : state) {
    auto hit = cache.tryGet(key);
    if (!hit) state.SkipWithError("miss");
    benchmark::DoNotOptimize(hit);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * 200 * 1024);
}
BENCHMARK(BM_tryGetHit_200KB)->Unit(benchmark::kMicrosecond);

// Start of a service whose cache holds 100,000 lines: index read and parse,
// directory listing, and the in-memory index built.
void BM_loadIndex_100k(benchmark::State& state) {
  constexpr int kLines = 100000;
  ScratchDir dir;
  const kelvo::Bytes wav = line(200).wav;
  kelvo::Json index = kelvo::Json::object();
  for (int i = 0; i < kLines; ++i) {
    const std::string key = kelvo::sha256Utf8(std::to_string(i));
    // Plain writes: a hundred thousand fsyncs would take minutes and prove nothing here.
    std::ofstream(dir.path() + key + ".wav", std::ios::binary)
        .write(reinterpret_cast<const char*>(wav.data()), static_cast<std::streamsize>(wav.size()));
    index[key] = {{"file", key + ".wav"}, {"voice", "A1B2C3D4"}, {"text", kText},     {"language", "zh"},
                  {"speed", 1.0},         {"sampleRate", 44100},   {"durationMs", 2}, {"bytes", wav.size()}};
  }
  const kelvo::Bytes indexFile = kelvo::jsonData(index, false);
  kelvo::writeFileAtomic(dir.path() + "index.json", indexFile);
  for (auto _ : state) {
    auto cache = std::make_unique<WavCache>(dir.path());
    state.PauseTiming();
    if (cache->stats().count != kLines) state.SkipWithError("entries lost");
    cache.reset();  // tearing down is not part of the start
    state.ResumeTiming();
  }
  state.counters["indexMB"] = static_cast<double>(indexFile.size()) / 1048576.0;
}
BENCHMARK(BM_loadIndex_100k)->Unit(benchmark::kMillisecond)->Iterations(5);

// A burst of 1,000 stored lines of 64 KB: every put writes its file, the index
// is written at most once per 2 s. Counters: index writes, and the most the
// throttle allows for the burst's duration.
void BM_putBurst_1000(benchmark::State& state) {
  constexpr int kPuts = 1000;
  const kelvo::TtsResult result = line(64 * 1024);
  for (auto _ : state) {
    state.PauseTiming();
    auto dir = std::make_unique<ScratchDir>();
    auto cache = std::make_unique<WavCache>(dir->path());
    const auto start = std::chrono::steady_clock::now();
    state.ResumeTiming();
    for (int i = 0; i < kPuts; ++i) cache->put(kelvo::sha256Utf8(std::to_string(i)), result, kText);
    state.PauseTiming();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.counters["indexWrites"] = static_cast<double>(cache->stats().indexWrites);
    state.counters["allowedWrites"] = 1 + static_cast<double>(static_cast<std::int64_t>(seconds / 2));
    cache.reset();
    dir.reset();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_putBurst_1000)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace
