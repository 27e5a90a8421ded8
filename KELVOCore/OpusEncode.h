// Ogg Opus for players and browsers that want small files: libopusenc with
// the encoder tuned for speech (VOIP application, voice signal), 32 kb/s,
// mono, at Opus's own 48 kHz. Audio at another rate is brought to 48 kHz here
// first, so libopusenc's resampler never runs.
//
// The stream carries the standard pre-skip, so decoders give back exactly the
// input's length; its Ogg serial number is random, as the format intends, so
// two encodings of the same audio differ in those four bytes per page.
//
// Thread-safe: a pure function; each call owns its encoder.
// Cost: on this machine about 3 ms per second of audio (a 5 s line in about
// 15 ms); the output is about 4 KB per second; memory about the 48 kHz copy
// of the input plus the output.
#pragma once

#include <optional>

#include "KELVOCore/Types.h"

namespace kelvo {

inline constexpr std::int64_t opusSampleRate = 48000;

// The whole Ogg Opus file of `pcm`; absent for no audio at all (an Ogg Opus
// stream cannot be ended without a sample) or when libopusenc fails.
// REQUIRES: pcm.sampleRate >= 1.
std::optional<Bytes> encodeOggOpus(const PcmBuffer& pcm, int bitsPerSecond = 32000);

}  // namespace kelvo
