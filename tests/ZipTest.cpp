#include "KELVOCore/Zip.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <random>

#include "KELVOCore/Files.h"
#include "tests/TestSupport.h"
#include "tests/ZipCraft.h"

namespace kelvo {
namespace {

using test::bytesOf;
using test::endRecord;
using test::put16;
using test::put32;
using test::rawZip;
using test::zipOf;

Bytes noise(std::size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  Bytes b(n);
  for (auto& x : b) x = static_cast<std::uint8_t>(gen());
  return b;
}

Bytes fixture(const std::string& name) { return *readFile(std::string(KELVO_FIXTURES_DIR) + "/" + name); }

// The entry's bytes, or "error: <description>" / "absent".
std::string readText(ZipReader& reader, std::string_view name) {
  auto r = reader.read(name);
  if (!r.ok()) return "error: " + r.error().description();
  return r.value() ? std::string(r.value()->begin(), r.value()->end()) : "absent";
}

std::string openError(Bytes zip) {
  auto r = ZipReader::open(std::move(zip));
  return r.ok() ? "opened" : r.error().description();
}

TEST(Zip, Crc32MatchesTheZipCheckValues) {
  EXPECT_EQ(crc32({}), 0u);
  EXPECT_EQ(crc32(bytesOf("123456789")), 0xCBF43926u);
  EXPECT_EQ(crc32(bytesOf("The quick brown fox jumps over the lazy dog")), 0x414FA339u);
}

TEST(Zip, WriterLaysOutHeadersByteForByte) {
  // One empty entry: local header, central record, end record, nothing else.
  const Bytes zip = zipOf({{"e", {}}});
  auto hex = [](std::string_view digits) {
    Bytes b;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 3) b.push_back(std::stoi(std::string(digits.substr(i, 2)), nullptr, 16));
    return b;
  };
  Bytes expected = hex(  // local: signature, version, flags, method, time, date, CRC, sizes, name length, extra
      "50 4B 03 04 14 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 00 00 65 ");
  const Bytes central = hex(  // + made by, comment length, disk, attributes, local header offset
      "50 4B 01 02 14 00 14 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 "
      "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 65 ");
  const Bytes endRecord = hex(  // disks, entries twice, directory size and offset, comment length
      "50 4B 05 06 00 00 00 00 01 00 01 00 2F 00 00 00 1F 00 00 00 00 00 ");
  expected.insert(expected.end(), central.begin(), central.end());
  expected.insert(expected.end(), endRecord.begin(), endRecord.end());
  EXPECT_EQ(zip, expected);

