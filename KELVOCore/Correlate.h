// The inner loop of the WSOLA search: the dot product of one block of output
// with the input at a run of consecutive candidate offsets.
//
// Each dot product is summed strictly in index order (one rounding per
// multiply and per add, never fused), so the vectorised variants, which work
// across offsets rather than within one, give bit-identical sums to the plain
// loop and the search picks the same offset on every machine.
//
// Thread-safe (pure). Cost: n × lags multiply-adds.
#pragma once

#include <cstddef>

namespace kelvo {

// out[l] = sum over i = 0..n-1 of y[i] × x[l + i], for l = 0..lags-1, using
// the fastest variant this processor runs (AVX2 when present, else SSE2).
// REQUIRES: x has n + lags - 1 readable samples, y has n, out has lags.
void correlateLags(const float* x, const float* y, std::size_t n, std::size_t lags, float* out);

// The portable variant, for comparison in tests.
void correlateLagsPortable(const float* x, const float* y, std::size_t n, std::size_t lags, float* out);

}  // namespace kelvo
