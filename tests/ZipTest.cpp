#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdlib>
#include <functional>
#include <tuple>

#include "KELVOCore/Files.h"
#include "KELVOCore/Zip.h"
#include "tests/TestSupport.h"
#include "tests/ZipCraft.h"

namespace kelvo {
namespace {

using test::bytesOf;
using test::centralRecord;
using test::endRecord;
using test::get32;
using test::noise;
using test::put16;
using test::put32;
using test::zipOf;

std::string repeat(std::string_view line, int times) {
  std::string s;
  for (int i = 0; i < times; ++i) s += line;
  return s;
}

ZipReader opened(ZipResult<ZipReader> r) {
  if (!r.ok()) throw std::runtime_error(r.error().description());
  return std::move(r).value();
}

// The entry as text, or "error: <description>", or "absent".
std::string readText(ZipReader& reader, std::string_view name) {
  auto r = reader.read(name);
  if (!r.ok()) return "error: " + r.error().description();
  return r.value() ? std::string(r.value()->begin(), r.value()->end()) : "absent";
}

TEST(Zip, Crc32MatchesTheZipCheckValues) {
  EXPECT_EQ(crc32({}), 0u);
  EXPECT_EQ(crc32(bytesOf("123456789")), 0xCBF43926u);
  EXPECT_EQ(crc32(bytesOf("The quick brown fox jumps over the lazy dog")), 0x414FA339u);
}

TEST(Zip, WriterLaysOutHeadersByteForByteAndRoundTrips) {
  auto hex = [](std::string_view digits) {
    Bytes b;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 3)
      b.push_back(std::stoi(std::string(digits.substr(i, 2)), nullptr, 16));
    return b;
  };
  // One empty entry "e": local header, central record, end record.
  EXPECT_EQ(zipOf({{"e", {}}}),
            hex("50 4B 03 04 14 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 00 00 65 "
                "50 4B 01 02 14 00 14 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 "
                "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 65 "
                "50 4B 05 06 00 00 00 00 01 00 01 00 2F 00 00 00 1F 00 00 00 00 00 "));

  // Compressible text is deflated, noise and one-byte entries are stored.
  const Bytes text = bytesOf(repeat("a", 4000));
  const std::vector<ZipEntry> entries{{"text.txt", text}, {"noise.bin", noise(5000, 1)}, {"名字/一.txt", bytesOf("x")}};
  const Bytes archive = zipOf(entries);
  EXPECT_EQ(archive[8], 8);                          // method of text.txt
  EXPECT_EQ(test::get32(archive, 14), crc32(text));  // its CRC
  EXPECT_LT(test::get32(archive, 18), 100u);         // compressed size
  EXPECT_EQ(test::get32(archive, 22), text.size());  // uncompressed size
  EXPECT_EQ(archive[centralRecord(archive, "noise.bin") + 10], 0);
  ZipReader r = opened(ZipReader::open(archive));
  EXPECT_EQ(r.names(), (std::vector<std::string>{"text.txt", "noise.bin", "名字/一.txt"}));
  for (const auto& e : entries) EXPECT_EQ(*r.read(e.name).value(), e.data) << e.name;
  EXPECT_EQ(readText(r, "missing"), "absent");

