#include "KELVOCore/Zip.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>

#include "KELVOCore/Files.h"

namespace kelvo {

namespace {

constexpr std::uint32_t kLocalSignature = 0x04034B50;
constexpr std::uint32_t kCentralSignature = 0x02014B50;
constexpr std::uint32_t kEndSignature = 0x06054B50;
constexpr std::uint64_t kLocalHeaderBytes = 30;
constexpr std::uint64_t kCentralHeaderBytes = 46;
constexpr std::uint64_t kEndRecordBytes = 22;
constexpr std::uint64_t kLongestComment = 65536;  // one more than fits, as other readers search
constexpr std::uint64_t kMaxArchiveBytes = 0xFFFFFFFF;
constexpr std::uint16_t kVersion = 20;
constexpr std::uint16_t kStored = 0;
constexpr std::uint16_t kDeflated = 8;
constexpr int kInflateAttempts = 8;

std::uint16_t get16(std::span<const std::uint8_t> b, std::uint64_t at) {
  return static_cast<std::uint16_t>(b[at] | (b[at + 1] << 8));
}

std::uint32_t get32(std::span<const std::uint8_t> b, std::uint64_t at) {
  return static_cast<std::uint32_t>(get16(b, at)) | (static_cast<std::uint32_t>(get16(b, at + 2)) << 16);
}

void put16(std::uint8_t* at, std::uint64_t v) {
  at[0] = static_cast<std::uint8_t>(v);
  at[1] = static_cast<std::uint8_t>(v >> 8);
}

void put32(std::uint8_t* at, std::uint64_t v) {
  put16(at, v & 0xFFFF);
  put16(at + 2, v >> 16);
}

// Raw DEFLATE of `in` into `out`; the compressed size, or 0 when it would not
// be strictly smaller than `in` (the caller then stores the bytes).
std::size_t deflateSmaller(std::span<const std::uint8_t> in, std::uint8_t* out) {
  if (in.size() < 2) return 0;
  z_stream z{};
  if (deflateInit2(&z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) != Z_OK) return 0;
  const auto room = static_cast<uInt>(in.size() - 1);
  z.next_in = const_cast<Bytef*>(in.data());
  z.avail_in = static_cast<uInt>(in.size());
  z.next_out = out;
  z.avail_out = room;
  const int rc = deflate(&z, Z_FINISH);
  const std::size_t produced = room - z.avail_out;
  deflateEnd(&z);
  return rc == Z_STREAM_END ? produced : 0;
}

}  // namespace

// zlib's tables compute the same CRC about ten times faster than one table
// a byte at a time, and the CRC is a quarter of an import otherwise.
std::uint32_t crc32(std::span<const std::uint8_t> data) {
  return static_cast<std::uint32_t>(crc32_z(0, data.data(), data.size()));
}

// ---- Writer ---------------------------------------------------------------------

bool ZipWriter::add(const ZipEntry& entry) {
  const std::string& name = entry.name;
  const std::span<const std::uint8_t> data = entry.data;
  if (name.empty() || name.size() > 0xFFFF || name.find('\0') != std::string::npos) return false;
  if (records_.size() >= maxEntries || data.size() > ZipReader::maxEntryBytes ||
      totalBytes_ + data.size() > ZipReader::maxTotalBytes) {
    return false;
  }
  // Everything after this entry must still be addressable with 32 bits: its
  // data, every central record including its own, and the end record.
  const std::uint64_t centralBytes = centralBytes_ + kCentralHeaderBytes + name.size();
  if (out_.size() + kLocalHeaderBytes + name.size() + data.size() + centralBytes + kEndRecordBytes > kMaxArchiveBytes) {
    return false;
  }

  Record record{.name = name,
                .crc = crc32(data),
                .usize = static_cast<std::uint32_t>(data.size()),
                .offset = static_cast<std::uint32_t>(out_.size()),
                .method = kDeflated};
  const std::size_t dataAt = out_.size() + kLocalHeaderBytes + name.size();
  // Deflate straight into the archive; the room is one byte short of the input,
  // so a result that does not fit is one that would not have been smaller.
  out_.resize(dataAt + (data.empty() ? 0 : data.size() - 1));
  std::size_t csize = deflateSmaller(data, out_.data() + dataAt);
  if (csize == 0) {
    record.method = kStored;
    csize = data.size();
    out_.resize(dataAt + csize);
    if (csize > 0) std::memcpy(out_.data() + dataAt, data.data(), csize);
  }
  out_.resize(dataAt + csize);
  record.csize = static_cast<std::uint32_t>(csize);

  std::uint8_t* h = out_.data() + record.offset;
  put32(h, kLocalSignature);
  put16(h + 4, kVersion);
  put16(h + 6, 0);  // flags: sizes are in this header, no data descriptor
  put16(h + 8, record.method);
  put32(h + 10, 0);  // time and date
  put32(h + 14, record.crc);
  put32(h + 18, record.csize);
  put32(h + 22, record.usize);
  put16(h + 26, name.size());
  put16(h + 28, 0);
  std::memcpy(h + kLocalHeaderBytes, name.data(), name.size());

  totalBytes_ += data.size();
  centralBytes_ = centralBytes;
  records_.push_back(std::move(record));
  return true;
}

Bytes ZipWriter::finish() {
  const std::size_t centralAt = out_.size();
  for (const auto& r : records_) {
    const std::size_t at = out_.size();
    out_.resize(at + kCentralHeaderBytes + r.name.size(), 0);
    std::uint8_t* c = out_.data() + at;
    put32(c, kCentralSignature);
    put16(c + 4, kVersion);
    put16(c + 6, kVersion);
    put16(c + 10, r.method);
    put32(c + 16, r.crc);
    put32(c + 20, r.csize);
    put32(c + 24, r.usize);
    put16(c + 28, r.name.size());
    put32(c + 42, r.offset);
    std::memcpy(c + kCentralHeaderBytes, r.name.data(), r.name.size());
  }
  const std::size_t endAt = out_.size();
  out_.resize(endAt + kEndRecordBytes, 0);
  std::uint8_t* e = out_.data() + endAt;
  put32(e, kEndSignature);
  put16(e + 8, records_.size());
  put16(e + 10, records_.size());
  put32(e + 12, endAt - centralAt);
  put32(e + 16, centralAt);
  records_.clear();
  totalBytes_ = 0;
  centralBytes_ = 0;
  return std::exchange(out_, {});
}

// ---- Reader ---------------------------------------------------------------------

ZipReader::ZipReader(Bytes owned, std::span<const std::uint8_t> bytes, std::optional<OpenFile> file)
    : owned_(std::move(owned)), bytes_(bytes), file_(std::move(file)) {
  if (!owned_.empty()) bytes_ = owned_;
  size_ = file_ ? file_->size() : bytes_.size();
}

ZipResult<ZipReader> ZipReader::open(Bytes data) { return parse(ZipReader(std::move(data), {}, std::nullopt)); }

ZipResult<ZipReader> ZipReader::openView(std::span<const std::uint8_t> data) {
  return parse(ZipReader({}, data, std::nullopt));
}

ZipResult<ZipReader> ZipReader::openFile(const std::string& path) {
  auto file = OpenFile::open(path);
  if (!file) return ZipError::corrupt("cannot read " + path);
  return parse(ZipReader({}, {}, std::move(file)));
}

std::optional<std::span<const std::uint8_t>> ZipReader::fetch(std::uint64_t offset, std::uint64_t length,
                                                              Bytes& scratch) const {
  if (offset > size_ || length > size_ - offset) return std::nullopt;
  if (!file_) return bytes_.subspan(offset, length);
  scratch.resize(length);
  if (!file_->readAt(offset, scratch)) return std::nullopt;
  return std::span<const std::uint8_t>(scratch);
}

ZipResult<ZipReader> ZipReader::parse(ZipReader reader) {
  const std::uint64_t size = reader.size_;
  if (size < kEndRecordBytes) return ZipError::notAZip();

  // The end record sits behind an archive comment of up to 65,535 bytes.
  const std::uint64_t lowest = size > kEndRecordBytes + kLongestComment ? size - kEndRecordBytes - kLongestComment : 0;
  Bytes scratch;
  const auto tail = reader.fetch(lowest, size - lowest, scratch);
  if (!tail) return ZipError::corrupt("cannot read the end of the archive");
  std::optional<std::uint64_t> end;
  for (std::uint64_t at = tail->size() - kEndRecordBytes;; --at) {
    if (get32(*tail, at) == kEndSignature) {
      end = at;
      break;
    }
    if (at == 0) break;
  }
  if (!end) return ZipError::notAZip();

  const std::uint16_t count = get16(*tail, *end + 10);
  std::uint64_t at = get32(*tail, *end + 16);
  std::uint64_t declared = 0;
  Bytes nameScratch;
  for (std::uint16_t i = 0; i < count; ++i) {
    const auto fixed = reader.fetch(at, kCentralHeaderBytes, scratch);
    if (!fixed) return ZipError::corrupt("truncated central directory");
    const std::span<const std::uint8_t> c = *fixed;
    if (get32(c, 0) != kCentralSignature) return ZipError::corrupt("bad central directory entry");
    const std::uint64_t nameBytes = get16(c, 28);
    const std::uint64_t next = at + kCentralHeaderBytes + nameBytes + get16(c, 30) + get16(c, 32);
    const auto nameData = reader.fetch(at + kCentralHeaderBytes, nameBytes, nameScratch);
    if (next > size || !nameData) return ZipError::corrupt("truncated central directory");
    std::string name(nameData->begin(), nameData->end());
    if (name.find('\0') != std::string::npos) return ZipError::corrupt("bad entry name");
    const Entry entry{get32(c, 42), get16(c, 10), get32(c, 20), get32(c, 24), get32(c, 16)};
    if (entry.usize > maxEntryBytes) return ZipError::corrupt("entry too large: " + name);
    declared += entry.usize;
    if (declared > maxTotalBytes) return ZipError::corrupt("archive expands past 512 MiB");
    reader.index_.insert_or_assign(std::move(name), entry);
    at = next;
  }
  return reader;
}

bool ZipReader::contains(std::string_view name) const { return index_.find(name) != index_.end(); }

std::vector<std::string> ZipReader::names() const {
  std::vector<std::pair<std::uint64_t, std::string>> ordered;
  for (const auto& [name, entry] : index_) ordered.emplace_back(entry.offset, name);
  std::sort(ordered.begin(), ordered.end());
  std::vector<std::string> out;
  for (auto& [offset, name] : ordered) out.push_back(std::move(name));
  return out;
}

ZipResult<std::optional<Bytes>> ZipReader::read(std::string_view wanted) {
  const auto it = index_.find(wanted);
  if (it == index_.end()) return std::optional<Bytes>();
  const std::string& name = it->first;
  const Entry& entry = it->second;
  Bytes scratch;
  const auto local = fetch(entry.offset, kLocalHeaderBytes, scratch);
  if (!local || get32(*local, 0) != kLocalSignature) return ZipError::corrupt("bad local header for " + name);
  // The local name and extra field may differ in length from the central ones.
  const std::uint64_t dataAt = entry.offset + kLocalHeaderBytes + get16(*local, 26) + get16(*local, 28);
  if (entry.method != kStored && entry.method != kDeflated) {
    return ZipError::corrupt("unsupported compression method " + std::to_string(entry.method) + " for " + name);
  }
  // Refused before the compressed bytes are fetched, so a reader over a file
  // never takes more memory than the limits allow. Deflate grows data that
  // does not compress by a few bytes per 16 KiB block at most.
  const std::uint64_t limit = std::min(maxEntryBytes, maxTotalBytes - handedOut_);
  if (entry.csize > (entry.method == kStored ? limit : limit + limit / 1000 + 1024)) return tooLarge(name);
  const auto data = fetch(dataAt, entry.csize, scratch);
  if (!data) return ZipError::corrupt("truncated data for " + name);

  Bytes out;
  if (entry.method == kStored) {
    out = file_ ? std::move(scratch) : Bytes(data->begin(), data->end());
  } else {
    auto inflated = inflateEntry(*data, entry, name);
    if (!inflated.ok()) return inflated.error();
    out = std::move(inflated).value();
  }
  if (crc32(out) != entry.crc) return ZipError::corrupt("checksum mismatch for " + name);
  handedOut_ += out.size();
  return std::optional<Bytes>(std::move(out));
}

ZipError ZipReader::tooLarge(const std::string& name) const {
  if (maxTotalBytes - handedOut_ < maxEntryBytes) return ZipError::corrupt("archive expands past 512 MiB");
  return ZipError::corrupt("entry too large: " + name);
}

ZipResult<Bytes> ZipReader::inflateEntry(std::span<const std::uint8_t> data, const Entry& entry,
                                         const std::string& name) {
  if (data.empty()) return Bytes();
  const std::uint64_t limit = std::min(maxEntryBytes, maxTotalBytes - handedOut_);
  // The declared size is only a hint: start at a guess and double, a bounded
  // number of times and never past the limit, while the stream keeps going.
  Bytes out(std::min(limit, std::max({data.size() * 4, entry.usize, std::uint64_t{1024}})));
  z_stream z{};
  if (inflateInit2(&z, -15) != Z_OK) return ZipError::corrupt("cannot inflate " + name);
  z.next_in = const_cast<Bytef*>(data.data());
  z.avail_in = static_cast<uInt>(data.size());
  std::optional<ZipError> failure;
  for (int attempt = 1;; ++attempt) {
    z.next_out = out.data() + z.total_out;
    z.avail_out = static_cast<uInt>(out.size() - z.total_out);
    const int rc = inflate(&z, Z_NO_FLUSH);
    // A complete stream is accepted even when it holds nothing: Python writes
    // empty files that way.
    if (rc == Z_STREAM_END) break;
    if ((rc != Z_OK && rc != Z_BUF_ERROR) || z.avail_out > 0) {
      failure = ZipError::corrupt("bad deflate data for " + name);
    } else if (attempt == kInflateAttempts) {
      failure = ZipError::corrupt("inflate output kept growing");
    } else if (out.size() >= limit) {
      failure = tooLarge(name);
    }
    if (failure) break;
    out.resize(std::min<std::uint64_t>(out.size() * 2, limit));
  }
  const std::size_t produced = z.total_out;
  inflateEnd(&z);
  if (failure) return *failure;
  out.resize(produced);
  out.shrink_to_fit();
  return out;
}

}  // namespace kelvo
