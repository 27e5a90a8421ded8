// The local engine's own costs, with the model taken out of the picture: one
// synthesis call against a responder that answers at once, and start() to
// ready against the inference double with no load delay.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "KELVOCore/ChildProcess.h"
#include "KELVOCore/EngineS2Local.h"
#include "KELVOCore/Wav.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// A data root holding `engine` as engine/s2 and a dummy model; removed afterwards.
class EngineRoot {
 public:
  explicit EngineRoot(const std::string& engine) {
    std::string pattern = (fs::temp_directory_path() / "kelvo-bench-XXXXXX").string();
    path_ = std::string(mkdtemp(pattern.data())) + "/";
    fs::create_directories(path_ + "engine");
    fs::create_directories(path_ + "models");
    fs::copy_file(engine, path_ + "engine/s2");
    fs::permissions(path_ + "engine/s2", fs::perms::owner_all);
    kelvo::saveFileBytes(path_ + "models/x.gguf", kelvo::Bytes{'g', 'g', 'u', 'f'});
  }
  ~EngineRoot() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  EngineRoot(const EngineRoot&) = delete;
  EngineRoot& operator=(const EngineRoot&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

kelvo::S2Timing quickProbes() {
  kelvo::S2Timing t;
  t.probeInterval = std::chrono::milliseconds(20);
  return t;
}

}  // namespace

// Service-side cost of one synthesize(): the multipart body with a 200 KB
// reference clip, the loopback exchange and parsing a 5 s, 44.1 kHz float
// reply. The engine's child is bench/tools/instant_s2, which answers at once.
static void BM_S2SynthesisCall(benchmark::State& state) {
  EngineRoot root(KELVO_INSTANT_S2);
  kelvo::S2LocalEngine engine({}, root.path(), quickProbes(), {27151, 27170, 27171});
  engine.start();
  while (engine.currentState() == kelvo::S2EngineState::loading)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  if (!engine.ready()) {
    state.SkipWithError(engine.detail().c_str());
    return;
  }
  kelvo::S2Params params;
  params.text = "Ladies and gentlemen, boarding for flight 123 is now complete.";
  params.referenceAudio = kelvo::buildWav(kelvo::PcmBuffer::silence(44100, 2300), 1);
  params.referenceText = "reference transcript";
  std::vector<double> us;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    kelvo::PcmBuffer pcm = engine.synthesize(params, kelvo::VoiceHint{});
    us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    benchmark::DoNotOptimize(pcm.data.data());
  }
  std::sort(us.begin(), us.end());
  state.counters["median_us"] = us[us.size() / 2];
  state.counters["p99_us"] = us[us.size() * 99 / 100];
}
BENCHMARK(BM_S2SynthesisCall)->Unit(benchmark::kMicrosecond)->Iterations(500);

// start() until ready against the double with no load delay, at the real
// probe interval of 0.4 s: the double's interpreter start-up misses the first
// probe, so the second one (0.4 s in) is what normally finds it.
static void BM_S2StartToReady(benchmark::State& state) {
  EngineRoot root(KELVO_TOOLS_DIR "/s2_double.py");
  kelvo::S2LocalEngine engine({}, root.path(), {}, {27151, 27170, 27171});
  for (auto _ : state) {
    engine.start();
    while (!engine.ready()) {
      if (engine.currentState() != kelvo::S2EngineState::loading) {
        state.SkipWithError(engine.detail().c_str());
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    state.PauseTiming();
    engine.stop();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_S2StartToReady)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();

// One readiness look: who holds a listening port, read from the TCP tables
// and the descriptor lists of a process tree (here this process's own).
static void BM_LoopbackListenerLook(benchmark::State& state) {
  EngineRoot root(KELVO_INSTANT_S2);
  kelvo::S2LocalEngine engine({}, root.path(), quickProbes(), {27151, 27170, 27171});
  engine.start();
  while (engine.currentState() == kelvo::S2EngineState::loading)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  const auto pid = engine.childPid();
  if (!engine.ready() || !pid) {
    state.SkipWithError(engine.detail().c_str());
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(kelvo::loopbackListener(engine.port(), *pid));
  }
}
BENCHMARK(BM_LoopbackListenerLook)->Unit(benchmark::kMicrosecond);
