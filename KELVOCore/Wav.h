// WAV reading and writing, and the whole-file helpers the core uses for audio.
//
// The parser turns RIFF/WAVE data of the common sample formats (8/16/24/32-bit
// integer PCM, 32-bit float, extensible) into mono by averaging channels. It is
// lenient about chunk order and truncated data (engines stream, uploads get
// cut) and strict about the format fields. The writer makes the canonical
// 16-bit PCM file with a 44-byte header and nothing else.
//
// Thread-safe: every function is pure or touches only the file it is given.
// Cost: parsing is one pass over the data into a buffer sized up front; the
// header look reads at most 1024 bytes of the file, never the whole of it.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include "KELVOCore/Types.h"

namespace kelvo {

// What the fmt chunk said.
struct WavFormat {
  std::int64_t channels = 0;
  std::int64_t sampleRate = 0;
  std::int64_t bitsPerSample = 0;  // 8, 16, 24 or 32
  bool isFloat = false;            // samples are 32-bit IEEE floats
};

struct ParsedWav {
  PcmBuffer pcm;  // mono, at the file's rate
  WavFormat format;
};

// What the first bytes of a WAV file tell about it.
struct WavHeaderInfo {
  std::int64_t sampleRate = 0;
  std::int64_t durationMs = 0;
  std::int64_t totalBytes = 0;  // size of the whole file
};

// Full parse to mono. Absent when `bytes` is not a usable WAV: not RIFF/WAVE,
// no fmt or data chunk, an unsupported tag or bit depth, or no whole frame.
std::optional<ParsedWav> parseWavWithFormat(std::span<const std::uint8_t> bytes);
// parseWavWithFormat without the format.
std::optional<PcmBuffer> parseWav(std::span<const std::uint8_t> bytes);
// Length of the parsed audio in ms; 0 when it does not parse.
std::int64_t wavDurationMs(std::span<const std::uint8_t> bytes);

// Header-only look at a file on disk: reads at most its first 1024 bytes.
// Absent when the file cannot be read or does not start like a WAV.
std::optional<WavHeaderInfo> readWavHeader(const std::string& path);
// The same look at `head`, the first bytes of a file of `fileSize` bytes.
// The length comes from the data chunk's declared size when it is believable,
// otherwise from the file size.
std::optional<WavHeaderInfo> inspectWavHeader(std::span<const std::uint8_t> head, std::uint64_t fileSize);

// A complete 16-bit PCM WAV with the 44-byte header; each sample is written to
// every one of `channels` channels (raised to 1). A rate of 0 is written as 44100.
// Samples are clamped to -1..1 and scaled by 32767 both ways.
// REQUIRES: no NaN sample; channels < 65536; the sizes fit the 32-bit fields.
//           Violations are programming errors and abort the process.
Bytes buildWav(const PcmBuffer& pcm, std::int64_t channels);

// The samples as 16-bit integers for encoders: round(sample × 32768) clamped
// to the 16-bit range (NaN as 0). That is the exact inverse of parsing a
// 16-bit WAV, so audio read from a stored line is encoded sample for sample.
std::vector<std::int16_t> pcm16Samples(const PcmBuffer& pcm);

// The whole file, or absent when it cannot be read.
std::optional<Bytes> loadFileBytes(const std::string& path);
// Creates missing parent directories and replaces the file atomically.
// Returns the error of the step that failed.
std::error_code saveFileBytes(const std::string& path, std::span<const std::uint8_t> bytes);

}  // namespace kelvo
