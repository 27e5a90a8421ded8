// The inner loop of the WSOLA search: the dot product of one block of output
// with the input at a run of consecutive candidate offsets.
//
// Each dot product is summed strictly in index order (one rounding per
// multiply and per add, never fused), so the vectorised variant, which works
// across offsets rather than within one, gives bit-identical sums to the plain
// loop and the search picks the same offset on every machine.
//
// Thread-safe (pure; the scratch space belongs to the caller).
// Cost: n × lags multiply-adds.
#pragma once

#include <cstddef>

namespace kelvo {

// Floats of scratch space that correlateLags needs for these sizes.
std::size_t correlateScratchSize(std::size_t n, std::size_t lags);

// out[l] = sum over i = 0..n-1 of y[i] × x[l + i], for l = 0..lags-1, using
// the fastest variant this processor runs (AVX2 when present).
// REQUIRES: x has n + lags - 1 readable samples, y has n, out has lags,
//           scratch has correlateScratchSize(n, lags).
void correlateLags(const float* x, const float* y, std::size_t n, std::size_t lags, float* out, float* scratch);

// The portable variant (no scratch), for comparison in tests.
void correlateLagsPortable(const float* x, const float* y, std::size_t n, std::size_t lags, float* out);

}  // namespace kelvo
