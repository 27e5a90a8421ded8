// Reference clips arrive as WAV, MP3 or Ogg Vorbis. This module tells the
// format from the bytes alone (never from a file name), decodes any of the
// three to a mono PcmBuffer, tells which formats the inference engine reads
// itself, and words why an Ogg file could not be used.
//
// Thread-safe: every function is pure. Cost: sniffing looks at most at the
// first 8 KB; decoding is one pass and holds the decoded mono samples.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "KELVOCore/Types.h"

namespace kelvo {

enum class OggResult : int { ok, noDecoder, notVorbis, opus, failed };

struct OggDecode {
  OggResult result = OggResult::failed;
  std::optional<PcmBuffer> pcm;  // present exactly when `result` is ok
};

// At least 12 bytes starting "RIFF" (full parsing checks the rest).
bool looksLikeWav(std::span<const std::uint8_t> bytes);
// At least 4 bytes starting "OggS".
bool looksLikeOgg(std::span<const std::uint8_t> bytes);
// At least 4 bytes, and an "ID3" start or an MPEG frame sync (0xFF then a byte
// of 0xE0 or more) in the first 8192 bytes. Deliberately loose: Ogg and other
// data can match, so callers test Ogg first.
bool looksLikeMp3(std::span<const std::uint8_t> bytes);
// WAV, or MP3-like data that is not Ogg: what the engine reads unconverted.
bool engineReadsFormat(std::span<const std::uint8_t> bytes);
// Always true: both decoders are linked in.
bool audioDecoderAvailable();
// ".wav", ".ogg" or ".mp3" by the tests above in that order, else "". Looks
// at no more than the first kSniffBytes, so a file need not be read whole.
inline constexpr std::size_t kSniffBytes = 8192;
std::string sniffExtension(std::span<const std::uint8_t> bytes);

// WAV when it parses, else Ogg when it looks like Ogg, else MP3 when it looks
// like MP3; absent when nothing decodes.
std::optional<PcmBuffer> decodeReference(std::span<const std::uint8_t> bytes);
// Empty data fails; data not starting "OggS" is notVorbis; Opus is refused.
OggDecode decodeOgg(std::span<const std::uint8_t> bytes);
// Absent when no MP3 frame decodes.
std::optional<PcmBuffer> decodeMp3(std::span<const std::uint8_t> bytes);

// The localised reason for the user; empty for ok.
std::string oggResultText(OggResult result);

}  // namespace kelvo
