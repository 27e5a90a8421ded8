#include "KELVOCore/OpusEncode.h"

#include <opus/opusenc.h>

#include <memory>

#include "KELVOCore/Dsp.h"

namespace kelvo {

namespace {

struct EncoderDeleter {
  void operator()(OggOpusEnc* enc) const { ope_encoder_destroy(enc); }
};
struct CommentsDeleter {
  void operator()(OggOpusComments* comments) const { ope_comments_destroy(comments); }
};

int appendPage(void* user, const unsigned char* data, opus_int32 len) {
  auto* out = static_cast<Bytes*>(user);
  out->insert(out->end(), data, data + len);
  return 0;
}

int closeNothing(void*) { return 0; }

}  // namespace

std::optional<Bytes> encodeOggOpus(const PcmBuffer& input, int bitsPerSecond) {
  // libopusenc asserts when a stream without one sample is drained.
  if (input.data.empty()) return std::nullopt;
  const PcmBuffer pcm = resample(input, opusSampleRate);
  Bytes out;
  const OpusEncCallbacks callbacks{appendPage, closeNothing};
  const std::unique_ptr<OggOpusComments, CommentsDeleter> comments(ope_comments_create());
  if (!comments) return std::nullopt;
  int error = OPE_OK;
  // Family 0: one plain mono stream, what every Opus decoder plays.
  const std::unique_ptr<OggOpusEnc, EncoderDeleter> enc(
      ope_encoder_create_callbacks(&callbacks, &out, comments.get(), opusSampleRate, 1, 0, &error));
  if (!enc || error != OPE_OK) return std::nullopt;
  if (ope_encoder_ctl(enc.get(), OPUS_SET_APPLICATION(OPUS_APPLICATION_VOIP)) != OPE_OK ||
      ope_encoder_ctl(enc.get(), OPUS_SET_SIGNAL(OPUS_SIGNAL_VOICE)) != OPE_OK ||
      ope_encoder_ctl(enc.get(), OPUS_SET_BITRATE(bitsPerSecond)) != OPE_OK ||
      // A file, not a call: 40 ms frames carry less overhead per second, and
      // complexity 3 of 10 takes half the time of 10 for a difference speech
      // at 32 kb/s barely shows.
      ope_encoder_ctl(enc.get(), OPUS_SET_EXPERT_FRAME_DURATION(OPUS_FRAMESIZE_40_MS)) != OPE_OK ||
      ope_encoder_ctl(enc.get(), OPUS_SET_COMPLEXITY(3)) != OPE_OK) {
    return std::nullopt;
  }
  if (ope_encoder_write_float(enc.get(), pcm.data.data(), static_cast<int>(pcm.data.size())) != OPE_OK) {
    return std::nullopt;
  }
  if (ope_encoder_drain(enc.get()) != OPE_OK) return std::nullopt;
  return out;
}

}  // namespace kelvo
