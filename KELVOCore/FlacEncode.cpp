#include "KELVOCore/FlacEncode.h"

#include <FLAC/stream_encoder.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

#include "KELVOCore/Wav.h"

namespace kelvo {

namespace {

constexpr unsigned kLevel = 5;
constexpr std::size_t kBlock = 4096;

struct EncoderDeleter {
  void operator()(FLAC__StreamEncoder* enc) const { FLAC__stream_encoder_delete(enc); }
};

// A growable file in memory: libFLAC seeks back to the start at the end to
// fill in STREAMINFO, so writes land at `pos`, not always at the end.
struct MemoryFile {
  Bytes bytes;
  std::size_t pos = 0;
};

FLAC__StreamEncoderWriteStatus writeAt(const FLAC__StreamEncoder*, const FLAC__byte buffer[], size_t n, unsigned,
                                       unsigned, void* user) {
  auto* file = static_cast<MemoryFile*>(user);
  if (file->pos + n > file->bytes.size()) file->bytes.resize(file->pos + n);
  std::memcpy(file->bytes.data() + file->pos, buffer, n);
  file->pos += n;
  return FLAC__STREAM_ENCODER_WRITE_STATUS_OK;
}

FLAC__StreamEncoderSeekStatus seekTo(const FLAC__StreamEncoder*, FLAC__uint64 offset, void* user) {
  auto* file = static_cast<MemoryFile*>(user);
  if (offset > file->bytes.size()) return FLAC__STREAM_ENCODER_SEEK_STATUS_ERROR;
  file->pos = static_cast<std::size_t>(offset);
  return FLAC__STREAM_ENCODER_SEEK_STATUS_OK;
}

FLAC__StreamEncoderTellStatus tellWhere(const FLAC__StreamEncoder*, FLAC__uint64* offset, void* user) {
  *offset = static_cast<const MemoryFile*>(user)->pos;
  return FLAC__STREAM_ENCODER_TELL_STATUS_OK;
}

}  // namespace

std::optional<Bytes> encodeFlac(const PcmBuffer& pcm) {
  if (pcm.sampleRate < 1 || !FLAC__format_sample_rate_is_valid(static_cast<unsigned>(pcm.sampleRate))) {
    return std::nullopt;
  }
  const std::unique_ptr<FLAC__StreamEncoder, EncoderDeleter> enc(FLAC__stream_encoder_new());
  if (!enc) return std::nullopt;
  const std::vector<std::int16_t> samples = pcm16Samples(pcm);
  FLAC__stream_encoder_set_channels(enc.get(), 1);
  FLAC__stream_encoder_set_bits_per_sample(enc.get(), 16);
  FLAC__stream_encoder_set_sample_rate(enc.get(), static_cast<unsigned>(pcm.sampleRate));
  FLAC__stream_encoder_set_compression_level(enc.get(), kLevel);
  FLAC__stream_encoder_set_total_samples_estimate(enc.get(), samples.size());
  MemoryFile file;
  file.bytes.reserve(samples.size() + 8192);
  if (FLAC__stream_encoder_init_stream(enc.get(), writeAt, seekTo, tellWhere, nullptr, &file) !=
      FLAC__STREAM_ENCODER_INIT_STATUS_OK) {
    return std::nullopt;
  }
  // libFLAC takes 32-bit samples; one block at a time keeps that copy small.
  std::array<FLAC__int32, kBlock> block{};
  for (std::size_t at = 0; at < samples.size(); at += kBlock) {
    const std::size_t n = std::min(kBlock, samples.size() - at);
    std::copy_n(samples.begin() + static_cast<std::ptrdiff_t>(at), n, block.begin());
    if (!FLAC__stream_encoder_process_interleaved(enc.get(), block.data(), static_cast<unsigned>(n))) {
      FLAC__stream_encoder_finish(enc.get());
      return std::nullopt;
    }
  }
  if (!FLAC__stream_encoder_finish(enc.get())) return std::nullopt;
  return std::move(file.bytes);
}

}  // namespace kelvo
