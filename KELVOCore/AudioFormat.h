// The forms a spoken line can be delivered in: the service's own WAV, MP3,
// Ogg Opus, FLAC, and raw 16-bit PCM at 24 kHz (what OpenAI-style clients
// call "pcm"). Names, content types and file extensions of each, and one
// entry point that encodes decoded audio into any of them.
//
// Thread-safe: every function is pure. Cost of `encodeAudio`: that of the
// format's encoder (Mp3Encode.h, OpusEncode.h, FlacEncode.h); WAV and raw
// PCM are one linear pass (raw PCM after a linear resample to 24 kHz).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "KELVOCore/Types.h"

namespace kelvo {

inline constexpr AudioFormat allAudioFormats[] = {AudioFormat::mp3, AudioFormat::opus, AudioFormat::flac,
                                                  AudioFormat::wav, AudioFormat::pcm};

// Raw PCM is delivered at this rate whatever the line's own rate is.
inline constexpr std::int64_t rawPcmSampleRate = 24000;

// "wav", "mp3", "opus", "flac", "pcm": the wire name and the cache file extension.
std::string_view code(AudioFormat f);
// The wire name, trimmed and in any case; absent for anything else ("aac" too).
std::optional<AudioFormat> parseAudioFormat(std::string_view name);
// "audio/wav", "audio/mpeg", "audio/ogg", "audio/flac", "audio/pcm".
std::string_view contentType(AudioFormat f);
// "mp3, opus, flac, wav, pcm": for messages that say what exists.
std::string audioFormatList();

// The tag of a line's audio in `format`, for ETags and cache file names:
// `tag` itself for WAV (the native API's tags stay as they were), else
// `tag` + "." + the format's code.
std::string variantTag(std::string_view tag, AudioFormat format);

// The rate audio of `sampleRate` Hz is delivered at in `format`.
std::int64_t deliveredSampleRate(AudioFormat format, std::int64_t sampleRate);

// `pcm` in `format`: WAV by buildWav (mono, the buffer's rate), raw PCM as
// little-endian 16-bit mono samples at rawPcmSampleRate, the others by their
// encoders. Absent when an encoder fails.
// REQUIRES: pcm.sampleRate >= 1; no NaN sample.
std::optional<Bytes> encodeAudio(AudioFormat format, const PcmBuffer& pcm);

}  // namespace kelvo
