#include "KELVOCore/Dsp.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <vector>

#include "KELVOCore/Correlate.h"

namespace kelvo {

namespace {

// Symmetric Hann window, zero at both ends: 50 % overlapped copies sum to
// about 1, so overlap-add needs no gain correction.
std::vector<float> makeHann(std::size_t n) {
  if (n == 0) return {};
  if (n == 1) return {1.0f};
  std::vector<float> w(n);
  const double scale = 2.0 * std::numbers::pi / static_cast<double>(n - 1);
  for (std::size_t i = 0; i < n; ++i) w[i] = static_cast<float>((1.0 - std::cos(scale * static_cast<double>(i))) * 0.5);
  return w;
}

// Linear interpolation at positions step × j (single precision); past the end
// the last sample is held rather than padded with zeros.
std::vector<float> interpolate(const std::vector<float>& x, std::size_t outLen, float step) {
  if (x.empty() || outLen == 0) return {};
  std::vector<float> y(outLen);
  const std::size_t n = x.size();
  for (std::size_t j = 0; j < outLen; ++j) {
    const float p = step * static_cast<float>(j);
    const auto i = static_cast<std::size_t>(p);
    const float f = p - static_cast<float>(i);
    y[j] = i + 1 < n ? (1.0f - f) * x[i] + f * x[i + 1] : x[n - 1];
  }
  return y;
}

std::size_t roundedLength(std::size_t count, double divisor) {
  return static_cast<std::size_t>(std::llround(static_cast<double>(count) / divisor));
}

// Index of the best of `lags` candidates starting at x, x+1, …: each scores
// its correlation `corr` with the output divided by the root of its own
// energy over `n` samples. Ties keep the earlier candidate; `lags` when no
// score is a number. `scores` is scratch space for `lags` values.
// REQUIRES: lags >= 1; x has n + lags - 1 samples.
std::size_t bestCandidate(const float* x, const float* corr, std::size_t n, std::size_t lags, double* scores) {
  // The energy slides along with the candidate. Squares of floats are exact
  // in double, so the running sum barely drifts over a frame's candidates.
  // The first sum runs in four interleaved parts so the additions overlap.
  double part[4] = {};
  std::size_t i = 0;
  for (; i + 4 <= n; i += 4) {
    for (std::size_t j = 0; j < 4; ++j) part[j] += static_cast<double>(x[i + j]) * x[i + j];
  }
  for (; i < n; ++i) part[0] += static_cast<double>(x[i]) * x[i];
  double energy = (part[0] + part[1]) + (part[2] + part[3]);
  for (std::size_t l = 0;; ++l) {
    scores[l] = energy;
    if (l + 1 == lags) break;
    const double leaving = x[l];
    const double entering = x[l + n];
    energy += entering * entering - leaving * leaving;
  }
  // Kept apart from the running sum so that the divisions vectorise.
  for (std::size_t l = 0; l < lags; ++l) scores[l] = corr[l] / std::sqrt(1e-6 + scores[l]);
  std::size_t best = lags;
  double bestScore = -std::numeric_limits<double>::infinity();
  for (std::size_t l = 0; l < lags; ++l) {
    if (scores[l] > bestScore) {
      bestScore = scores[l];
      best = l;
    }
  }
  return best;
}

}  // namespace

WsolaGeometry wsolaGeometry(std::int64_t sampleRate, float speed) {
  WsolaGeometry g;
  const double rate = static_cast<double>(sampleRate);
  g.frame = std::max<std::int64_t>(std::llround(rate * 0.04), 128);
  g.synthesisHop = g.frame / 2;
  g.analysisHop = std::max<std::int64_t>(std::llround(speed * static_cast<float>(g.synthesisHop)), 1);
  g.searchRadius = std::max<std::int64_t>(std::llround(rate * 0.008), 1);
  return g;
}

PcmBuffer timeStretch(const PcmBuffer& pcm, float speed) {
  speed = clampSpeed(speed);
  if (pcm.data.empty() || pcm.sampleRate < 1 || std::fabs(speed - 1.0f) < 0.01f) return pcm;
  const WsolaGeometry g = wsolaGeometry(pcm.sampleRate, speed);
  const auto N = static_cast<std::size_t>(g.frame);
  const auto Hs = static_cast<std::size_t>(g.synthesisHop);
  const auto Ha = static_cast<std::size_t>(g.analysisHop);
  const auto S = static_cast<std::size_t>(g.searchRadius);
  const std::vector<float>& x = pcm.data;
  const std::size_t count = x.size();
  if (count < N + 2 * S) return changeSpeedByResample(pcm, speed);

  const std::vector<float> window = makeHann(N);
  const std::size_t L = roundedLength(count, speed) + N;
  PcmBuffer result;
  result.sampleRate = pcm.sampleRate;
  std::vector<float>& out = result.data;
  out.assign(L, 0.0f);
  std::vector<float> corr(2 * S + 1);
  std::vector<float> scratch(correlateScratchSize(Hs, 2 * S + 1));
  std::vector<double> scores(2 * S + 1);

  std::size_t lastO = 0;
  for (std::size_t o = 0, a = 0; a + N + S < count && o + N <= L; o += Hs, a += Ha) {
    std::size_t b = a;
    if (o > 0) {
      // Candidates a-S..a+S that start inside the input; the loop condition
      // keeps a+S+Hs inside it.
      const std::size_t lo = a > S ? a - S : 0;
      const std::size_t lags = a + S - lo + 1;
      correlateLags(x.data() + lo, out.data() + o, Hs, lags, corr.data(), scratch.data());
      const std::size_t best = bestCandidate(x.data() + lo, corr.data(), Hs, lags, scores.data());
      if (best < lags) b = lo + best;
    }
    const std::size_t span = std::min({N, count - b, L - o});
    for (std::size_t i = 0; i < span; ++i) out[o + i] += x[b + i] * window[i];
    lastO = o;
  }
  out.resize(std::min(L, lastO + Hs));
  return result;
}

PcmBuffer changeSpeedByResample(const PcmBuffer& pcm, float speed) {
  speed = clampSpeed(speed);
  if (pcm.data.empty() || std::fabs(speed - 1.0f) < 0.001f) return pcm;
  PcmBuffer out;
  out.sampleRate = pcm.sampleRate;
  out.data = interpolate(pcm.data, std::max<std::size_t>(roundedLength(pcm.data.size(), speed), 1), speed);
  return out;
}

PcmBuffer changeSpeed(const PcmBuffer& pcm, TtsSpeedMode mode, float speed) {
  return mode == TtsSpeedMode::localResample ? changeSpeedByResample(pcm, speed) : timeStretch(pcm, speed);
}

PcmBuffer resample(const PcmBuffer& pcm, std::int64_t to) {
  if (pcm.sampleRate < 1 || to < 1 || pcm.sampleRate == to) return pcm;
  PcmBuffer out;
  out.sampleRate = to;
  if (pcm.data.empty()) return out;
  const float step = static_cast<float>(pcm.sampleRate) / static_cast<float>(to);
  out.data = interpolate(pcm.data, std::max<std::size_t>(roundedLength(pcm.data.size(), step), 1), step);
  return out;
}

PcmBuffer applyGain(PcmBuffer pcm, float gain) {
  if (std::fabs(gain - 1.0f) < 0.001f) return pcm;
  for (float& s : pcm.data) s *= gain;
  return pcm;
}

PcmBuffer peakNormalize(PcmBuffer pcm, float targetPeak) {
  float peak = 0.0f;
  for (const float s : pcm.data) peak = std::max(peak, std::fabs(s));
  if (pcm.data.empty() || peak < 1e-5f) return pcm;
  return applyGain(std::move(pcm), targetPeak / peak);
}

PcmBuffer fadeEdges(PcmBuffer pcm, std::int64_t fadeMs) {
  if (pcm.data.empty() || pcm.sampleRate < 1) return pcm;
  const std::size_t count = pcm.data.size();
  const double wanted = std::round(static_cast<double>(fadeMs) * static_cast<double>(pcm.sampleRate) / 1000.0);
  const std::size_t n = wanted >= static_cast<double>(count / 2) ? count / 2 : static_cast<std::size_t>(std::max(wanted, 0.0));
  if (n < 1) return pcm;
  for (std::size_t i = 0; i < n; ++i) {
    const float g = static_cast<float>(i) / static_cast<float>(n);
    pcm.data[i] *= g;
    pcm.data[count - 1 - i] *= g;
  }
  return pcm;
}

}  // namespace kelvo
