#include <benchmark/benchmark.h>

#include "KELVOCore/Types.h"

// Cache keys hash every request's text; this is the per-request floor.
static void BM_sha256Utf8_1KiB(benchmark::State& state) {
  const std::string text(1024, 'x');
  for (auto _ : state) benchmark::DoNotOptimize(kelvo::sha256Utf8(text));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * 1024);
}
BENCHMARK(BM_sha256Utf8_1KiB);
