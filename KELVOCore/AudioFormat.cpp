#include "KELVOCore/AudioFormat.h"

#include "KELVOCore/Dsp.h"
#include "KELVOCore/FlacEncode.h"
#include "KELVOCore/Mp3Encode.h"
#include "KELVOCore/OpusEncode.h"
#include "KELVOCore/Wav.h"

namespace kelvo {

namespace {

Bytes rawPcm16(const PcmBuffer& pcm) {
  const std::vector<std::int16_t> samples = pcm16Samples(resample(pcm, rawPcmSampleRate));
  Bytes out;
  out.reserve(samples.size() * 2);
  for (const std::int16_t s : samples) {
    const auto v = static_cast<std::uint16_t>(s);
    out.push_back(static_cast<std::uint8_t>(v & 0xFF));
    out.push_back(static_cast<std::uint8_t>(v >> 8));
  }
  return out;
}

}  // namespace

std::string_view code(AudioFormat f) {
  switch (f) {
    case AudioFormat::mp3: return "mp3";
    case AudioFormat::opus: return "opus";
    case AudioFormat::flac: return "flac";
    case AudioFormat::pcm: return "pcm";
    case AudioFormat::wav: break;
  }
  return "wav";
}

std::optional<AudioFormat> parseAudioFormat(std::string_view name) {
  const std::string wanted = toLower(trimmed(name));
  for (const AudioFormat f : allAudioFormats) {
    if (code(f) == wanted) return f;
  }
  return std::nullopt;
}

std::string_view contentType(AudioFormat f) {
  switch (f) {
    case AudioFormat::mp3: return "audio/mpeg";
    case AudioFormat::opus: return "audio/ogg";
    case AudioFormat::flac: return "audio/flac";
    case AudioFormat::pcm: return "audio/pcm";
    case AudioFormat::wav: break;
  }
  return "audio/wav";
}

std::string audioFormatList() {
  std::string list;
  for (const AudioFormat f : allAudioFormats) {
    if (!list.empty()) list += ", ";
    list += code(f);
  }
  return list;
}

std::string variantTag(std::string_view tag, AudioFormat format) {
  std::string out(tag);
  if (format != AudioFormat::wav) {
    out += '.';
    out += code(format);
  }
  return out;
}

std::int64_t deliveredSampleRate(AudioFormat format, std::int64_t sampleRate) {
  switch (format) {
    case AudioFormat::mp3: return mp3SampleRate(sampleRate);
    case AudioFormat::opus: return opusSampleRate;
    case AudioFormat::pcm: return rawPcmSampleRate;
    case AudioFormat::flac:
    case AudioFormat::wav: break;
  }
  return sampleRate;
}

std::optional<Bytes> encodeAudio(AudioFormat format, const PcmBuffer& pcm) {
  switch (format) {
    case AudioFormat::mp3: return encodeMp3(pcm);
    case AudioFormat::opus: return encodeOggOpus(pcm);
    case AudioFormat::flac: return encodeFlac(pcm);
    case AudioFormat::pcm: return rawPcm16(pcm);
    case AudioFormat::wav: break;
  }
  return buildWav(pcm, 1);
}

}  // namespace kelvo
