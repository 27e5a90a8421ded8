#include "KELVOCore/AudioDecode.h"

#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "CKELVOAudio/kelvo_audio.h"
#include "CKELVOAudio/vorbis_guard.h"
#include "KELVOCore/Wav.h"
#include "tests/TestSupport.h"

namespace kelvo {
namespace {

using test::fixture;

double rms(const std::vector<float>& x) {
  double sum = 0;
  for (float v : x) sum += static_cast<double>(v) * v;
  return x.empty() ? 0 : std::sqrt(sum / static_cast<double>(x.size()));
}

// Normalised correlation at lag 0: decoders that trim their codec delay give
// audio aligned with the source.
double similarity(const std::vector<float>& a, const std::vector<float>& b) {
  const std::size_t n = std::min(a.size(), b.size());
  double ab = 0, aa = 0, bb = 0;
  for (std::size_t i = 0; i < n; ++i) {
    ab += static_cast<double>(a[i]) * b[i];
    aa += static_cast<double>(a[i]) * a[i];
    bb += static_cast<double>(b[i]) * b[i];
  }
  return aa > 0 && bb > 0 ? ab / std::sqrt(aa * bb) : 0;
}

TEST(AudioDecodeTest, SniffsFormatsFromBytesAlone) {
  // The engine reads WAV and MP3 itself, never Ogg; three bytes are too few even with a sync.
  const std::tuple<Bytes, std::string, bool> sniffed[] = {
      {fixture("speech.wav"), ".wav", true},  {fixture("speech-mono.mp3"), ".mp3", true},
      {fixture("speech.ogg"), ".ogg", false}, {fixture("speech.opus"), ".ogg", false},
      {Bytes{'I', 'D', '3', 4}, ".mp3", true}, {Bytes{'R', 'I', 'F'}, "", false},
      {Bytes{0xFF, 0xFB, 0x90}, "", false},   {Bytes(64, 0), "", false}};
  for (const auto& [bytes, extension, engineReads] : sniffed) {
    EXPECT_EQ(sniffExtension(bytes), extension) << bytes.size();
    EXPECT_EQ(engineReadsFormat(bytes), engineReads) << bytes.size();
  }
  EXPECT_TRUE(looksLikeWav(Bytes{'R', 'I', 'F', 'F', 0, 0, 0, 0, 'A', 'V', 'I', ' '}));  // WAVE is checked later
  EXPECT_FALSE(looksLikeWav(Bytes{'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V'}));

  // A sync past the first 8 KB does not count.
  Bytes lateSync(9000, 0);
  lateSync[8191] = 0xFF;
  lateSync[8192] = 0xFA;
  EXPECT_FALSE(looksLikeMp3(lateSync));
  lateSync[8190] = 0xFF;
  lateSync[8191] = 0xE0;
  EXPECT_TRUE(looksLikeMp3(lateSync));

  // Ogg is never read by the engine, even with a sync inside.
  const Bytes oggWithSync = {'O', 'g', 'g', 'S', 0xFF, 0xF3, 0, 0};
  EXPECT_TRUE(looksLikeMp3(oggWithSync));
  EXPECT_FALSE(engineReadsFormat(oggWithSync));
  EXPECT_TRUE(audioDecoderAvailable());
}

TEST(AudioDecodeTest, DecodesMp3AndOggVorbisToMonoAtTheirRate) {
  const PcmBuffer reference = *parseWav(fixture("speech.wav"));
  // The LAME tag and the Vorbis granule positions tell the decoders how much
  // codec delay and padding to drop. Speech left and silence right average to
  // the speech at half level.
  const std::pair<std::string_view, double> files[] = {
      {"speech-mono.mp3", 1.0}, {"speech-left.mp3", 0.5}, {"speech.ogg", 1.0}, {"speech-left.ogg", 0.5}};
  for (const auto& [name, level] : files) {
    SCOPED_TRACE(name);
    const Bytes bytes = fixture(name);
    std::optional<PcmBuffer> pcm;
    if (name.ends_with(".mp3")) {
      pcm = decodeMp3(bytes);
    } else {
      const OggDecode ogg = decodeOgg(bytes);
      EXPECT_EQ(ogg.result, OggResult::ok);
      pcm = ogg.pcm;
    }
    ASSERT_TRUE(pcm);
    EXPECT_EQ(pcm->sampleRate, 16000);
    EXPECT_EQ(pcm->data.size(), reference.data.size());
    EXPECT_GT(similarity(pcm->data, reference.data), 0.8);
    EXPECT_NEAR(rms(pcm->data) / rms(reference.data), level, 0.05);
    EXPECT_EQ(decodeReference(bytes)->data, pcm->data);
  }
  EXPECT_FALSE(decodeMp3(Bytes{}));
  EXPECT_FALSE(decodeMp3(Bytes(4096, 0xFF)));

  const Bytes opus = fixture("speech.opus");
  const OggDecode refused = decodeOgg(opus);
  EXPECT_EQ(refused.result, OggResult::opus);
  EXPECT_FALSE(refused.pcm);
  EXPECT_FALSE(decodeReference(opus));
  const Bytes ogg = fixture("speech.ogg");
  Bytes garbage(2000, 0x5A);
  std::copy_n("OggS", 4, garbage.begin());
  EXPECT_FALSE(decodeReference(garbage));
  const std::pair<Bytes, OggResult> broken[] = {{Bytes{}, OggResult::failed},
                                                {fixture("speech.wav"), OggResult::notVorbis},
                                                {Bytes(ogg.begin(), ogg.begin() + 300), OggResult::failed},
                                                {garbage, OggResult::failed}};
  for (const auto& [bytes, result] : broken) EXPECT_EQ(decodeOgg(bytes).result, result) << bytes.size();
}

// The comment header's counts and lengths are checked before the Vorbis
// decoder sees them; it would write out of bounds on these.
TEST(AudioDecodeTest, OggWithLyingCommentHeaderIsRefused) {
  const Bytes ogg = fixture("speech.ogg");
  // Page 2 follows the 58-byte first page; its packet starts with 7 bytes of
  // type and "vorbis", then the vendor length, the vendor and the count.
  const std::size_t page2 = 58;
  ASSERT_EQ(std::string_view(reinterpret_cast<const char*>(ogg.data() + page2), 4), "OggS");
  const std::size_t body = page2 + 27 + ogg[page2 + 26];
  auto putU32 = [](Bytes& b, std::size_t at, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) b[at + i] = static_cast<std::uint8_t>(v >> (8 * i));
  };
  const std::uint32_t vendor = ogg[body + 7] | ogg[body + 8] << 8 | ogg[body + 9] << 16 | ogg[body + 10] << 24;
  const std::size_t countAt = body + 11 + vendor;
  ASSERT_LT(countAt, ogg.size());
  // Comment counts, then vendor lengths, that the packet cannot hold.
  const std::pair<std::size_t, std::uint32_t> lies[] = {{countAt, 0x20000000u},  {countAt, 0x7FFFFFFFu},
                                                        {countAt, 100000u},      {body + 7, 0xFFFFFFFFu},
                                                        {body + 7, 0x80000000u}, {body + 7, 0x10000u}};
  for (const auto& [at, value] : lies) {
    Bytes bad = ogg;
    putU32(bad, at, value);
    EXPECT_EQ(decodeOgg(bad).result, OggResult::failed) << at << ": " << value;
  }
  // A count that reads as negative allocates nothing and reads no comments;
  // whether the rest then decodes depends on the byte taken for the framing
  // bit. The point is that nothing is written out of bounds (see the
  // sanitizer build) and the answer is consistent.
  Bytes negative = ogg;
  putU32(negative, countAt, 0x80000000u);
  const OggDecode odd = decodeOgg(negative);
  EXPECT_EQ(odd.pcm.has_value(), odd.result == OggResult::ok);
  Bytes cut(ogg.begin(), ogg.begin() + static_cast<std::ptrdiff_t>(countAt + 2));
  EXPECT_EQ(decodeOgg(cut).result, OggResult::failed);
}

// Least-significant-bit-first packing, as in Vorbis headers.
class BitWriter {
 public:
  void put(std::uint32_t value, int count) {
    for (int i = 0; i < count; ++i, ++used_) {
      if (used_ % 8 == 0) bytes_.push_back(0);
      if ((value >> i) & 1) bytes_.back() |= static_cast<std::uint8_t>(1 << (used_ % 8));
    }
  }
  const Bytes& bytes() const { return bytes_; }