  ZipWriter writer;
  EXPECT_FALSE(writer.add({"", bytesOf("x")}));
  EXPECT_FALSE(writer.add({std::string("a\0b", 3), bytesOf("x")}));
  EXPECT_FALSE(writer.add({"big", Bytes(ZipReader::maxEntryBytes + 1)}));
  for (std::size_t i = 0; i < ZipWriter::maxEntries; ++i) ASSERT_TRUE(writer.add({"e", {}}));
  EXPECT_FALSE(writer.add({"one too many", {}}));
  EXPECT_EQ(opened(ZipReader::open(writer.finish())).names(), std::vector<std::string>{"e"});
}

TEST(Zip, ReadsArchivesOfOtherWriters) {
  // Info-ZIP: archive comment, extra fields of other lengths in local and central headers.
  ZipReader z = opened(ZipReader::openFile(std::string(KELVO_FIXTURES_DIR) + "/zip-infozip.zip"));
  EXPECT_EQ(z.names(), (std::vector<std::string>{"hello.txt", "audio/wav-s16.wav"}));
  EXPECT_EQ(readText(z, "hello.txt"), repeat("hello zip\n", 200));
  EXPECT_EQ(*z.read("audio/wav-s16.wav").value(), *readFile(std::string(KELVO_FIXTURES_DIR) + "/wav-s16.wav"));

  // Python zipfile through a pipe: data descriptors, zero local sizes, an empty deflated entry.
  ZipReader p = opened(ZipReader::openFile(std::string(KELVO_FIXTURES_DIR) + "/zip-python-dd.zip"));
  EXPECT_EQ(readText(p, "a.txt"), repeat("data descriptor\n", 100));
  EXPECT_EQ(readText(p, "empty.txt"), "");
  Bytes counting(1024);
  for (std::size_t i = 0; i < counting.size(); ++i) counting[i] = static_cast<std::uint8_t>(i);
  EXPECT_EQ(*p.read("b.bin").value(), counting);
}

TEST(Zip, OtherToolsAcceptWhatWeWrite) {
  if (std::system("command -v unzip >/dev/null && command -v python3 >/dev/null") != 0) {
    GTEST_SKIP() << "unzip or python3 is not installed";
  }
  test::TempDir dir;
  const std::string path = dir.path() + "ours.zip";
  ASSERT_FALSE(
      writeFileAtomic(path, zipOf({{"empty", {}}, {"a.txt", bytesOf(repeat("z", 3000))}, {"n", noise(3000, 2)}})));
  EXPECT_EQ(std::system(("unzip -tqq '" + path + "'").c_str()), 0);
  EXPECT_EQ(std::system(("python3 -c 'import sys, zipfile; sys.exit(zipfile.ZipFile(sys.argv[1]).testzip() is not "
                         "None)' '" +
                         path + "'")
                            .c_str()),
            0);
}

// Raw DEFLATE at the best ratio, for streams the writer would never make.
Bytes rawDeflate(const Bytes& data) {
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

TEST(Zip, RefusesDamagedArchivesWithTheirReason) {
  // "a" is deflated, "b" stored, "zeros" about 1 KB that inflates to 1 MiB.
  const Bytes good = zipOf({{"a", bytesOf(repeat("alpha", 50))}, {"b", bytesOf("bravo")}, {"zeros", Bytes(1 << 20)}});
  const std::size_t end = endRecord(good), b = centralRecord(good, "b"), zeros = centralRecord(good, "zeros");
  auto patched = [&](const std::function<void(Bytes&)>& patch) {
    Bytes z = good;
    patch(z);
    return z;
  };
  // An archive whose stored entry "x" is replaced by a deflate stream of 65 MiB.
  const Bytes stream = rawDeflate(Bytes((65 << 20) + 1));
  Bytes bigBomb = zipOf({{"x", noise(stream.size(), 3)}});
  std::copy(stream.begin(), stream.end(), bigBomb.begin() + 31);
  bigBomb[8] = bigBomb[centralRecord(bigBomb, "x") + 10] = 8;
  put32(bigBomb, centralRecord(bigBomb, "x") + 24, 60 << 20);
  Bytes nine =
      zipOf({{"0", {}}, {"1", {}}, {"2", {}}, {"3", {}}, {"4", {}}, {"5", {}}, {"6", {}}, {"7", {}}, {"8", {}}});
  for (const char* n : {"0", "1", "2", "3", "4", "5", "6", "7", "8"})
    put32(nine, centralRecord(nine, n) + 24, 60 << 20);

  const std::vector<std::pair<Bytes, std::string>> opening{
      {Bytes(21, 0), "not a zip archive"},
      {noise(5000, 3), "not a zip archive"},
      {patched([&](Bytes& z) { put32(z, end + 16, 0x7FFFFFFF); }), "truncated central directory"},
      {patched([&](Bytes& z) { put16(z, end + 10, 4); }), "truncated central directory"},
      {patched([&](Bytes& z) { put32(z, end + 16, 0); }), "bad central directory entry"},
      {patched([&](Bytes& z) { put16(z, b + 28, 900); }), "truncated central directory"},
      {patched([&](Bytes& z) { z[b + 46] = 0; }), "bad entry name"},
      {patched([&](Bytes& z) { put32(z, b + 24, (64 << 20) + 1); }), "entry too large: b"},
      {nine, "archive expands past 512 MiB"},
  };
  for (const auto& [zip, error] : opening) {
    auto r = ZipReader::open(zip);
    EXPECT_EQ(r.ok() ? "opened" : r.error().description(), error);
  }

  const std::vector<std::tuple<Bytes, std::string, std::string>> reading{
      {patched([&](Bytes& z) { put32(z, b + 16, 0); }), "b", "checksum mismatch for b"},
      {patched([&](Bytes& z) { put32(z, zeros + 24, 1000); }), "zeros", "inflate output kept growing"},
      {bigBomb, "x", "entry too large: x"},
      {patched([&](Bytes& z) { std::fill_n(z.begin() + 31, 20, 0xFF); }), "a", "bad deflate data for a"},
      {patched([&](Bytes& z) { put32(z, zeros + 20, 100); }), "zeros", "bad deflate data for zeros"},
      {patched([&](Bytes& z) { put16(z, b + 10, 12); }), "b", "unsupported compression method 12 for b"},
      {patched([&](Bytes& z) { put32(z, b + 42, 1); }), "b", "bad local header for b"},
      {patched([&](Bytes& z) { put32(z, b + 20, 1 << 24); }), "b", "truncated data for b"},
  };
  for (const auto& [zip, name, error] : reading) {
    ZipReader r = opened(ZipReader::open(zip));
    EXPECT_EQ(readText(r, name), "error: " + error);
  }

  // Nine central records "0".."8" point at one stored 63 MiB entry and each
  // declares a single byte, so the archive opens; the running total of what
  // was handed out must still stop the ninth read short of 512 MiB.
  Bytes shared = zipOf({{"0", noise(63 << 20, 5)}});
  const std::size_t directory = get32(shared, endRecord(shared) + 16);
  const Bytes record(shared.begin() + static_cast<std::ptrdiff_t>(directory),
                     shared.begin() + static_cast<std::ptrdiff_t>(endRecord(shared)));
  Bytes tail(shared.begin() + static_cast<std::ptrdiff_t>(endRecord(shared)), shared.end());
  shared.resize(directory);
  for (char name = '0'; name <= '8'; ++name) {
    Bytes copy = record;
    copy[46] = static_cast<std::uint8_t>(name);
    put32(copy, 24, 1);
    shared.insert(shared.end(), copy.begin(), copy.end());
  }
  put16(tail, 8, 9);
  put16(tail, 10, 9);
  put32(tail, 12, static_cast<std::uint32_t>(9 * record.size()));
  shared.insert(shared.end(), tail.begin(), tail.end());
  ZipReader sharing = opened(ZipReader::open(std::move(shared)));
  for (const char* name : {"0", "1", "2", "3", "4", "5", "6", "7"}) {
    EXPECT_EQ(readText(sharing, name).size(), std::size_t{63} << 20) << name;
  }
  EXPECT_EQ(readText(sharing, "8"), "error: archive expands past 512 MiB");
}

TEST(Zip, ToleratesCommentsAndNeverMisreadsATruncatedArchive) {
  const std::vector<ZipEntry> entries{{"one", bytesOf(repeat("q", 500))}, {"two", noise(300, 4)}};
  Bytes zip = zipOf(entries);
  const std::string comment = "made by a test";
  put16(zip, endRecord(zip) + 20, static_cast<std::uint32_t>(comment.size()));
  zip.insert(zip.end(), comment.begin(), comment.end());
  std::size_t opens = 0;
  for (std::size_t length = 0; length <= zip.size(); ++length) {
    auto reader = ZipReader::openView(std::span(zip).first(length));
    if (!reader.ok()) continue;
    ++opens;
    ZipReader r = std::move(reader).value();
    for (const auto& e : entries) EXPECT_EQ(*r.read(e.name).value(), e.data) << length;
  }
  EXPECT_EQ(opens, comment.size() + 1);  // only cuts inside the comment leave the end record whole

  Bytes longest = zipOf(entries);
  put16(longest, endRecord(longest) + 20, 65535);
  longest.resize(longest.size() + 65535, 'c');
  EXPECT_EQ(opened(ZipReader::open(longest)).names().size(), 2u);
}

}  // namespace
}  // namespace kelvo
