// Any bytes as the cache index: the reader must say "absent" or give entries
// that stay inside the cache directory and carry bounded sizes and speeds.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "KELVOCore/Cache.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto entries = kelvo::parseCacheIndex({data, size});
  if (!entries) return 0;
  for (const auto& [key, e] : *entries) {
    const std::string_view name = e.fileName;
    const bool plain = name.size() > 4 && name.ends_with(".wav") && name.find('/') == std::string_view::npos &&
                       name.find('\0') == std::string_view::npos;
    const bool bounded = e.bytes >= 0 && e.bytes <= (std::int64_t{1} << 32) + 8 && e.speed >= kelvo::KELVO::speedMin &&
                         e.speed <= kelvo::KELVO::speedMax;
    if (!plain || !bounded) std::abort();
  }
  return 0;
}
