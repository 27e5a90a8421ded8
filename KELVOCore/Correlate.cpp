#include "KELVOCore/Correlate.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace kelvo {

namespace {

// Offsets handled together share each load of y, and their independent sums
// hide the latency of the additions.
constexpr std::size_t kLagsPerBlock = 8;

float dotInOrder(const float* x, const float* y, std::size_t n) {
  float acc = 0.0f;
  for (std::size_t i = 0; i < n; ++i) acc += y[i] * x[i];
  return acc;
}

#if defined(__x86_64__)
// Blocks × 8 offsets, one AVX register of sums per 8 offsets.
template <std::size_t Blocks>
__attribute__((target("avx2"))) inline void avx2Lags(const float* x, const float* y, std::size_t n, float* out) {
  __m256 acc[Blocks];
#pragma GCC unroll 16
  for (std::size_t b = 0; b < Blocks; ++b) acc[b] = _mm256_setzero_ps();
  for (std::size_t i = 0; i < n; ++i) {
    const __m256 v = _mm256_broadcast_ss(y + i);
#pragma GCC unroll 16
    for (std::size_t b = 0; b < Blocks; ++b) {
      acc[b] = _mm256_add_ps(acc[b], _mm256_mul_ps(v, _mm256_loadu_ps(x + i + 8 * b)));
    }
  }
#pragma GCC unroll 16
  for (std::size_t b = 0; b < Blocks; ++b) _mm256_storeu_ps(out + 8 * b, acc[b]);
}

__attribute__((target("avx2"))) void correlateLagsAvx2(const float* x, const float* y, std::size_t n,
                                                          std::size_t lags, float* out) {
  constexpr std::size_t wide = 8;
  std::size_t l = 0;
  for (; l + wide * 8 <= lags; l += wide * 8) avx2Lags<wide>(x + l, y, n, out + l);
  for (; l + 8 <= lags; l += 8) avx2Lags<1>(x + l, y, n, out + l);
  for (; l < lags; ++l) out[l] = dotInOrder(x + l, y, n);
}
#endif

using Kernel = void (*)(const float*, const float*, std::size_t, std::size_t, float*);

Kernel pickKernel() {
#if defined(__x86_64__)
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx2")) return correlateLagsAvx2;
#endif
  return correlateLagsPortable;
}

}  // namespace

void correlateLagsPortable(const float* x, const float* y, std::size_t n, std::size_t lags, float* out) {
  std::size_t l = 0;
  // Written so the compiler vectorises across the block's offsets with the
  // baseline instruction set, keeping every sum in index order.
  for (; l + kLagsPerBlock <= lags; l += kLagsPerBlock) {
    float acc[kLagsPerBlock] = {};
    for (std::size_t i = 0; i < n; ++i) {
      const float v = y[i];
      for (std::size_t k = 0; k < kLagsPerBlock; ++k) acc[k] += v * x[l + k + i];
    }
    for (std::size_t k = 0; k < kLagsPerBlock; ++k) out[l + k] = acc[k];
  }
  for (; l < lags; ++l) out[l] = dotInOrder(x + l, y, n);
}

void correlateLags(const float* x, const float* y, std::size_t n, std::size_t lags, float* out) {
  static const Kernel kernel = pickKernel();
  kernel(x, y, n, lags, out);
}

}  // namespace kelvo
