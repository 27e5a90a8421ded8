// Zip archives, the subset clone packs travel in: one disk, no zip64, no
// encryption, entries stored (method 0) or raw DEFLATE (method 8). The writer
// builds the whole archive in memory; the reader parses the central directory
// of an archive held in memory or in a file and inflates entries on demand.
//
// Archives arrive from other machines and a public hub, so the reader treats
// every byte as hostile. Beyond the classic format rules it
//   - checks the CRC-32 of every entry it returns;
//   - refuses as corrupt, before taking the memory, an entry whose declared
//     size exceeds 64 MiB and an archive whose declared sizes together exceed
//     512 MiB; inflating stops at 64 MiB per entry, and one reader hands out at
//     most 512 MiB in all, so a deflate bomb or a manifest naming the same big
//     entry many times cannot drive it into gigabytes;
//   - checks central-directory offsets, counts and name lengths against the
//     archive's size before use, and refuses a name holding NUL.
// The writer never produces an archive this reader would refuse.
//
// Nothing here throws: failures come back as ZipError values. Neither class is
// safe for concurrent use; a reader counts what it hands out, so even its
// reads belong to one thread at a time. Cost: opening is one pass over the
// central directory; a read copies or inflates only that entry. A reader over
// a file holds no more than the entry being read.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "KELVOCore/Files.h"
#include "KELVOCore/Types.h"

namespace kelvo {

struct ZipEntry {
  std::string name;
  Bytes data;
};

// Why an archive or an entry could not be read.
class ZipError {
 public:
  enum class Kind { notAZip, corrupt };
  static ZipError notAZip() { return ZipError(Kind::notAZip, "not a zip archive"); }
  static ZipError corrupt(std::string message) { return ZipError(Kind::corrupt, std::move(message)); }
  Kind kind() const { return kind_; }
  // "not a zip archive", or the corrupt entry's message. English: it is a
  // technical reason that callers quote inside their own localised sentence.
  const std::string& description() const { return description_; }

 private:
  ZipError(Kind kind, std::string description) : kind_(kind), description_(std::move(description)) {}
  Kind kind_;
  std::string description_;
};

// A value or the ZipError that prevented it.
template <typename T>
class ZipResult {
 public:
  // Implicit, so that a function returns either a value or an error as it is.
  ZipResult(T value) : v_(std::move(value)) {}
  ZipResult(ZipError error) : v_(std::move(error)) {}
  bool ok() const { return v_.index() == 0; }
  // REQUIRES: ok().
  const T& value() const& { return std::get<0>(v_); }
  T&& value() && { return std::get<0>(std::move(v_)); }
  // REQUIRES: !ok().
  const ZipError& error() const { return std::get<1>(v_); }

 private:
  std::variant<T, ZipError> v_;
};

// CRC-32 of ISO 3309 / zip: reflected polynomial 0xEDB88320, initial value and
// final XOR 0xFFFFFFFF. About 4 GB/s (zlib's tables).
std::uint32_t crc32(std::span<const std::uint8_t> data);

// Deflated entries must come out smaller than the input, else they are stored:
// already compressed audio is not worth inflating again on every read.
class ZipWriter {
 public:
  static constexpr std::size_t maxEntries = 65535;

  ZipWriter() = default;
  ZipWriter(const ZipWriter&) = delete;
  ZipWriter& operator=(const ZipWriter&) = delete;

  // Appends one entry (deflated when that is strictly smaller). False, and the
  // archive unchanged, when the entry would break a limit of the format or of
  // ZipReader: a name empty, over 65,535 bytes or holding NUL, data over
  // ZipReader::maxEntryBytes, ZipReader::maxTotalBytes in all, 65,535 entries,
  // or an archive past 4 GiB.
  [[nodiscard]] bool add(const ZipEntry& entry);
  // The archive: the entries so far, their central directory and the end record.
  // The writer is empty afterwards.
  Bytes finish();

 private:
  struct Record {
    std::string name;
    std::uint32_t crc = 0;
    std::uint32_t csize = 0;
    std::uint32_t usize = 0;
    std::uint32_t offset = 0;  // of the local header
    std::uint16_t method = 0;
  };

  Bytes out_;
  std::vector<Record> records_;
  std::uint64_t totalBytes_ = 0;    // uncompressed, over all entries
  std::uint64_t centralBytes_ = 0;  // the central directory finish() will write
};

class ZipReader {
 public:
  static constexpr std::uint64_t maxEntryBytes = std::uint64_t{64} << 20;
  static constexpr std::uint64_t maxTotalBytes = std::uint64_t{512} << 20;

  // Parses the central directory of `data`, which the reader keeps.
  static ZipResult<ZipReader> open(Bytes data);
  // The same over bytes the caller keeps. REQUIRES: `data` outlives the reader.
  static ZipResult<ZipReader> openView(std::span<const std::uint8_t> data);
  // The same over a file, read piece by piece as entries are asked for; an
  // unreadable file is corrupt. REQUIRES: nobody changes the file meanwhile.
  static ZipResult<ZipReader> openFile(const std::string& path);

  ZipReader(ZipReader&&) = default;
  ZipReader& operator=(ZipReader&&) = default;
  ZipReader(const ZipReader&) = delete;
  ZipReader& operator=(const ZipReader&) = delete;

  std::uint64_t size() const { return size_; }  // of the archive
  bool contains(std::string_view name) const;
  // Entry names in archive order (by the offset of their local header). Of
  // several entries with one name, the last in the directory is the one read.
  std::vector<std::string> names() const;
  // The entry's bytes, checked against its CRC-32; absent for an unknown name.
  ZipResult<std::optional<Bytes>> read(std::string_view name);

 private:
  struct Entry {
    std::uint64_t offset = 0;  // of the local header
    std::uint16_t method = 0;
    std::uint64_t csize = 0;
    std::uint64_t usize = 0;
    std::uint32_t crc = 0;
  };

  ZipReader(Bytes owned, std::span<const std::uint8_t> bytes, std::optional<OpenFile> file);
  static ZipResult<ZipReader> parse(ZipReader reader);
  // `length` bytes at `offset`: a view of the archive in memory, or read from
  // the file into `scratch`. Absent past the end or on a read error.
  std::optional<std::span<const std::uint8_t>> fetch(std::uint64_t offset, std::uint64_t length, Bytes& scratch) const;
  // Inflates with the declared size as the first guess, doubling up to eight
  // times while the stream goes on, never past the size limits.
  ZipResult<Bytes> inflateEntry(std::span<const std::uint8_t> data, const Entry& entry, const std::string& name);
  // The error for an entry that would break the 64 MiB or the 512 MiB limit.
  ZipError tooLarge(const std::string& name) const;

  // A vector keeps its buffer when moved, so `bytes_` stays valid across moves.
  Bytes owned_;
  std::span<const std::uint8_t> bytes_;
  std::optional<OpenFile> file_;  // instead of `bytes_`
  std::uint64_t size_ = 0;
  std::map<std::string, Entry, std::less<>> index_;
  std::uint64_t handedOut_ = 0;  // bytes returned by read() so far
};

}  // namespace kelvo
