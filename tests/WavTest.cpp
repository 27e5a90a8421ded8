#include "KELVOCore/Wav.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <initializer_list>
#include <string_view>
#include <tuple>

#include "tests/TestSupport.h"

namespace kelvo {
namespace {

using test::fixture;

void putLE(Bytes& out, std::uint64_t v, int n) {
  for (int i = 0; i < n; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

Bytes chunk(std::string_view id, const Bytes& body, std::int64_t declaredSize = -1) {
  Bytes out(id.begin(), id.end());
  putLE(out, declaredSize < 0 ? body.size() : static_cast<std::uint64_t>(declaredSize), 4);
  out.insert(out.end(), body.begin(), body.end());
  if (body.size() & 1) out.push_back(0);
  return out;
}

Bytes fmtBody(int tag, int channels, int rate, int bits, std::size_t extra = 0) {
  Bytes b;
  putLE(b, tag, 2);
  putLE(b, channels, 2);
  putLE(b, rate, 4);
  putLE(b, static_cast<std::uint64_t>(rate) * channels * bits / 8, 4);
  putLE(b, channels * bits / 8, 2);
  putLE(b, bits, 2);
  b.resize(b.size() + extra, 0x11);
  return b;
}

// RIFF/WAVE around the given chunks. The parser never reads the RIFF size, so
// by default it is garbage.
Bytes riff(std::initializer_list<Bytes> chunks, std::uint32_t riffSize = 0xEEEEEEEE) {
  Bytes out{'R', 'I', 'F', 'F'};
  putLE(out, riffSize, 4);
  out.insert(out.end(), {'W', 'A', 'V', 'E'});
  for (const auto& c : chunks) out.insert(out.end(), c.begin(), c.end());
  return out;
}

Bytes samplesLE(std::initializer_list<std::int64_t> values, int bytesEach) {
  Bytes out;
  for (auto v : values) putLE(out, static_cast<std::uint64_t>(v), bytesEach);
  return out;
}

std::vector<float> parsedSamples(const Bytes& wav) {
  auto pcm = parseWav(wav);
  return pcm ? pcm->data : std::vector<float>{};
}

TEST(WavTest, BuildWritesCanonicalFilesAndRoundTrips) {
  // Clamped symmetrically to ±32767, every sample on each channel, exactly the 44-byte header.
  const Bytes samples = samplesLE({32767, 32767, -32767, -32767, 16384, 16384}, 2);
  EXPECT_EQ(buildWav(PcmBuffer{{1.5f, -1.5f, 0.5f}, 22050}, 2),
            riff({chunk("fmt ", fmtBody(1, 2, 22050, 16)), chunk("data", samples)}, 36 + 12));
  // No samples and no rate: a valid empty file at 44100 Hz, one channel, with no whole frame to read back.
  const Bytes empty = buildWav(PcmBuffer{}, 0);
  EXPECT_EQ(empty, riff({chunk("fmt ", fmtBody(1, 1, 44100, 16)), chunk("data", {})}, 36));
  EXPECT_FALSE(parseWav(empty));

  PcmBuffer pcm;
  pcm.sampleRate = 44100;
  for (int i = 0; i < 44100; ++i) pcm.data.push_back(0.5f * std::sin(0.05f * static_cast<float>(i)));
  const Bytes wav = buildWav(pcm, 1);
  const auto parsed = parseWavWithFormat(wav);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(std::tie(parsed->format.channels, parsed->format.sampleRate, parsed->format.bitsPerSample),
            std::make_tuple(1, 44100, 16));
  EXPECT_FALSE(parsed->format.isFloat);
  ASSERT_EQ(parsed->pcm.data.size(), pcm.data.size());
  for (std::size_t i = 0; i < pcm.data.size(); i += 97) EXPECT_NEAR(parsed->pcm.data[i], pcm.data[i], 1.0 / 32767);
  EXPECT_EQ(wavDurationMs(wav), 1000);
  // A stereo file of duplicated samples mixes back to the same mono.
  const auto stereo = parseWavWithFormat(buildWav(pcm, 2));
  ASSERT_TRUE(stereo);
  EXPECT_EQ(stereo->format.channels, 2);
  EXPECT_EQ(stereo->pcm.data, parsed->pcm.data);
}

// The 24- and 32-bit integer layouts are proven against real files below;
// these pin what those files do not reach.
TEST(WavTest, SampleLayoutEdges) {
  // 8-bit is unsigned around 128.
  EXPECT_EQ(parsedSamples(riff({chunk("fmt ", fmtBody(1, 1, 8000, 8)), chunk("data", {128, 0, 255, 1})})),
            (std::vector<float>{0.0f, -1.0f, 0.9921875f, -0.9921875f}));
  // Stereo frames average their channels, full scale on both without overflow.
  EXPECT_EQ(parsedSamples(riff({chunk("fmt ", fmtBody(1, 2, 8000, 16)),
                                chunk("data", samplesLE({16384, -16384, 32767, 32767, -32768, 0}, 2))})),
            (std::vector<float>{0.0f, 32767.0f / 32768, -0.5f}));
  // 32-bit float is taken as is, without clamping.
  Bytes floats;
  for (float f : {0.25f, -2.5f}) putLE(floats, std::bit_cast<std::uint32_t>(f), 4);
  const auto flt = parseWavWithFormat(riff({chunk("fmt ", fmtBody(3, 1, 16000, 32)), chunk("data", floats)}));
  ASSERT_TRUE(flt);
  EXPECT_TRUE(flt->format.isFloat);
  EXPECT_EQ(flt->pcm.data, (std::vector<float>{0.25f, -2.5f}));
  EXPECT_EQ(flt->pcm.sampleRate, 16000);
  // Extensible at 32 bits is float even when its sub-format says integer PCM
  // (the GUID after the first 16 bytes is never read) ...
  Bytes extensible = fmtBody(0xFFFE, 1, 48000, 32);
  putLE(extensible, 22, 2);
  putLE(extensible, 32, 2);
  putLE(extensible, 4, 4);
  putLE(extensible, 1, 2);  // KSDATAFORMAT_SUBTYPE_PCM starts with 0x0001
  extensible.resize(40, 0);
  const auto ext = parseWavWithFormat(riff({chunk("fmt ", extensible), chunk("data", floats)}));
  ASSERT_TRUE(ext);
  EXPECT_TRUE(ext->format.isFloat);
  EXPECT_EQ(ext->pcm.data, (std::vector<float>{0.25f, -2.5f}));
  // ... and integer at 16 bits.
  const auto ext16 =
      parseWavWithFormat(riff({chunk("fmt ", fmtBody(0xFFFE, 1, 48000, 16, 24)), chunk("data", samplesLE({-16384}, 2))}));
  ASSERT_TRUE(ext16);
  EXPECT_FALSE(ext16->format.isFloat);
  EXPECT_EQ(ext16->pcm.data, (std::vector<float>{-0.5f}));

  // Chunk order and an odd chunk's pad byte are covered by the fixtures; a
  // later data chunk replaces an earlier one.
  EXPECT_EQ(parsedSamples(riff({chunk("fmt ", fmtBody(1, 1, 8000, 16)), chunk("data", samplesLE({1}, 2)),
                                chunk("data", samplesLE({16384}, 2))})),
            (std::vector<float>{0.5f}));
  // A data chunk claiming nearly 4 GB is cut to what is there, without wrapping.
  const auto huge = parseWav(riff({chunk("fmt ", fmtBody(1, 1, 44100, 16)), chunk("data", Bytes(882, 0), 0xFFFFFFFF)}));
  ASSERT_TRUE(huge);
  EXPECT_EQ(huge->data.size(), 441u);
  // A half frame at the end is dropped.
  EXPECT_EQ(parsedSamples(riff({chunk("fmt ", fmtBody(1, 2, 8000, 16)), chunk("data", {0, 0x40, 0, 0x40, 0, 0x40})})),
            (std::vector<float>{0.5f}));
}

TEST(WavTest, RejectsWhatItCannotRead) {
  const Bytes good = riff({chunk("fmt ", fmtBody(1, 1, 8000, 16)), chunk("data", samplesLE({1, 2, 3, 4}, 2))});
  ASSERT_TRUE(parseWav(good));
  EXPECT_FALSE(parseWav(Bytes(good.begin(), good.begin() + 43)));
  for (const std::size_t at : {0, 8}) {
    Bytes renamed = good;
    renamed[at] = 'X';
    EXPECT_FALSE(parseWav(renamed)) << at;
  }

  const Bytes data = chunk("data", Bytes(64, 0));
  Bytes shortFmt = fmtBody(1, 1, 8000, 16);
  shortFmt.resize(14);
  // ADPCM, bit depths of no whole byte, above 32 and below 8, no channels, no
  // rate, not one whole frame, a fmt chunk too short for its fields.
  for (const Bytes& fmt : {fmtBody(2, 1, 8000, 16), fmtBody(1, 1, 8000, 12), fmtBody(1, 1, 8000, 40),
                           fmtBody(1, 1, 8000, 4), fmtBody(1, 0, 8000, 16), fmtBody(1, 1, 0, 16),
                           fmtBody(1, 65535, 8000, 16), shortFmt}) {
    EXPECT_FALSE(parseWav(riff({chunk("fmt ", fmt), data}))) << testing::PrintToString(fmt);
  }
  // A fmt chunk whose body is cut off by the end of the file.
  const Bytes fmtLast = riff({data, chunk("fmt ", fmtBody(1, 1, 8000, 16))});
  EXPECT_FALSE(parseWav(std::span(fmtLast).first(fmtLast.size() - 4)));
  // Both chunks are needed.
  EXPECT_FALSE(parseWav(riff({chunk("fmt ", fmtBody(1, 1, 8000, 16)), chunk("LIST", Bytes(64, 0))})));
  EXPECT_FALSE(parseWav(riff({data, chunk("LIST", Bytes(64, 0))})));
  EXPECT_EQ(wavDurationMs(Bytes(100, 'A')), 0);
}

TEST(WavTest, HeaderLookReadsLengthWithoutTheData) {
  test::TempDir dir;
  PcmBuffer pcm;
  pcm.sampleRate = 8000;
  pcm.data.assign(12000, 0.1f);  // 1.5 s
  const Bytes wav = buildWav(pcm, 2);
  ASSERT_FALSE(saveFileBytes(dir.path() + "a/b/clip.wav", wav));
  const auto info = readWavHeader(dir.path() + "a/b/clip.wav");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->sampleRate, 8000);
  EXPECT_EQ(info->durationMs, 1500);
  EXPECT_EQ(info->totalBytes, static_cast<std::int64_t>(wav.size()));

  // A streamed header with data size 0 falls back to the file size minus 44;
  // so does a declared size larger than the file.
  Bytes streamed = wav;
  for (int i = 40; i < 44; ++i) streamed[i] = 0;
  ASSERT_FALSE(saveFileBytes(dir.path() + "streamed.wav", streamed));
  EXPECT_EQ(readWavHeader(dir.path() + "streamed.wav")->durationMs, 1500);
  EXPECT_EQ(inspectWavHeader(wav, 1000)->durationMs, std::lround((1000.0 - 44) / 32000 * 1000));
  EXPECT_EQ(inspectWavHeader(wav, 20)->durationMs, 0);

  // Chunks before fmt are walked; a fmt beyond the first 1024 bytes is not seen.
  const Bytes withList = riff({chunk("LIST", {1, 2, 3}), chunk("fmt ", fmtBody(1, 1, 16000, 16)),
                               chunk("data", Bytes(32000, 0))});
  EXPECT_EQ(inspectWavHeader(std::span(withList).first(1024), withList.size())->durationMs, 1000);
  const Bytes farFmt = riff({chunk("LIST", Bytes(2000, 0)), chunk("fmt ", fmtBody(1, 1, 16000, 16)),
                             chunk("data", Bytes(100, 0))});
  ASSERT_FALSE(saveFileBytes(dir.path() + "far.wav", farFmt));
  EXPECT_FALSE(readWavHeader(dir.path() + "far.wav"));
  EXPECT_TRUE(parseWav(farFmt));

  EXPECT_FALSE(readWavHeader(dir.path() + "missing.wav"));
  EXPECT_FALSE(readWavHeader(dir.path()));
  ASSERT_FALSE(saveFileBytes(dir.path() + "short.wav", Bytes(wav.begin(), wav.begin() + 43)));
  EXPECT_FALSE(readWavHeader(dir.path() + "short.wav"));
  const Bytes someData = chunk("data", Bytes(64, 0));
  EXPECT_FALSE(inspectWavHeader(riff({chunk("fmt ", fmtBody(1, 0, 8000, 16)), someData}), 100));
  EXPECT_FALSE(inspectWavHeader(riff({chunk("fmt ", fmtBody(1, 1, 8000, 0)), someData}), 100));
  EXPECT_FALSE(inspectWavHeader(riff({someData, chunk("fmt ", fmtBody(1, 1, 8000, 16))}), 100));
  // 1 bit, 1 channel, 1 Hz: an absurd length is refused rather than overflowing.
  const Bytes slow = riff({chunk("fmt ", fmtBody(1, 1, 1, 1)), chunk("data", {}, 0)});
  EXPECT_EQ(inspectWavHeader(slow, 1000)->durationMs, std::lround((1000.0 - 44) * 8 * 1000));
  EXPECT_FALSE(inspectWavHeader(slow, std::uint64_t{1} << 62));
}

TEST(WavTest, FileHelpersReadAndReplaceWholeFiles) {
  test::TempDir dir;
  const std::string path = dir.path() + "x/y/z.bin";
  EXPECT_FALSE(loadFileBytes(path));
  ASSERT_FALSE(saveFileBytes(path, Bytes{1, 2, 3}));
  ASSERT_FALSE(saveFileBytes(path, Bytes{4, 5}));
  EXPECT_EQ(loadFileBytes(path), (Bytes{4, 5}));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path() + "x/y"), {}), 1);  // no temp left
  // A parent that is a file cannot become a directory.
  EXPECT_TRUE(saveFileBytes(path + "/below", Bytes{1}));
}

