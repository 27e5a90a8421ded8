// The chunk walk of the header look: the first 1024 bytes of a "file" whose
// size is taken from the input too, so both the data-size and the file-size
// branches of the length are reached.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "KELVOCore/Wav.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 8) return 0;
  std::uint64_t claimedSize = 0;
  std::memcpy(&claimedSize, data, sizeof claimedSize);
  const std::span<const std::uint8_t> file(data + 8, size - 8);
  const auto head = file.first(std::min<std::size_t>(file.size(), 1024));
  for (const std::uint64_t fileSize : {static_cast<std::uint64_t>(file.size()), claimedSize}) {
    const auto info = kelvo::inspectWavHeader(head, fileSize);
    if (info && (info->sampleRate < 1 || info->durationMs < 0)) std::abort();
  }
  return 0;
}
