#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <vector>

#include "KELVOCore/Queue.h"

namespace {

// Answers at once, so what is measured is the queue's own hand-off cost.
class InstantEngine : public kelvo::TtsEngine {
 public:
  std::string name() const override { return "instant"; }
  bool ready() const override { return true; }
  void configure(const kelvo::EngineOptions&) override {}
  kelvo::EngineOptions options() const override { return {}; }
  kelvo::EngineHealth checkHealth() override { return {}; }
  kelvo::PcmBuffer synthesize(const kelvo::S2Params&, const kelvo::VoiceHint&) override {
    return {std::vector<float>(64, 0.25f), 44100};
  }
};

double percentileUs(std::vector<double>& samples, double p) {
  const auto at = static_cast<std::size_t>(p * static_cast<double>(samples.size() - 1));
  std::nth_element(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(at), samples.end());
  return samples[at];
}

}  // namespace

// submit -> worker -> engine -> result back to the caller: the overhead every
// uncached request pays on top of the synthesis itself. Reports the median and
// the 99th percentile of single round trips besides the mean.
static void BM_SynthQueueRoundTrip(benchmark::State& state) {
  auto engine = std::make_shared<InstantEngine>();
  kelvo::SynthQueue queue(64, [&] { return engine; });
  kelvo::S2Params params;
  params.text = "Boarding is now complete.";
  const kelvo::VoiceHint hint;
  std::vector<double> roundTripsUs;
  roundTripsUs.reserve(1 << 20);
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(queue.submit(params, hint, kelvo::TtsPriority::normal, 10000));
    roundTripsUs.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
  }
  if (roundTripsUs.empty()) return;
  state.counters["p50_us"] = percentileUs(roundTripsUs, 0.5);
  state.counters["p99_us"] = percentileUs(roundTripsUs, 0.99);
}
BENCHMARK(BM_SynthQueueRoundTrip)->UseRealTime();
