// Any bytes as an uploaded reference clip: sniffing and decoding as WAV, Ogg
// Vorbis or MP3 must end in a buffer or "absent", never a crash.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "KELVOCore/AudioDecode.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> bytes(data, size);
  (void)kelvo::sniffExtension(bytes);
  (void)kelvo::engineReadsFormat(bytes);
  const auto pcm = kelvo::decodeReference(bytes);
  if (pcm && (pcm->data.empty() || pcm->sampleRate < 1)) std::abort();
  // The MP3 decoder also on what would have gone elsewhere first.
  const auto mp3 = kelvo::decodeMp3(bytes);
  if (mp3 && mp3->data.empty()) std::abort();
  return 0;
}
