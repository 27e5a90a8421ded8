#include "KELVOCore/Dsp.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <tuple>

#include "tests/TestSupport.h"

namespace kelvo {
namespace {

using test::sine;

PcmBuffer ramp(std::int64_t rate, std::size_t count) {
  PcmBuffer pcm;
  pcm.sampleRate = rate;
  for (std::size_t i = 0; i < count; ++i) pcm.data.push_back(static_cast<float>(i));
  return pcm;
}

// Frequency from rising zero crossings over the middle of the buffer, away
// from the edges where the first and last frames are only half overlapped.
double pitchHz(const PcmBuffer& pcm) {
  const std::size_t from = pcm.data.size() / 8;
  const std::size_t to = pcm.data.size() - from;
  std::size_t first = 0, last = 0, crossings = 0;
  for (std::size_t i = from + 1; i < to; ++i) {
    if (pcm.data[i - 1] < 0 && pcm.data[i] >= 0) {
      if (crossings == 0) first = i;
      last = i;
      ++crossings;
    }
  }
  if (crossings < 2) return 0;
  return static_cast<double>(crossings - 1) * static_cast<double>(pcm.sampleRate) / static_cast<double>(last - first);
}

double rmsOfMiddle(const PcmBuffer& pcm) {
  const std::size_t from = pcm.data.size() / 8;
  const std::size_t to = pcm.data.size() - from;
  double sum = 0;
  for (std::size_t i = from; i < to; ++i) sum += static_cast<double>(pcm.data[i]) * pcm.data[i];
  return std::sqrt(sum / static_cast<double>(to - from));
}

TEST(DspTest, TimeStretchFollowsTheRateAndKeepsPitch) {
  // 40 ms frames (at least 128 samples), half-frame hops, ±8 ms search (at least 1).
  const std::tuple<std::int64_t, float, WsolaGeometry> geometries[] = {{44100, 1.6f, {1764, 882, 1411, 353}},
                                                                       {44100, 0.7f, {1764, 882, 617, 353}},
                                                                       {8000, 0.5f, {320, 160, 80, 64}},
                                                                       {2000, 2.0f, {128, 64, 128, 16}},
                                                                       {1, 1.0f, {128, 64, 64, 1}}};
  for (const auto& [rate, speed, want] : geometries) {
    const WsolaGeometry g = wsolaGeometry(rate, speed);
    EXPECT_EQ(std::tie(g.frame, g.synthesisHop, g.analysisHop, g.searchRadius),
              std::tie(want.frame, want.synthesisHop, want.analysisHop, want.searchRadius))
        << rate << " Hz at " << speed;
  }

  // Two seconds of tone come out 1/speed as long at the same pitch and level,
  // at CD rate and at telephone rate (a 320-sample frame).
  // 0.95 and 1.05 sit just outside the "no stretch needed" band around 1 and
  // must still change the length.
  const std::tuple<std::int64_t, double, float> tones[] = {
      {44100, 220.0, 0.7f},  {44100, 220.0, 1.6f},  {44100, 220.0, 0.5f}, {44100, 220.0, 2.0f},
      {44100, 220.0, 0.95f}, {44100, 220.0, 1.05f}, {8000, 300.0, 0.7f}};
  for (const auto& [rate, hz, speed] : tones) {
    SCOPED_TRACE(testing::Message() << rate << " Hz at " << speed);
    const PcmBuffer tone = sine(rate, hz, static_cast<std::size_t>(2 * rate));
    const PcmBuffer out = timeStretch(tone, speed);
    EXPECT_EQ(out.sampleRate, rate);
    // The last frame is only half overlapped, so the output falls short of the
    // ideal length by about one frame of input time, never more.
    const double expected = static_cast<double>(tone.data.size()) / speed;
    const double frame = static_cast<double>(wsolaGeometry(rate, speed).frame);
    EXPECT_LE(std::fabs(static_cast<double>(out.data.size()) - expected), 1.5 * frame / speed);
    EXPECT_NEAR(pitchHz(out), hz, hz / 100);
    // The search lines the frames up in phase: misaligned frames would
    // cancel and pull the level well below that of the tone.
    EXPECT_NEAR(rmsOfMiddle(out), 0.5 / std::sqrt(2.0), 0.04);
  }
}

// The search written out plainly: every candidate's correlation and energy
// summed afresh. The fast search (vectorised correlation, sliding energy)
// must make the same choices, so the output is the same to the bit.
std::vector<float> plainStretch(const PcmBuffer& pcm, float speed) {
  const WsolaGeometry g = wsolaGeometry(pcm.sampleRate, speed);
  const std::int64_t N = g.frame, Hs = g.synthesisHop, S = g.searchRadius;
  const std::vector<float>& x = pcm.data;
  const auto count = static_cast<std::int64_t>(x.size());
  const std::int64_t L = std::llround(static_cast<double>(count) / speed) + N;
  std::vector<float> out(static_cast<std::size_t>(L)), w(static_cast<std::size_t>(N));
  for (std::int64_t i = 0; i < N; ++i) {
    w[i] = static_cast<float>((1.0 - std::cos(2.0 * std::numbers::pi / static_cast<double>(N - 1) * i)) * 0.5);
  }
  std::int64_t lastO = 0;
  for (std::int64_t k = 0;; ++k) {
    const std::int64_t o = k * Hs, a = k * g.analysisHop;
    if (a + N + S >= count || o + N > L) break;
    std::int64_t b = a;
    double best = -INFINITY;
    for (std::int64_t c = a - S; k > 0 && c <= a + S; ++c) {
      if (c < 0 || c + Hs > count) continue;
      float corr = 0.0f;
      double energy = 0.0;
      for (std::int64_t i = 0; i < Hs; ++i) {
        corr += x[c + i] * out[o + i];
        energy += static_cast<double>(x[c + i]) * x[c + i];
      }
      const double score = corr / std::sqrt(1e-6 + energy);
      if (score > best) {
        best = score;
        b = c;
      }
    }
    for (std::int64_t i = 0; i < N && b + i < count && o + i < L; ++i) out[o + i] += x[b + i] * w[i];
    lastO = o;
  }
  out.resize(static_cast<std::size_t>(std::min(L, lastO + Hs)));
  return out;
}

TEST(DspTest, FastSearchChoosesLikeThePlainOne) {
  // Something speech-like: a gliding buzz with a syllable envelope and noise.
  for (const std::int64_t rate : {44100, 8000}) {
    PcmBuffer pcm;
    pcm.sampleRate = rate;
    std::uint32_t seed = 1;
    double phase = 0;
    for (std::int64_t i = 0; i < rate / 2; ++i) {
      const double t = static_cast<double>(i) / rate;
      phase += 2 * std::numbers::pi * (120 + 40 * std::sin(2 * std::numbers::pi * 3 * t)) / rate;
      seed = seed * 1664525u + 1013904223u;
      const double noise = (static_cast<double>(seed >> 8) / (1 << 24) - 0.5) * 0.05;
      const double envelope = 0.5 + 0.5 * std::sin(2 * std::numbers::pi * 4 * t);
      pcm.data.push_back(static_cast<float>(envelope * (0.4 * std::sin(phase) + 0.2 * std::sin(3 * phase)) + noise));
    }
    for (const float speed : {0.7f, 1.6f}) {
      SCOPED_TRACE(testing::Message() << rate << " Hz at " << speed);
      EXPECT_EQ(timeStretch(pcm, speed).data, plainStretch(pcm, speed));
    }
  }
}

TEST(DspTest, TimeStretchLeavesNearUnitySpeedAndOddInputAlone) {
  const PcmBuffer tone = sine(44100, 220.0, 10000);
  // Within 1 % of 1, and speeds that mean 1 (the clamp itself is tested with the types).
  for (const float speed : {1.005f, 0.0f, std::nanf("")}) EXPECT_EQ(timeStretch(tone, speed).data, tone.data) << speed;
  PcmBuffer noRate = tone;
  noRate.sampleRate = 0;
  EXPECT_EQ(timeStretch(noRate, 1.5f).data, tone.data);
  EXPECT_TRUE(timeStretch(PcmBuffer{{}, 44100}, 1.5f).isEmpty());
  // Too short for a frame plus the search span: resampled, pitch and all.
  const PcmBuffer shortClip = sine(44100, 220.0, 2000);
  const PcmBuffer fast = timeStretch(shortClip, 2.0f);
  EXPECT_EQ(fast.data.size(), 1000u);
  EXPECT_EQ(fast.data, changeSpeedByResample(shortClip, 2.0f).data);
  EXPECT_EQ(timeStretch(tone, 9.0f).data.size(), timeStretch(tone, 2.0f).data.size());
  // The mode picks the method.
  EXPECT_EQ(changeSpeed(tone, TtsSpeedMode::localResample, 1.5f).data, changeSpeedByResample(tone, 1.5f).data);
  EXPECT_EQ(changeSpeed(tone, TtsSpeedMode::localStretch, 1.5f).data, timeStretch(tone, 1.5f).data);
  EXPECT_EQ(changeSpeed(tone, TtsSpeedMode::engine, 1.5f).data, timeStretch(tone, 1.5f).data);
}

TEST(DspTest, ResampleInterpolatesAndHoldsTheTail) {
  const PcmBuffer up = resample(ramp(24000, 100), 48000);
  EXPECT_EQ(up.sampleRate, 48000);
  ASSERT_EQ(up.data.size(), 200u);
  EXPECT_FLOAT_EQ(up.data[1], 0.5f);
  EXPECT_FLOAT_EQ(up.data[197], 98.5f);
  EXPECT_FLOAT_EQ(up.data[199], 99.0f);  // held, not faded to zero

  const PcmBuffer down = resample(ramp(48000, 101), 24000);
  ASSERT_EQ(down.data.size(), 51u);  // round(50.5) away from zero
  EXPECT_FLOAT_EQ(down.data[10], 20.0f);
  EXPECT_FLOAT_EQ(down.data[50], 100.0f);

  EXPECT_EQ(resample(ramp(24000, 24000), 44100).data.size(), 44100u);
  EXPECT_EQ(resample(ramp(24000, 1), 8000).data.size(), 1u);  // never empty

  const PcmBuffer same = ramp(24000, 10);
  EXPECT_EQ(resample(same, 24000).data, same.data);
  EXPECT_EQ(resample(same, 0).sampleRate, 24000);
  EXPECT_EQ(resample(PcmBuffer{same.data, 0}, 44100).sampleRate, 0);
  const PcmBuffer empty = resample(PcmBuffer{{}, 24000}, 44100);
  EXPECT_TRUE(empty.isEmpty());
  EXPECT_EQ(empty.sampleRate, 44100);
}

TEST(DspTest, SpeedByResampleShiftsPitch) {
  const PcmBuffer tone = sine(16000, 200.0, 16000);
  const PcmBuffer fast = changeSpeedByResample(tone, 2.0f);
  EXPECT_EQ(fast.sampleRate, 16000);
  EXPECT_EQ(fast.data.size(), 8000u);
  EXPECT_NEAR(pitchHz(fast), 400.0, 4.0);
  EXPECT_EQ(changeSpeedByResample(tone, 0.5f).data.size(), 32000u);
  EXPECT_EQ(changeSpeedByResample(tone, 4.0f).data.size(), 8000u);
  EXPECT_EQ(changeSpeedByResample(tone, 1.0005f).data, tone.data);
  EXPECT_EQ(changeSpeedByResample(tone, std::nanf("")).data, tone.data);
  EXPECT_EQ(changeSpeedByResample(ramp(16000, 1), 2.0f).data.size(), 1u);
}

TEST(DspTest, GainPeakNormalisationAndFades) {
  PcmBuffer pcm{{0.2f, -0.8f, 0.4f}, 8000};
  EXPECT_EQ(applyGain(pcm, 1.0005f).data, pcm.data);
  EXPECT_EQ(applyGain(pcm, 2.0f).data, (std::vector<float>{0.4f, -1.6f, 0.8f}));  // no clipping
  const PcmBuffer loud = peakNormalize(pcm, 0.95f);
  EXPECT_FLOAT_EQ(loud.data[1], -0.95f);
  EXPECT_FLOAT_EQ(loud.data[0], 0.2f * 0.95f / 0.8f);
  const PcmBuffer hush{{0.0f, 5e-6f, -9e-6f}, 8000};
  EXPECT_EQ(peakNormalize(hush, 0.95f).data, hush.data);
  EXPECT_TRUE(peakNormalize(PcmBuffer{}, 0.95f).isEmpty());

  // 441 samples wanted, 50 allowed: the fade is linear over half the buffer from each end.
  const PcmBuffer capped = fadeEdges(PcmBuffer{std::vector<float>(100, 1.0f), 44100}, 10);
  const std::pair<std::size_t, float> points[] = {{0, 0.0f},  {99, 0.0f},  {25, 0.5f},
                                                  {74, 0.5f}, {49, 0.98f}, {50, 0.98f}};
  for (const auto& [at, gain] : points) EXPECT_FLOAT_EQ(capped.data[at], gain) << at;

  const PcmBuffer second{std::vector<float>(1000, 1.0f), 1000};
  const PcmBuffer faded = fadeEdges(second, 10);
  EXPECT_FLOAT_EQ(faded.data[5], 0.5f);
  EXPECT_EQ(faded.data[10], 1.0f);
  EXPECT_EQ(faded.data[989], 1.0f);
  EXPECT_FLOAT_EQ(faded.data[994], 0.5f);
  EXPECT_FLOAT_EQ(fadeEdges(second, std::numeric_limits<std::int64_t>::max()).data[250], 0.5f);
  EXPECT_EQ(fadeEdges(second, 0).data, second.data);
  EXPECT_EQ(fadeEdges(second, -5).data, second.data);
  EXPECT_EQ(fadeEdges(PcmBuffer{second.data, 0}, 10).data, second.data);
  const PcmBuffer single{{0.7f}, 44100};
  EXPECT_EQ(fadeEdges(single, 10).data, single.data);
}

}  // namespace
}  // namespace kelvo
