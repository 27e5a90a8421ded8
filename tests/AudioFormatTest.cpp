#include "KELVOCore/AudioFormat.h"

#include <gtest/gtest.h>

#include "KELVOCore/Mp3Encode.h"
#include "KELVOCore/Wav.h"
#include "tests/TestSupport.h"

namespace kelvo {
namespace {

bool startsWith(const Bytes& b, std::string_view magic) {
  return b.size() >= magic.size() && std::equal(magic.begin(), magic.end(), b.begin());
}

// Every format at rates the pipeline can be configured to (and odd ones), and
// for nothing at all: the right container, never a crash. What the audio
// sounds like after decoding is the end-to-end test's (tests/e2e/audio_formats_test.py).
TEST(AudioFormatTest, EveryFormatAtEveryRateGivesItsContainer) {
  for (const std::int64_t rate : {7000, 8000, 16000, 22050, 24000, 44100, 48000, 96000}) {
    SCOPED_TRACE(rate);
    const PcmBuffer pcm = test::sine(rate, 440, static_cast<std::size_t>(rate * 3 / 10));  // 0.3 s
    for (const AudioFormat format : allAudioFormats) {
      SCOPED_TRACE(std::string(code(format)));
      const std::optional<Bytes> out = encodeAudio(format, pcm);
      ASSERT_TRUE(out.has_value());
      EXPECT_EQ(parseAudioFormat(toUpper(code(format)).append(" ")), format);
      switch (format) {
        case AudioFormat::mp3:
          // The Info frame first, then audio frames at the MPEG rate delivered.
          EXPECT_TRUE((*out)[0] == 0xFF && ((*out)[1] & 0xE0) == 0xE0);
          EXPECT_NE(std::string(out->begin(), out->begin() + 200).find("Info"), std::string::npos);
          EXPECT_EQ(deliveredSampleRate(format, rate), rate < 8000 ? 8000 : std::min<std::int64_t>(rate, 48000));
          break;
        case AudioFormat::opus:
          EXPECT_TRUE(startsWith(*out, "OggS"));
          EXPECT_EQ(std::string(out->begin() + 28, out->begin() + 36), "OpusHead");
          break;
        case AudioFormat::flac: EXPECT_TRUE(startsWith(*out, "fLaC")); break;
        case AudioFormat::wav: EXPECT_EQ(parseWav(*out)->sampleRate, rate); break;
        case AudioFormat::pcm:
          EXPECT_NEAR(static_cast<double>(out->size()), 0.3 * 24000 * 2, 4);
          EXPECT_EQ(deliveredSampleRate(format, rate), 24000);
          break;
      }
      EXPECT_EQ(encodeAudio(format, PcmBuffer{{}, rate}).has_value(), format != AudioFormat::opus);
    }
  }
  EXPECT_EQ(parseAudioFormat("aac"), std::nullopt);
  EXPECT_EQ(variantTag("ABC", AudioFormat::wav), "ABC");
  EXPECT_EQ(variantTag("ABC", AudioFormat::opus), "ABC.opus");
  // FLAC cannot describe every rate; the encoder says so instead of failing later.
  EXPECT_EQ(encodeAudio(AudioFormat::flac, test::sine(1000000, 440, 10000)), std::nullopt);
}

}  // namespace
}  // namespace kelvo
