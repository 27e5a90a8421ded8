// PlaceholderEngine: the stand-by engine that needs no model and no outside
// process. It turns any text into audible, speech-like but meaningless audio: a
// formant buzz per letter or digit, hiss for a few consonants, silence for
// spaces and punctuation. It lets the whole chain (queue, cache, WAV output,
// playback) be exercised before a model is installed, and answers while the
// real engine is not ready.
//
// Output is fully deterministic: the same text, gender and seed (low 32 bits)
// give bit-identical samples on every run.
//
// Thread-safety: `configure` and `options` take the engine's lock; `synthesize`
// takes none and keeps all its state local, so any number of threads may call
// it at once. Cost: one grapheme-cluster pass over the text, then a few table
// lookups, one sinf and a handful of float operations per sample, well under a
// millisecond per second of audio; the buffer is allocated once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "KELVOCore/Engine.h"

namespace kelvo {

enum class SegmentKind : int { voiced = 0, fricative = 1, pause = 2 };

// One sound unit of the placeholder voice.
struct Segment {
  SegmentKind kind = SegmentKind::pause;
  std::int64_t durationMs = 0;
  std::int64_t vowel = 0;  // row 0..4 of the formant table; 0 for pauses
  float stress = 1.0f;     // loudness factor 0.75..1.0
};

// Splits `text` (UTF-8; ill-formed bytes count as U+FFFD) into segments, one per
// letter, digit, space or pause mark; bracketed parts such as "[calm]" and any
// other symbol are silent and yield nothing. Always ends with a 120 ms pause.
std::vector<Segment> placeholderSegments(std::string_view text);

// Samples of `segment` at 44100 Hz: round(durationMs × 44.1).
std::int64_t segmentSamples(const Segment& segment);

// Pitch of the placeholder voice in Hz: the base pitch of `gender` (112, 155 or
// 205 Hz) times a factor 0.85..1.15 drawn from the low 32 bits of `seed`.
float placeholderPitch(TtsGender gender, std::int64_t seed);

// Intonation falls over an utterance: the pitch factor of segment `index` of
// `count` runs linearly from 1.0 on the first segment to 0.82 on the last.
// REQUIRES: index < count
float declination(std::size_t index, std::size_t count);

class PlaceholderEngine final : public TtsEngine {
 public:
  static constexpr std::int64_t sampleRate = 44100;

  explicit PlaceholderEngine(EngineOptions options = {});

  std::string name() const override;                      // "placeholder"
  bool ready() const override;                            // always true
  bool supportsNativeSpeed() const override;              // false: the service retimes
  void configure(const EngineOptions& options) override;  // stored, never read
  EngineOptions options() const override;
  // Ready, with the localised "placeholder waveform" as back-end and a detail
  // that says no model is installed yet.
  EngineHealth checkHealth() override;
  // The text of `params` as placeholder audio at 44100 Hz, mono, edges faded
  // over 10 ms. Text that is empty or white space only gives an empty buffer.
  // Only `hint.gender` and `hint.seed` shape the voice. Never throws.
  PcmBuffer synthesize(const S2Params& params, const VoiceHint& hint) override;

 private:
  mutable std::mutex mutex_;
  EngineOptions opts_;  // guarded by mutex_
};

}  // namespace kelvo
