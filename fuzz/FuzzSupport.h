// Helpers shared by the fuzz targets that drive file loaders.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

#include "KELVOCore/Files.h"

namespace kelvo::fuzz {

// A private folder for the run, in memory when /dev/shm exists: the loaders
// write atomically with fsync, which a disk would make the bottleneck.
inline std::string scratchFolder() {
  const std::filesystem::path base =
      std::filesystem::is_directory("/dev/shm") ? std::filesystem::path("/dev/shm") : std::filesystem::temp_directory_path();
  std::string pattern = (base / "kelvo-fuzz-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) std::abort();
  return pattern + "/";
}

// Replaces the file with the fuzzer's bytes.
inline void writeInput(const std::string& path, const std::uint8_t* data, std::size_t size) {
  if (writeFileAtomic(path, std::span(data, size))) std::abort();
}

inline std::string readText(const std::string& path) {
  const auto bytes = readFile(path);
  if (!bytes) std::abort();
  return {bytes->begin(), bytes->end()};
}

}  // namespace kelvo::fuzz