 private:
  Bytes bytes_;
  int used_ = 0;
};

Bytes oggPage(std::uint8_t flags, std::uint32_t sequence, const std::vector<Bytes>& packets) {
  // Capture pattern, version, flags, granule position and serial (zero), then
  // the sequence number and a checksum the decoder does not check.
  Bytes page(6 + 8 + 4 + 4 + 4, 0);
  const std::uint8_t capture[] = {'O', 'g', 'g', 'S'};
  std::copy(std::begin(capture), std::end(capture), page.begin());
  page[5] = flags;
  for (int i = 0; i < 4; ++i) page[18 + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(sequence >> (8 * i));
  Bytes table, body;
  for (const Bytes& packet : packets) {
    EXPECT_LT(packet.size(), 255u);
    table.push_back(static_cast<std::uint8_t>(packet.size()));
    body.insert(body.end(), packet.begin(), packet.end());
  }
  page.push_back(static_cast<std::uint8_t>(table.size()));
  page.insert(page.end(), table.begin(), table.end());
  page.insert(page.end(), body.begin(), body.end());
  return page;
}

// A Vorbis stream whose setup holds one codebook of 65536 entries (all of
// length 16) with a lookup table of `dimensions` values per entry.
Bytes vorbisWithCodebook(std::uint32_t dimensions) {
  auto header = [](std::uint8_t type) { return Bytes{type, 'v', 'o', 'r', 'b', 'i', 's'}; };
  Bytes id = header(1);
  BitWriter idFields;
  idFields.put(0, 32);                              // version
  idFields.put(1, 8);                               // channels
  idFields.put(16000, 32);                          // rate
  for (int i = 0; i < 3; ++i) idFields.put(0, 32);  // bit rates
  idFields.put(0xB8, 8);                            // block sizes 256 and 2048
  idFields.put(1, 8);                               // framing
  id.insert(id.end(), idFields.bytes().begin(), idFields.bytes().end());
  Bytes comments = header(3);
  comments.resize(comments.size() + 8, 0);  // no vendor, no comments
  comments.push_back(1);
  Bytes setup = header(5);
  BitWriter book;
  book.put(0, 8);          // one codebook
  book.put(0x564342, 24);  // sync
  book.put(dimensions, 16);
  book.put(65536, 24);  // entries
  book.put(1, 1);       // ordered lengths
  book.put(15, 5);      // starting at length 16 ...
  book.put(65536, 17);  // ... for all of them
  book.put(2, 4);       // lookup type 2: entries × dimensions values
  book.put(0, 32);      // minimum
  book.put(0, 32);      // delta
  book.put(0, 4 + 1);   // value bits, sequence flag
  setup.insert(setup.end(), book.bytes().begin(), book.bytes().end());
  Bytes stream = oggPage(2, 0, {id});
  const Bytes second = oggPage(0, 1, {comments, setup});
  stream.insert(stream.end(), second.begin(), second.end());
  return stream;
}

// Codebooks whose entries times dimensions overflow the Vorbis decoder's int
// arithmetic would have it write outside its memory block; they are refused
// before it starts.
TEST(AudioDecodeTest, OggWithOversizedCodebookIsRefused) {
  std::uint64_t commentBytes = 0;
  const Bytes ogg = fixture("speech.ogg");
  EXPECT_EQ(kelvo_vorbis_headers_fit(ogg.data(), ogg.size(), &commentBytes), 1);
  EXPECT_GT(commentBytes, 0u);
  const Bytes hostile = vorbisWithCodebook(32767);
  EXPECT_EQ(kelvo_vorbis_headers_fit(hostile.data(), hostile.size(), &commentBytes), 0);
  EXPECT_EQ(decodeOgg(hostile).result, OggResult::failed);
  // The same codebook with one value per entry passes the check (and then
  // fails to decode for want of the rest of the setup).
  const Bytes modest = vorbisWithCodebook(1);
  EXPECT_EQ(kelvo_vorbis_headers_fit(modest.data(), modest.size(), &commentBytes), 1);
  EXPECT_EQ(decodeOgg(modest).result, OggResult::failed);
}

TEST(AudioDecodeTest, ReferenceDecodingFallsThroughTheFormats) {
  const Bytes wav = fixture("speech.wav");
  EXPECT_EQ(decodeReference(wav)->data, parseWav(wav)->data);
  // 12-bit WAV is refused by the parser, tried as MP3 for its sync bytes, and refused there.
  const Bytes odd = fixture("wav-12bit-sync.wav");
  EXPECT_FALSE(parseWav(odd));
  EXPECT_TRUE(looksLikeMp3(odd));
  EXPECT_FALSE(decodeReference(odd));
  EXPECT_FALSE(decodeReference(Bytes{}));
  EXPECT_FALSE(decodeReference(Bytes(100, 'A')));
}

TEST(AudioDecodeTest, CInterfaceRejectsBadArguments) {
  const Bytes ogg = fixture("speech.ogg");
  float* samples = nullptr;
  std::uint64_t frames = 0;
  std::uint32_t rate = 0;
  for (auto decode : {kelvo_mp3_decode, kelvo_ogg_decode}) {
    EXPECT_EQ(decode(nullptr, 10, &samples, &frames, &rate), 0);
    EXPECT_EQ(decode(ogg.data(), 0, &samples, &frames, &rate), 0);
    EXPECT_EQ(decode(ogg.data(), ogg.size(), nullptr, &frames, &rate), 0);
    EXPECT_EQ(decode(ogg.data(), ogg.size(), &samples, nullptr, &rate), 0);
    EXPECT_EQ(decode(ogg.data(), ogg.size(), &samples, &frames, nullptr), 0);
  }
  // The length is refused before a byte is read.
  EXPECT_EQ(kelvo_ogg_decode(ogg.data(), std::uint64_t{1} << 31, &samples, &frames, &rate), 0);
  // "OpusHead" counts only within the first 512 bytes.
  Bytes early(600, 0), late(600, 0);
  std::copy_n("OpusHead", 8, early.begin() + 504);
  std::copy_n("OpusHead", 8, late.begin() + 505);
  EXPECT_EQ(kelvo_ogg_decode(early.data(), early.size(), &samples, &frames, &rate), KELVO_AUDIO_OPUS);
  EXPECT_EQ(kelvo_ogg_decode(late.data(), late.size(), &samples, &frames, &rate), 0);
  ASSERT_EQ(kelvo_ogg_decode(ogg.data(), ogg.size(), &samples, &frames, &rate), 1);
  EXPECT_EQ(rate, 16000u);
  EXPECT_GT(frames, 0u);
  kelvo_audio_free(samples);
  kelvo_audio_free(nullptr);
}

// The lookup itself and the completeness of every language's table are the
// I18n tests'; the English texts pin the keys used here.
TEST(AudioDecodeTest, OggReasonsAreWorded) {
  test::ScopedUiLang ui(UiLang::en);
  const std::pair<OggResult, std::string_view> reasons[] = {
      {OggResult::ok, ""},
      {OggResult::noDecoder,
       "this build has no Ogg decoder, so ogg cannot be decoded - the engine does not accept ogg either; "
       "please use WAV or MP3."},
      {OggResult::notVorbis, "this is not an ogg file."},
      {OggResult::opus,
       "this is Opus inside .ogg. Opus and Vorbis are different codecs and only Vorbis is supported here;convert it "
       "to WAV / MP3 / Ogg Vorbis with another tool and try again."},
      {OggResult::failed, "cannot decode the ogg (the file may be truncated or corrupt)."}};
  for (const auto& [result, text] : reasons) EXPECT_EQ(oggResultText(result), text);
}

}  // namespace
}  // namespace kelvo
