// Building and doctoring zip archives in tests: what ZipWriter makes, then
// patched field by field into the shapes a hostile archive takes.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "KELVOCore/Zip.h"
#include "tests/TestSupport.h"

namespace kelvo::test {

inline Bytes zipOf(const std::vector<ZipEntry>& entries) {
  ZipWriter writer;
  for (const auto& e : entries) {
    if (!writer.add(e)) throw std::runtime_error("ZipWriter refused " + e.name);
  }
  return writer.finish();
}

inline void put16(Bytes& b, std::size_t at, std::uint32_t v) {
  b.at(at) = static_cast<std::uint8_t>(v);
  b.at(at + 1) = static_cast<std::uint8_t>(v >> 8);
}
inline void put32(Bytes& b, std::size_t at, std::uint32_t v) {
  put16(b, at, v & 0xFFFF);
  put16(b, at + 2, v >> 16);
}
inline std::uint32_t get32(const Bytes& b, std::size_t at) {
  return b.at(at) | (b.at(at + 1) << 8) | (b.at(at + 2) << 16) | (static_cast<std::uint32_t>(b.at(at + 3)) << 24);
}

// Offset of the end record (no comment) and of the central record of `name`.
inline std::size_t endRecord(const Bytes& zip) { return zip.size() - 22; }
inline std::size_t centralRecord(const Bytes& zip, std::string_view name) {
  for (std::size_t at = get32(zip, endRecord(zip) + 16); at + 46 <= zip.size();) {
    const std::size_t nameBytes = zip[at + 28] | (zip[at + 29] << 8);
    if (std::string_view(reinterpret_cast<const char*>(&zip[at + 46]), nameBytes) == name) return at;
    at += 46 + nameBytes;
  }
  throw std::runtime_error("no central record for " + std::string(name));
}

}  // namespace kelvo::test