// Files written by real tools (sox) and odd layouts built around their data
// (an odd LIST chunk with its pad byte, fmt after data) all read back as the
// same 16-bit reference.
TEST(WavTest, FixturesInEveryLayoutReadAlike) {
  const auto reference = parseWavWithFormat(fixture("wav-s16.wav"));
  ASSERT_TRUE(reference);
  const std::vector<float>& ref = reference->pcm.data;
  ASSERT_EQ(ref.size(), 4800u);
  EXPECT_EQ(reference->pcm.sampleRate, 16000);
  const std::tuple<const char*, std::int64_t, bool> layouts[] = {
      {"wav-s24.wav", 24, false},     {"wav-s32.wav", 32, false},      {"wav-f32.wav", 32, true},
      {"wav-ext-f32.wav", 32, true},  {"wav-list-odd.wav", 16, false}, {"wav-fmt-after-data.wav", 16, false}};
  for (const auto& [name, bits, isFloat] : layouts) {
    const auto parsed = parseWavWithFormat(fixture(name));
    ASSERT_TRUE(parsed) << name;
    EXPECT_EQ(parsed->pcm.data, ref) << name;
    EXPECT_EQ(parsed->pcm.sampleRate, 16000) << name;
    EXPECT_EQ(parsed->format.bitsPerSample, bits) << name;
    EXPECT_EQ(parsed->format.isFloat, isFloat) << name;
  }

  // 8-bit keeps 7 bits of the sample (sox dithers on the way down).
  const auto u8 = parseWav(fixture("wav-u8.wav"));
  ASSERT_TRUE(u8);
  ASSERT_EQ(u8->data.size(), ref.size());
  for (std::size_t i = 0; i < ref.size(); ++i) ASSERT_NEAR(u8->data[i], ref[i], 2.0 / 128) << i;

  // Left s, right -0.5 s: the mono mix is a quarter of s.
  const auto stereo = parseWavWithFormat(fixture("wav-stereo.wav"));
  ASSERT_TRUE(stereo);
  EXPECT_EQ(stereo->format.channels, 2);
  ASSERT_EQ(stereo->pcm.data.size(), ref.size());
  for (std::size_t i = 0; i < ref.size(); ++i) ASSERT_NEAR(stereo->pcm.data[i], 0.25f * ref[i], 1.0 / 32768) << i;

  // Cut mid-sample and declaring more data than there is: the whole samples that are there.
  const auto cut = parseWav(fixture("wav-truncated.wav"));
  ASSERT_TRUE(cut);
  ASSERT_EQ(cut->data.size(), ref.size() / 2);
  EXPECT_TRUE(std::equal(cut->data.begin(), cut->data.end(), ref.begin()));
  EXPECT_EQ(readWavHeader(std::string(KELVO_FIXTURES_DIR) + "/wav-truncated.wav")->durationMs,
            std::lround((4845.0 - 44) / 32000 * 1000));
}

// Writing NaN or an impossible channel count is a caller's bug, not bad input.
TEST(WavDeathTest, BuildStopsOnProgrammingErrors) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  PcmBuffer nan;
  nan.data = {0.0f, std::nanf("")};
  EXPECT_DEATH(buildWav(nan, 1), "not a number");
  EXPECT_DEATH(buildWav(PcmBuffer{}, 65536), "channel count");
}

}  // namespace
}  // namespace kelvo
