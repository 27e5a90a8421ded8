#include "KELVOCore/Correlate.h"

#include <algorithm>
#include <cstdint>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace kelvo {

namespace {

// Offsets handled together; also the lane count of an AVX register.
constexpr std::size_t kLanes = 8;

float dotInOrder(const float* x, const float* y, std::size_t n) {
  float acc = 0.0f;
  for (std::size_t i = 0; i < n; ++i) acc += y[i] * x[i];
  return acc;
}

std::size_t stripeLength(std::size_t lags) { return (lags + kLanes - 1) / kLanes; }

#if defined(__x86_64__)
// The AVX2 variant splits the offsets into 8 stripes of P consecutive offsets
// and gives each stripe one lane. The input is first copied into rows of 8
// (row t holds x[k·P + t] for stripe k), so the 8 inputs one step needs are
// one aligned row: contiguous offsets would need unaligned loads, half of
// which straddle cache lines, and those loads, not the arithmetic, would set
// the pace. Each lane still sums its offset in index order.

float* alignedRows(float* scratch) {
  const auto at = reinterpret_cast<std::uintptr_t>(scratch);
  return reinterpret_cast<float*>((at + 31) & ~std::uintptr_t{31});
}

// Blocks stripe positions from m0 on, one register of 8 sums per position.
// Two steps at a time: position b at step i+1 reads the same row as position
// b+1 at step i, so Blocks+1 row loads serve 2×Blocks multiply-adds. Seven
// positions keep seven add chains in flight: with six the chains' latency
// alone sets the pace, with eight the registers run out.
template <std::size_t Blocks>
__attribute__((target("avx2"))) inline void avx2Positions(const float* rows, const float* y, std::size_t n,
                                                           std::size_t m0, float* sums) {
  __m256 acc[Blocks];
#pragma GCC unroll 8
  for (std::size_t b = 0; b < Blocks; ++b) acc[b] = _mm256_setzero_ps();
  const float* row = rows + m0 * kLanes;
  std::size_t i = 0;
  for (; i + 2 <= n; i += 2, row += 2 * kLanes) {
    const __m256 v0 = _mm256_broadcast_ss(y + i);
    const __m256 v1 = _mm256_broadcast_ss(y + i + 1);
    __m256 r[Blocks + 1];
#pragma GCC unroll 8
    for (std::size_t b = 0; b <= Blocks; ++b) r[b] = _mm256_load_ps(row + b * kLanes);
#pragma GCC unroll 8
    for (std::size_t b = 0; b < Blocks; ++b) {
      acc[b] = _mm256_add_ps(acc[b], _mm256_mul_ps(v0, r[b]));
      acc[b] = _mm256_add_ps(acc[b], _mm256_mul_ps(v1, r[b + 1]));
    }
  }
  if (i < n) {
    const __m256 v = _mm256_broadcast_ss(y + i);
#pragma GCC unroll 8
    for (std::size_t b = 0; b < Blocks; ++b) acc[b] = _mm256_add_ps(acc[b], _mm256_mul_ps(v, _mm256_load_ps(row + b * kLanes)));
  }
#pragma GCC unroll 8
  for (std::size_t b = 0; b < Blocks; ++b) _mm256_store_ps(sums + b * kLanes, acc[b]);
}

constexpr std::size_t kPositionsPerPass = 7;

// rows[j·8 + k] = x[k·stride + j] for j, k = 0..7: eight rows from one 8×8 transpose.
__attribute__((target("avx2"))) void transposeRows(const float* x, std::size_t stride, float* rows) {
  __m256 r[kLanes];
  for (std::size_t k = 0; k < kLanes; ++k) r[k] = _mm256_loadu_ps(x + k * stride);
  const __m256 t0 = _mm256_unpacklo_ps(r[0], r[1]), t1 = _mm256_unpackhi_ps(r[0], r[1]);
  const __m256 t2 = _mm256_unpacklo_ps(r[2], r[3]), t3 = _mm256_unpackhi_ps(r[2], r[3]);
  const __m256 t4 = _mm256_unpacklo_ps(r[4], r[5]), t5 = _mm256_unpackhi_ps(r[4], r[5]);
  const __m256 t6 = _mm256_unpacklo_ps(r[6], r[7]), t7 = _mm256_unpackhi_ps(r[6], r[7]);
  const __m256 u0 = _mm256_shuffle_ps(t0, t2, 0x44), u1 = _mm256_shuffle_ps(t0, t2, 0xEE);
  const __m256 u2 = _mm256_shuffle_ps(t1, t3, 0x44), u3 = _mm256_shuffle_ps(t1, t3, 0xEE);
  const __m256 u4 = _mm256_shuffle_ps(t4, t6, 0x44), u5 = _mm256_shuffle_ps(t4, t6, 0xEE);
  const __m256 u6 = _mm256_shuffle_ps(t5, t7, 0x44), u7 = _mm256_shuffle_ps(t5, t7, 0xEE);
  _mm256_store_ps(rows + 0 * kLanes, _mm256_permute2f128_ps(u0, u4, 0x20));
  _mm256_store_ps(rows + 1 * kLanes, _mm256_permute2f128_ps(u1, u5, 0x20));
  _mm256_store_ps(rows + 2 * kLanes, _mm256_permute2f128_ps(u2, u6, 0x20));
  _mm256_store_ps(rows + 3 * kLanes, _mm256_permute2f128_ps(u3, u7, 0x20));
  _mm256_store_ps(rows + 4 * kLanes, _mm256_permute2f128_ps(u0, u4, 0x31));
  _mm256_store_ps(rows + 5 * kLanes, _mm256_permute2f128_ps(u1, u5, 0x31));
  _mm256_store_ps(rows + 6 * kLanes, _mm256_permute2f128_ps(u2, u6, 0x31));
  _mm256_store_ps(rows + 7 * kLanes, _mm256_permute2f128_ps(u3, u7, 0x31));
}

__attribute__((target("avx2"))) void avx2Pass(const float* rows, const float* y, std::size_t n, std::size_t m0,
                                              std::size_t count, float* sums) {
  switch (count) {
    case 1: return avx2Positions<1>(rows, y, n, m0, sums);
    case 2: return avx2Positions<2>(rows, y, n, m0, sums);
    case 3: return avx2Positions<3>(rows, y, n, m0, sums);
    case 4: return avx2Positions<4>(rows, y, n, m0, sums);
    case 5: return avx2Positions<5>(rows, y, n, m0, sums);
    case 6: return avx2Positions<6>(rows, y, n, m0, sums);
    default: return avx2Positions<kPositionsPerPass>(rows, y, n, m0, sums);
  }
}

__attribute__((target("avx2"))) void correlateLagsAvx2(const float* x, const float* y, std::size_t n,
                                                          std::size_t lags, float* out, float* scratch) {
  const std::size_t P = stripeLength(lags);
  const std::size_t rowCount = P + n - 1;
  const std::size_t available = lags + n - 1;
  float* rows = alignedRows(scratch);
  // Eight rows at a time while every stripe has eight samples left, then one
  // by one, with zeros past the end of the input.
  const std::size_t whole = std::min(rowCount, available > 7 * P ? available - 7 * P : 0);
  std::size_t t = 0;
  for (; t + kLanes <= whole; t += kLanes) transposeRows(x + t, P, rows + t * kLanes);
  for (; t < rowCount; ++t) {
    for (std::size_t k = 0; k < kLanes; ++k) rows[t * kLanes + k] = k * P + t < available ? x[k * P + t] : 0.0f;
  }
  float* sums = rows + rowCount * kLanes;
  for (std::size_t m = 0; m < P; m += kPositionsPerPass) {
    avx2Pass(rows, y, n, m, std::min(kPositionsPerPass, P - m), sums + m * kLanes);
  }
  // Lane k of position m is offset k·P + m; the last stripe may be short.
  for (std::size_t m = 0; m < P; ++m) {
    for (std::size_t k = 0; k < kLanes; ++k) {
      if (k * P + m < lags) out[k * P + m] = sums[m * kLanes + k];
    }
  }
}
#endif

using Kernel = void (*)(const float*, const float*, std::size_t, std::size_t, float*, float*);

void portableKernel(const float* x, const float* y, std::size_t n, std::size_t lags, float* out, float*) {
  correlateLagsPortable(x, y, n, lags, out);
}

Kernel pickKernel() {
#if defined(__x86_64__)
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx2")) return correlateLagsAvx2;
#endif
  return portableKernel;
}

}  // namespace

std::size_t correlateScratchSize(std::size_t n, std::size_t lags) {
  // Rows of 8 and the sums of every stripe position, plus room to align the
  // first row to 32 bytes.
  return (stripeLength(lags) + n) * kLanes + stripeLength(lags) * kLanes + kLanes;
}

void correlateLagsPortable(const float* x, const float* y, std::size_t n, std::size_t lags, float* out) {
  std::size_t l = 0;
  // Written so the compiler vectorises across the block's offsets with the
  // baseline instruction set, keeping every sum in index order.
  for (; l + kLanes <= lags; l += kLanes) {
    float acc[kLanes] = {};
    for (std::size_t i = 0; i < n; ++i) {
      const float v = y[i];
      for (std::size_t k = 0; k < kLanes; ++k) acc[k] += v * x[l + k + i];
    }
    for (std::size_t k = 0; k < kLanes; ++k) out[l + k] = acc[k];
  }
  for (; l < lags; ++l) out[l] = dotInOrder(x + l, y, n);
}

void correlateLags(const float* x, const float* y, std::size_t n, std::size_t lags, float* out, float* scratch) {
  static const Kernel kernel = pickKernel();
  kernel(x, y, n, lags, out, scratch);
}

}  // namespace kelvo
