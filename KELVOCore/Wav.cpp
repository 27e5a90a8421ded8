#include "KELVOCore/Wav.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string_view>

#include "KELVOCore/Files.h"

namespace kelvo {

namespace {

constexpr std::size_t kHeaderLookBytes = 1024;
constexpr std::uint64_t kMaxU32 = std::numeric_limits<std::uint32_t>::max();

std::uint16_t le16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | (p[1] << 8)); }

std::uint32_t le32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
         (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

std::string_view tag4(std::span<const std::uint8_t> bytes, std::size_t at) {
  return {reinterpret_cast<const char*>(bytes.data() + at), 4};
}

bool startsLikeWav(std::span<const std::uint8_t> bytes) {
  return bytes.size() >= 44 && tag4(bytes, 0) == "RIFF" && tag4(bytes, 8) == "WAVE";
}

struct Chunk {
  std::string_view id;
  std::uint64_t body = 0;  // offset of the first byte after the 8-byte header
  std::uint64_t size = 0;  // as declared; may run past the end of the data
};

// Visits the chunks after the RIFF header while a whole chunk header lies
// inside `bytes`; `visit` returns false to stop. Odd sizes carry a pad byte.
// Positions are 64-bit so a declared size near 4 GB cannot wrap around.
template <typename Visit>
void walkChunks(std::span<const std::uint8_t> bytes, Visit visit) {
  std::uint64_t pos = 12;
  while (pos + 8 <= bytes.size()) {
    const Chunk chunk{tag4(bytes, pos), pos + 8, le32(bytes.data() + pos + 4)};
    if (!visit(chunk)) return;
    pos = chunk.body + chunk.size + (chunk.size & 1);
  }
}

// One pass over the frames: each sample converted by `read`, the channels of
// a frame averaged into one output sample.
template <std::size_t BytesPerSample, typename Read>
void mixDown(const std::uint8_t* src, std::size_t frames, std::size_t channels, float* out, Read read) {
  if (channels == 1) {
    for (std::size_t f = 0; f < frames; ++f) out[f] = read(src + f * BytesPerSample);
    return;
  }
  const float count = static_cast<float>(channels);
  for (std::size_t f = 0; f < frames; ++f) {
    float sum = 0.0f;
    for (std::size_t c = 0; c < channels; ++c, src += BytesPerSample) sum += read(src);
    out[f] = sum / count;
  }
}

// REQUIRES: bits is 8, 16, 24 or 32.
void convert(const std::uint8_t* src, std::size_t frames, std::size_t channels, std::int64_t bits, bool isFloat,
             float* out) {
  switch (bits) {
    case 8:
      mixDown<1>(src, frames, channels, out,
                 [](const std::uint8_t* p) { return static_cast<float>(static_cast<int>(p[0]) - 128) * 0.0078125f; });
      return;
    case 16:
      mixDown<2>(src, frames, channels, out, [](const std::uint8_t* p) {
        return static_cast<float>(static_cast<std::int16_t>(le16(p))) * (1.0f / 32768.0f);
      });
      return;
    case 24:
      mixDown<3>(src, frames, channels, out, [](const std::uint8_t* p) {
        std::int32_t v = p[0] | (p[1] << 8) | (p[2] << 16);
        if (v & 0x800000) v -= 0x1000000;
        return static_cast<float>(v) * (1.0f / 8388608.0f);
      });
      return;
    default:  // 32
      if (isFloat) {
        mixDown<4>(src, frames, channels, out, [](const std::uint8_t* p) { return std::bit_cast<float>(le32(p)); });
      } else {
        mixDown<4>(src, frames, channels, out, [](const std::uint8_t* p) {
          return static_cast<float>(static_cast<std::int32_t>(le32(p))) * (1.0f / 2147483648.0f);
        });
      }
      return;
  }
}

template <typename T>
void appendLE(Bytes& out, T value) {
  static_assert(std::is_same_v<T, std::uint16_t> || std::is_same_v<T, std::uint32_t>);
  for (std::size_t i = 0; i < sizeof(T); ++i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

void appendTag(Bytes& out, std::string_view tag) { out.insert(out.end(), tag.begin(), tag.end()); }

[[noreturn]] void programmingError(const char* what) {
  std::fprintf(stderr, "kelvo: buildWav: %s\n", what);
  std::abort();
}

std::int16_t toPcm16(float s) {
  if (std::isnan(s)) programmingError("sample is not a number");
  if (s <= -1.0f) return -32767;
  // Rounds half away from zero like lround, without its library call: a float
  // below 2^15 plus 0.5 is exact in double, so truncating it is that rounding.
  const double x = std::min(s, 1.0f) * 32767.0f;
  return static_cast<std::int16_t>(x >= 0 ? static_cast<int>(x + 0.5) : -static_cast<int>(0.5 - x));
}

}  // namespace

std::optional<ParsedWav> parseWavWithFormat(std::span<const std::uint8_t> bytes) {
  if (!startsLikeWav(bytes)) return std::nullopt;
  std::uint32_t tag = 1;
  std::int64_t channels = 1;
  std::int64_t sampleRate = 44100;
  std::int64_t bits = 16;
  bool sawFmt = false;
  bool brokenFmt = false;
  bool sawData = false;
  std::uint64_t dataBegin = 0;
  std::uint64_t dataEnd = 0;
  walkChunks(bytes, [&](const Chunk& chunk) {
    if (chunk.id == "fmt ") {
      if (chunk.size < 16 || chunk.body + 16 > bytes.size()) {
        brokenFmt = true;
        return false;
      }
      const std::uint8_t* p = bytes.data() + chunk.body;
      tag = le16(p);
      channels = le16(p + 2);
      sampleRate = le32(p + 4);
      bits = le16(p + 14);
      sawFmt = true;
    } else if (chunk.id == "data") {
      dataBegin = chunk.body;
      dataEnd = std::min<std::uint64_t>(chunk.body + chunk.size, bytes.size());
      sawData = true;
    }
    return true;
  });
  if (brokenFmt || !sawFmt || !sawData || channels == 0 || sampleRate == 0) return std::nullopt;
  if (tag != 1 && tag != 3 && tag != 0xFFFE) return std::nullopt;
  if (bits != 8 && bits != 16 && bits != 24 && bits != 32) return std::nullopt;
  // Extensible files are told apart by depth alone: 32-bit extensible is
  // float in practice, whatever the sub-format GUID claims.
  const bool isFloat = tag == 0xFFFE ? bits == 32 : tag == 3;
  const std::uint64_t frameBytes = static_cast<std::uint64_t>(channels) * static_cast<std::uint64_t>(bits / 8);
  const std::uint64_t frames = (dataEnd - dataBegin) / frameBytes;
  if (frames < 1) return std::nullopt;

  ParsedWav out;
  out.pcm.sampleRate = sampleRate;
  out.pcm.data.resize(static_cast<std::size_t>(frames));
  convert(bytes.data() + dataBegin, static_cast<std::size_t>(frames), static_cast<std::size_t>(channels), bits,
          isFloat, out.pcm.data.data());
  out.format = {channels, sampleRate, bits, isFloat};
  return out;
}

std::optional<PcmBuffer> parseWav(std::span<const std::uint8_t> bytes) {
  auto parsed = parseWavWithFormat(bytes);
  if (!parsed) return std::nullopt;
  return std::move(parsed->pcm);
}

std::int64_t wavDurationMs(std::span<const std::uint8_t> bytes) {
  const auto pcm = parseWav(bytes);
  return pcm ? pcm->durationMs() : 0;
}

std::optional<WavHeaderInfo> inspectWavHeader(std::span<const std::uint8_t> head, std::uint64_t fileSize) {
  if (!startsLikeWav(head)) return std::nullopt;
  std::int64_t channels = 0;
  std::int64_t sampleRate = 0;
  std::int64_t bits = 0;
  std::uint64_t dataSize = 0;
  walkChunks(head, [&](const Chunk& chunk) {
    if (chunk.size == 0) return false;
    if (chunk.id == "data") {
      dataSize = chunk.size;
      return false;
    }
    if (chunk.id == "fmt ") {
      // A fmt body cut off by the end of the look leaves the fields at 0,
      // which rejects the file below.
      if (chunk.size < 16 || chunk.body + 16 > head.size()) return false;
      const std::uint8_t* p = head.data() + chunk.body;
      channels = le16(p + 2);
      sampleRate = le32(p + 4);
      bits = le16(p + 14);
    }
    return true;
  });
  if (sampleRate == 0 || channels == 0 || bits < 1) return std::nullopt;
  const std::uint64_t audioBytes =
      (dataSize != 0 && dataSize <= fileSize) ? dataSize : (fileSize > 44 ? fileSize - 44 : 0);
  const double bytesPerSecond =
      static_cast<double>(bits) * 0.125 * static_cast<double>(channels) * static_cast<double>(sampleRate);
  if (!(bytesPerSecond > 0)) return std::nullopt;
  const double durationMs = std::round(static_cast<double>(audioBytes) / bytesPerSecond * 1000.0);
  // A length past the 64-bit range is no WAV worth listing (and has no value).
  if (!(durationMs < 0x1p63) || fileSize > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    return std::nullopt;
  }
  WavHeaderInfo info;
  info.sampleRate = sampleRate;
  info.durationMs = static_cast<std::int64_t>(durationMs);
  info.totalBytes = static_cast<std::int64_t>(fileSize);
  return info;
}

std::optional<WavHeaderInfo> readWavHeader(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::error_code ec;
  std::uint64_t fileSize = std::filesystem::file_size(path, ec);
  if (ec) fileSize = 0;
  std::uint8_t head[kHeaderLookBytes];
  file.read(reinterpret_cast<char*>(head), sizeof head);
  return inspectWavHeader({head, static_cast<std::size_t>(file.gcount())}, fileSize);
}

Bytes buildWav(const PcmBuffer& pcm, std::int64_t channels) {
  channels = std::max<std::int64_t>(channels, 1);
  if (channels >= 65536) programmingError("channel count does not fit 16 bits");
  const std::int64_t sampleRate = pcm.sampleRate == 0 ? 44100 : pcm.sampleRate;
  const std::uint64_t byteRate = static_cast<std::uint64_t>(sampleRate) * static_cast<std::uint64_t>(channels) * 2;
  const std::uint64_t dataBytes = static_cast<std::uint64_t>(pcm.data.size()) * static_cast<std::uint64_t>(channels) * 2;
  if (sampleRate < 0 || byteRate > kMaxU32 || dataBytes + 36 > kMaxU32) {
    programmingError("sizes do not fit the 32-bit fields");
  }

  Bytes out;
  out.reserve(static_cast<std::size_t>(44 + dataBytes));
  appendTag(out, "RIFF");
  appendLE(out, static_cast<std::uint32_t>(dataBytes + 36));
  appendTag(out, "WAVE");
  appendTag(out, "fmt ");
  appendLE(out, std::uint32_t{16});
  appendLE(out, std::uint16_t{1});
  appendLE(out, static_cast<std::uint16_t>(channels));
  appendLE(out, static_cast<std::uint32_t>(sampleRate));
  appendLE(out, static_cast<std::uint32_t>(byteRate));
  appendLE(out, static_cast<std::uint16_t>(channels * 2));
  appendLE(out, std::uint16_t{16});
  appendTag(out, "data");
  appendLE(out, static_cast<std::uint32_t>(dataBytes));
  // Written in place: a byte-wise append checks the capacity of a 5 s line
  // nearly half a million times.
  const std::size_t head = out.size();
  out.resize(head + static_cast<std::size_t>(dataBytes));
  std::uint8_t* p = out.data() + head;
  for (const float s : pcm.data) {
    const auto v = static_cast<std::uint16_t>(toPcm16(s));
    for (std::int64_t c = 0; c < channels; ++c) {
      *p++ = static_cast<std::uint8_t>(v);
      *p++ = static_cast<std::uint8_t>(v >> 8);
    }
  }
  return out;
}

std::vector<std::int16_t> pcm16Samples(const PcmBuffer& pcm) {
  std::vector<std::int16_t> out(pcm.data.size());
  std::transform(pcm.data.begin(), pcm.data.end(), out.begin(), [](float s) {
    const float scaled = std::isnan(s) ? 0.0f : std::clamp(s * 32768.0f, -32768.0f, 32767.0f);
    return static_cast<std::int16_t>(std::lrint(scaled));
  });
  return out;
}

std::optional<Bytes> loadFileBytes(const std::string& path) { return readFile(path); }

std::error_code saveFileBytes(const std::string& path, std::span<const std::uint8_t> bytes) {
  return writeFileAtomic(path, bytes);
}

}  // namespace kelvo