  // Compressible text is deflated, noise and tiny entries are stored.
  const Bytes text = bytesOf(std::string(4000, 'a') + "end");
  const std::vector<ZipEntry> entries{{"text.txt", text}, {"noise.bin", noise(5000, 1)}, {"名字/一.txt", bytesOf("x")}};
  const Bytes archive = zipOf(entries);
  EXPECT_EQ(archive[8], 8);                           // method of text.txt
  EXPECT_EQ(test::get32(archive, 14), crc32(text));   // its CRC
  EXPECT_LT(test::get32(archive, 18), 100u);          // compressed size
  EXPECT_EQ(test::get32(archive, 22), text.size());  // uncompressed size
  auto reader = ZipReader::open(archive);
  ASSERT_TRUE(reader.ok());
  ZipReader r = std::move(reader).value();
  EXPECT_EQ(r.names(), (std::vector<std::string>{"text.txt", "noise.bin", "名字/一.txt"}));
  for (const auto& e : entries) EXPECT_EQ(*r.read(e.name).value(), e.data) << e.name;
  EXPECT_FALSE(r.read("missing").value());
  EXPECT_FALSE(r.contains("text"));
}

TEST(Zip, WriterRefusesWhatTheReaderWouldRefuse) {
  ZipWriter writer;
  EXPECT_FALSE(writer.add({"", bytesOf("x")}));
  EXPECT_FALSE(writer.add({std::string("a\0b", 3), bytesOf("x")}));
  EXPECT_FALSE(writer.add({"big", Bytes(ZipReader::maxEntryBytes + 1)}));
  for (std::size_t i = 0; i < ZipWriter::maxEntries; ++i) ASSERT_TRUE(writer.add({"e", {}}));
  EXPECT_FALSE(writer.add({"one too many", {}}));
  auto reader = ZipReader::open(writer.finish());
  ASSERT_TRUE(reader.ok());
  EXPECT_EQ(reader.value().names(), std::vector<std::string>{"e"});
}

TEST(Zip, ReadsArchivesOfOtherWriters) {
  // Info-ZIP: archive comment, extra fields of other lengths in local and central headers.
  auto infozip = ZipReader::openFile(std::string(KELVO_FIXTURES_DIR) + "/zip-infozip.zip");
  ASSERT_TRUE(infozip.ok());
  ZipReader z = std::move(infozip).value();
  EXPECT_EQ(z.names(), (std::vector<std::string>{"hello.txt", "audio/wav-s16.wav"}));
  std::string hello;
  for (int i = 0; i < 200; ++i) hello += "hello zip\n";
  EXPECT_EQ(readText(z, "hello.txt"), hello);
  EXPECT_EQ(*z.read("audio/wav-s16.wav").value(), fixture("wav-s16.wav"));

  // Python zipfile through a pipe: data descriptors, zero local sizes, an empty deflated entry.
  auto python = ZipReader::open(fixture("zip-python-dd.zip"));
  ASSERT_TRUE(python.ok());
  ZipReader p = std::move(python).value();
  std::string descriptor;
  for (int i = 0; i < 100; ++i) descriptor += "data descriptor\n";
  EXPECT_EQ(readText(p, "a.txt"), descriptor);
  EXPECT_EQ(readText(p, "empty.txt"), "");
  Bytes counting;
  for (int i = 0; i < 1024; ++i) counting.push_back(static_cast<std::uint8_t>(i));
  EXPECT_EQ(*p.read("b.bin").value(), counting);
}

TEST(Zip, OtherToolsAcceptWhatWeWrite) {
  if (std::system("command -v unzip >/dev/null && command -v python3 >/dev/null") != 0) {
    GTEST_SKIP() << "unzip or python3 is not installed";
  }
  test::TempDir dir;
  const std::string path = dir.path() + "ours.zip";
  ASSERT_FALSE(writeFileAtomic(
      path, zipOf({{"empty", {}}, {"text.txt", bytesOf(std::string(3000, 'z'))}, {"noise.bin", noise(3000, 2)}})));
  EXPECT_EQ(std::system(("unzip -tqq '" + path + "'").c_str()), 0);
  EXPECT_EQ(std::system(("python3 -c 'import sys, zipfile; sys.exit(zipfile.ZipFile(sys.argv[1]).testzip() is not "
                         "None)' '" + path + "'").c_str()),
            0);
}

TEST(Zip, RefusesDamagedArchivesWithTheirReason) {
  const Bytes good = zipOf({{"a", bytesOf("alpha")}, {"b", bytesOf("bravo")}});
  const std::size_t end = endRecord(good);
  auto patched = [&](const std::function<void(Bytes&)>& patch) {
    Bytes z = good;
    patch(z);
    return z;
  };
  struct Case {
    const char* what;
    Bytes zip;
    std::string error;
  };
  const Bytes bomb = test::rawDeflate(Bytes(1 << 20));  // about 1 KB that inflates to 1 MiB
  const Bytes bigBomb = test::rawDeflate(Bytes((65 << 20) + 1));
  Bytes nine = zipOf({{"0", {}}, {"1", {}}, {"2", {}}, {"3", {}}, {"4", {}}, {"5", {}}, {"6", {}}, {"7", {}}, {"8", {}}});
  for (const char* n : {"0", "1", "2", "3", "4", "5", "6", "7", "8"}) put32(nine, test::centralRecord(nine, n) + 24, 60 << 20);
  const std::vector<Case> cases{
      {"21 bytes", Bytes(21, 0), "not a zip archive"},
      {"no end record", noise(5000, 3), "not a zip archive"},
      {"directory outside the file", patched([&](Bytes& z) { put32(z, end + 16, 0x7FFFFFFF); }),
       "truncated central directory"},
      {"more entries than the directory", patched([&](Bytes& z) { put16(z, end + 10, 3); }),
       "truncated central directory"},
      {"directory offset at a local header", patched([&](Bytes& z) { put32(z, end + 16, 0); }),
       "bad central directory entry"},
      {"name running past the end", patched([&](Bytes& z) { put16(z, test::centralRecord(good, "b") + 28, 900); }),
       "truncated central directory"},
      {"NUL in a name", rawZip(std::string("a\0b", 3), {}, 0, 0, 0), "bad entry name"},
      {"declared over 64 MiB", rawZip("huge", {}, 8, 0, (64 << 20) + 1), "entry too large: huge"},
      {"declared over 512 MiB in all", nine, "archive expands past 512 MiB"},
  };
  for (const auto& c : cases) EXPECT_EQ(openError(c.zip), c.error) << c.what;

  const std::vector<Case> reads{
      {"stored entry with a wrong CRC", rawZip("x", bytesOf("hello"), 0, crc32(bytesOf("hellO")), 5),
       "error: checksum mismatch for x"},
      {"deflate bomb", rawZip("x", bomb, 8, 0, 1000), "error: inflate output kept growing"},
      {"inflates past 64 MiB", rawZip("x", bigBomb, 8, 0, 60 << 20), "error: entry too large: x"},
      {"not deflate", rawZip("x", Bytes(50, 0xFF), 8, 0, 50), "error: bad deflate data for x"},
      {"cut deflate stream", rawZip("x", Bytes(bomb.begin(), bomb.begin() + 100), 8, 0, 1 << 20),
       "error: bad deflate data for x"},
      {"unsupported method", rawZip("x", bytesOf("hello"), 12, 0, 5), "error: unsupported compression method 12 for x"},
      {"bad local header", patched([](Bytes& z) { z[0] = 'Q'; }), "error: bad local header for a"},
      {"data past the end", patched([&](Bytes& z) { put32(z, test::centralRecord(good, "a") + 20, 1 << 20); }),
       "error: truncated data for a"},
  };
  for (const auto& c : reads) {
    auto reader = ZipReader::open(c.zip);
    ASSERT_TRUE(reader.ok()) << c.what << ": " << reader.error().description();
    ZipReader r = std::move(reader).value();
    EXPECT_EQ(readText(r, r.names().front()), c.error) << c.what;
  }
}

TEST(Zip, ToleratesCommentsAndNeverMisreadsATruncatedArchive) {
  const std::vector<ZipEntry> entries{{"one", bytesOf(std::string(500, 'q'))}, {"two", noise(300, 4)}};
  Bytes zip = zipOf(entries);
  const std::string comment = "made by a test";
  put16(zip, endRecord(zip) + 20, static_cast<std::uint32_t>(comment.size()));
  zip.insert(zip.end(), comment.begin(), comment.end());

  std::size_t opened = 0;
  for (std::size_t length = 0; length <= zip.size(); ++length) {
    auto reader = ZipReader::openView(std::span(zip).first(length));
    if (!reader.ok()) continue;
    ++opened;
    ZipReader r = std::move(reader).value();
    for (const auto& e : entries) EXPECT_EQ(*r.read(e.name).value(), e.data) << length;
  }
  EXPECT_EQ(opened, comment.size() + 1);  // only cuts inside the comment leave the end record whole

  Bytes longest = zipOf(entries);
  put16(longest, endRecord(longest) + 20, 65535);
  longest.resize(longest.size() + 65535, 'c');
  auto reader = ZipReader::open(longest);
  ASSERT_TRUE(reader.ok());
  EXPECT_EQ(*reader.value().names().begin(), "one");
}

}  // namespace
}  // namespace kelvo
