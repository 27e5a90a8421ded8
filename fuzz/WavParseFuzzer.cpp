// Any bytes into the WAV parser: it must say "absent" or give a buffer that
// keeps its promises, and never read or allocate beyond what the bytes allow.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "KELVOCore/Wav.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto parsed = kelvo::parseWavWithFormat({data, size});
  if (parsed) {
    const auto& f = parsed->format;
    const bool sane = !parsed->pcm.data.empty() && f.channels >= 1 && f.sampleRate >= 1 &&
                      parsed->pcm.sampleRate == f.sampleRate &&
                      parsed->pcm.data.size() * static_cast<std::size_t>(f.channels * f.bitsPerSample / 8) <= size;
    if (!sane) std::abort();
  }
  return 0;
}
