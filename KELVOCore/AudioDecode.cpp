#include "KELVOCore/AudioDecode.h"

#include <algorithm>
#include <cstring>

#include "CKELVOAudio/kelvo_audio.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Wav.h"

namespace kelvo {

namespace {

constexpr std::size_t kSyncScanBytes = kSniffBytes;

bool startsWith(std::span<const std::uint8_t> bytes, std::string_view tag) {
  return bytes.size() >= tag.size() && std::memcmp(bytes.data(), tag.data(), tag.size()) == 0;
}

using Decoder = int (*)(const std::uint8_t*, std::uint64_t, float**, std::uint64_t*, std::uint32_t*);

struct Decoded {
  int code = 0;
  std::optional<PcmBuffer> pcm;
};

// Runs one C decoder, copies its samples on success and always releases
// the decoder's array. The raw code goes back so Opus can be told apart.
Decoded runDecoder(Decoder decoder, std::span<const std::uint8_t> bytes) {
  float* samples = nullptr;
  std::uint64_t frames = 0;
  std::uint32_t rate = 0;
  Decoded out;
  out.code = decoder(bytes.data(), bytes.size(), &samples, &frames, &rate);
  if (out.code == 1 && samples != nullptr && frames >= 1) {
    PcmBuffer pcm;
    pcm.sampleRate = rate;
    pcm.data.assign(samples, samples + frames);
    out.pcm = std::move(pcm);
  }
  kelvo_audio_free(samples);
  return out;
}

}  // namespace

bool looksLikeWav(std::span<const std::uint8_t> bytes) { return bytes.size() >= 12 && startsWith(bytes, "RIFF"); }

bool looksLikeOgg(std::span<const std::uint8_t> bytes) { return startsWith(bytes, "OggS"); }

bool looksLikeMp3(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < 4) return false;
  if (startsWith(bytes, "ID3")) return true;
  const std::size_t scan = std::min(bytes.size(), kSyncScanBytes);
  for (std::size_t i = 0; i + 1 < scan; ++i) {
    if (bytes[i] == 0xFF && bytes[i + 1] >= 0xE0) return true;
  }
  return false;
}

bool engineReadsFormat(std::span<const std::uint8_t> bytes) {
  return looksLikeWav(bytes) || (looksLikeMp3(bytes) && !looksLikeOgg(bytes));
}

bool audioDecoderAvailable() { return true; }

std::string sniffExtension(std::span<const std::uint8_t> bytes) {
  if (looksLikeWav(bytes)) return ".wav";
  if (looksLikeOgg(bytes)) return ".ogg";
  if (looksLikeMp3(bytes)) return ".mp3";
  return "";
}

std::optional<PcmBuffer> decodeReference(std::span<const std::uint8_t> bytes) {
  if (auto wav = parseWav(bytes)) return wav;
  if (looksLikeOgg(bytes)) return decodeOgg(bytes).pcm;
  if (!bytes.empty() && looksLikeMp3(bytes)) return decodeMp3(bytes);
  return std::nullopt;
}

OggDecode decodeOgg(std::span<const std::uint8_t> bytes) {
  if (bytes.empty()) return {OggResult::failed, std::nullopt};
  if (!looksLikeOgg(bytes)) return {OggResult::notVorbis, std::nullopt};
  Decoded decoded = runDecoder(kelvo_ogg_decode, bytes);
  if (decoded.pcm) return {OggResult::ok, std::move(decoded.pcm)};
  return {decoded.code == KELVO_AUDIO_OPUS ? OggResult::opus : OggResult::failed, std::nullopt};
}

std::optional<PcmBuffer> decodeMp3(std::span<const std::uint8_t> bytes) {
  return runDecoder(kelvo_mp3_decode, bytes).pcm;
}

std::string oggResultText(OggResult result) {
  switch (result) {
    case OggResult::ok:
      return "";
    case OggResult::noDecoder:
      return T("kelvo_audio.dll 不在程序旁边,无法解码 ogg - ") + T("引擎也不接受 ogg;请改用 WAV 或 MP3。");
    case OggResult::notVorbis:
      return T("这不是 ogg 文件。");
    case OggResult::opus:
      return T("这是 .ogg 里的 Opus。Opus 和 Vorbis 是两种不同的编码,这里只支持 Vorbis;") +
             T("请用其他工具转成 WAV / MP3 / Ogg Vorbis 后再试。");
    case OggResult::failed:
      break;
  }
  return T("无法解码这个 ogg(文件可能不完整或已损坏)。");
}

}  // namespace kelvo
