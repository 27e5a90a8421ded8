// Building and doctoring zip archives in tests: what ZipWriter makes, then
// patched field by field into the shapes a hostile archive takes.
#pragma once

#include <cstring>
#include <string_view>
#include <vector>

#include <zlib.h>

#include "KELVOCore/Zip.h"

namespace kelvo::test {

inline Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

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

// Raw DEFLATE of `data` at the best ratio.
inline Bytes rawDeflate(const Bytes& data) {
  z_stream z{};
  deflateInit2(&z, 9, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY);
  Bytes out(deflateBound(&z, data.size()));
  z.next_in = const_cast<Bytef*>(data.data());
  z.avail_in = static_cast<uInt>(data.size());
  z.next_out = out.data();
  z.avail_out = static_cast<uInt>(out.size());
  deflate(&z, Z_FINISH);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

// A one-entry archive with whatever header values a test wants: `data` as it
// stands in the archive, and the method, CRC and size the headers claim.
inline Bytes rawZip(std::string_view name, const Bytes& data, std::uint16_t method, std::uint32_t crc,
                    std::uint32_t usize) {
  Bytes zip(30 + name.size());
  put32(zip, 0, 0x04034B50);
  put16(zip, 4, 20);
  put16(zip, 8, method);
  put32(zip, 14, crc);
  put32(zip, 18, static_cast<std::uint32_t>(data.size()));
  put32(zip, 22, usize);
  put16(zip, 26, static_cast<std::uint32_t>(name.size()));
  std::memcpy(&zip[30], name.data(), name.size());
  zip.insert(zip.end(), data.begin(), data.end());
  const std::size_t central = zip.size();
  zip.resize(central + 46 + name.size() + 22, 0);
  put32(zip, central, 0x02014B50);
  put16(zip, central + 10, method);
  put32(zip, central + 16, crc);
  put32(zip, central + 20, static_cast<std::uint32_t>(data.size()));
  put32(zip, central + 24, usize);
  put16(zip, central + 28, static_cast<std::uint32_t>(name.size()));
  std::memcpy(&zip[central + 46], name.data(), name.size());
  const std::size_t end = central + 46 + name.size();
  put32(zip, end, 0x06054B50);
  put16(zip, end + 8, 1);
  put16(zip, end + 10, 1);
  put32(zip, end + 12, static_cast<std::uint32_t>(46 + name.size()));
  put32(zip, end + 16, static_cast<std::uint32_t>(central));
  return zip;
}

}  // namespace kelvo::test
