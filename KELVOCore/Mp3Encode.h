// MP3 for the players that want it: libmp3lame, mono, constant bit rate
// (64 kb/s unless asked otherwise). The first frame is LAME's Info tag with
// the encoder delay and padding, so decoders that read it (mpg123, ffmpeg,
// browsers) give back exactly the line's length; others play one silent frame.
//
// LAME only encodes at the nine MPEG rates (8 to 48 kHz). Audio at one of
// them is encoded at its own rate; any other rate is first resampled to the
// nearest MPEG rate above it (48 kHz for anything faster), so LAME's own
// resampler never runs.
//
// Thread-safe: a pure function; each call owns its encoder.
// Cost: on this machine about 1.5 ms per second of 44.1 kHz audio (a 5 s line
// in about 8 ms); the output is kbps / 8 bytes per second plus less than
// one frame; memory about twice the output.
#pragma once

#include <cstdint>
#include <optional>

#include "KELVOCore/Types.h"

namespace kelvo {

// The MPEG rate an input of `sampleRate` Hz is encoded at.
std::int64_t mp3SampleRate(std::int64_t sampleRate);

// The whole MP3 stream of `pcm`; absent when LAME refuses the settings
// (a bit rate the sample rate does not allow; 64 kb/s every rate allows).
// REQUIRES: pcm.sampleRate >= 1.
std::optional<Bytes> encodeMp3(const PcmBuffer& pcm, int kbps = 64);

}  // namespace kelvo
