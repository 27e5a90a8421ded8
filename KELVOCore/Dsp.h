// Local signal processing on decoded mono audio: speed change with the pitch
// kept (WSOLA time-stretch) or shifted (resampling), sample-rate conversion by
// linear interpolation, gain, peak normalisation and edge fades.
//
// Every function is pure: it takes a buffer and returns a new one, or the
// input unchanged when there is nothing to do. Safe from any thread.
// Cost: linear in the samples, except timeStretch, whose correlation search
// costs about (2 × 8 ms + 1) × 20 ms multiply-adds per 20 ms of output.
// Output buffers are allocated once at their final size.
#pragma once

#include <cstdint>

#include "KELVOCore/Types.h"

namespace kelvo {

// The sizes, in samples, that timeStretch works with at a given rate and speed:
// 40 ms frames (never below 128 samples) laid down every half frame, read
// every speed × half frame, each start searched within ±8 ms.
struct WsolaGeometry {
  std::int64_t frame = 0;
  std::int64_t synthesisHop = 0;
  std::int64_t analysisHop = 0;
  std::int64_t searchRadius = 0;
};
// REQUIRES: sampleRate >= 1.
WsolaGeometry wsolaGeometry(std::int64_t sampleRate, float speed);

// About 1/speed as long at the same rate and pitch. The speed is clamped to
// 0.5..2 (0 or NaN mean 1); within 1 % of 1 the input comes back unchanged.
// Clips shorter than one frame plus the search span are resampled instead,
// trading pitch for a result.
PcmBuffer timeStretch(const PcmBuffer& pcm, float speed);

// About 1/speed as long at the same nominal rate, so the pitch moves with the
// speed. Clamped like timeStretch; within 0.1 % of 1 the input comes back.
PcmBuffer changeSpeedByResample(const PcmBuffer& pcm, float speed);

// changeSpeedByResample for `localResample`, timeStretch for every other mode.
PcmBuffer changeSpeed(const PcmBuffer& pcm, TtsSpeedMode mode, float speed);

// Converts to `to` Hz by linear interpolation; the last input sample is held
// at the tail. Unchanged when either rate is below 1 or they are equal.
PcmBuffer resample(const PcmBuffer& pcm, std::int64_t to);

// Every sample times `gain`, without clipping; unchanged within 0.1 % of 1.
PcmBuffer applyGain(PcmBuffer pcm, float gain);

// Scales so that the largest absolute sample becomes `targetPeak`. Silence
// (peak below 1e-5) is left alone.
PcmBuffer peakNormalize(PcmBuffer pcm, float targetPeak);

// Linear fade-in and fade-out of `fadeMs` each, capped at half the buffer;
// the first and last samples become 0.
PcmBuffer fadeEdges(PcmBuffer pcm, std::int64_t fadeMs);

}  // namespace kelvo
