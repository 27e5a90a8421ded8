#include "KELVOCore/Cache.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <thread>
#include <tuple>

#include "KELVOCore/Files.h"
#include "KELVOCore/Log.h"
#include "KELVOCore/Wav.h"
#include "tests/TestSupport.h"

namespace kelvo {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

// A line whose WAV file is exactly `bytes` long (44-byte header, 16-bit mono).
TtsResult line(std::int64_t bytes, std::string voice = "v1") {
  PcmBuffer pcm;
  pcm.sampleRate = 22050;
  pcm.data.assign(static_cast<std::size_t>((bytes - 44) / 2), 0.25f);
  TtsResult r;
  r.wav = buildWav(pcm, 1);
  r.sampleRate = pcm.sampleRate;
  r.durationMs = pcm.durationMs();
  r.voiceId = std::move(voice);
  r.language = "zh";
  r.speed = 1.25f;
  return r;
}

// "K" + i, spelt so that GCC 12 does not see a bogus overlap in operator+.
std::string keyOf(unsigned i) {
  std::string key = "K";
  key += std::to_string(i);
  return key;
}

// The first line the cache logged at `level` that starts with `prefix`.
std::optional<std::string> logged(LogLevel level, std::string_view prefix) {
  return test::loggedLine("cache", level, prefix);
}

// Entries of an index file on disk; absent when it is missing or does not parse.
std::optional<std::size_t> entriesIn(const std::string& path) {
  const auto bytes = readFile(path);
  if (!bytes) return std::nullopt;
  const auto entries = parseCacheIndex(*bytes);
  if (!entries) return std::nullopt;
  return entries->size();
}

TEST(CacheKeyTest, FollowsWhatChangesTheAudioAndNothingElse) {
  const TtsRequest plain = TtsRequest::make("你好", "zh", TtsGender::automatic, 1.0f);
  VoiceInfo voice;
  voice.id = "v1";
  EXPECT_EQ(makeCacheKey(plain, voice, "e", 0, false),
            "DAD9CAAD980EC29D01A7350A00319BD2A42B391A1BC15DE72C859A3393111D3A");

  TtsRequest full = TtsRequest::make("Hi", "en", TtsGender::male, 1.25f);
  full.seed = 3;
  full.style = "brisk";
  VoiceInfo styled;
  styled.id = "V";
  styled.profileFile = "p.json";
  styled.style = "calm";
  styled.seed = 7;
  // "eng|V|p.json|calm|7|1.250|True|24000|3|brisk|[brisk] Hi"
  // Every field non-default: any field left out, reordered or formatted
  // differently changes this key.
  EXPECT_EQ(makeCacheKey(full, styled, "eng", 24000, true),
            "956F54A7D27DA1C221E8DFC9F3A6C53FB803D5FDC31EF3E713B779022C7CD589");

  TtsRequest routed = plain;
  routed.airline = "CCA";
  routed.priority = TtsPriority::high;
  routed.gender = TtsGender::female;
  EXPECT_EQ(makeCacheKey(routed, voice, "e", 0, false), makeCacheKey(plain, voice, "e", 0, false));
}

TEST(WavCacheTest, StoresServesAndCounts) {
  TempDir dir;
  {
    WavCache cache(dir.path());
    EXPECT_FALSE(cache.tryGet("K1"));
    cache.put("K1", line(600), "请登机");
    cache.put("K2", line(400), "second");
    cache.put("K2", line(500), "second, longer");  // replaces, never double-counts

    const auto hit = cache.tryGet("K1");
    ASSERT_TRUE(hit);
    EXPECT_EQ(hit->wav, line(600).wav);
    EXPECT_TRUE(hit->fromCache);
    EXPECT_EQ(std::tie(hit->etag, hit->voiceId, hit->language), std::make_tuple("K1", "v1", "zh"));
    EXPECT_EQ(std::tie(hit->sampleRate, hit->durationMs), std::make_tuple(22050, line(600).durationMs));
    EXPECT_FLOAT_EQ(hit->speed, 1.25f);
    EXPECT_EQ(cache.readAudio("K2").value_or(Bytes{}).size(), 500u);
    EXPECT_TRUE(cache.contains("K2"));
    EXPECT_FALSE(cache.contains("K3"));

    const CacheStats s = cache.stats();
    EXPECT_EQ(std::tie(s.count, s.bytes), std::make_tuple(2, 1100));
    EXPECT_EQ(std::tie(s.hits, s.misses), std::make_tuple(1, 1));  // readAudio and contains do not count

    cache.setEnabled(false);
    EXPECT_FALSE(cache.tryGet("K1"));
    EXPECT_FALSE(cache.contains("K1"));
    cache.put("K3", line(300), "ignored");
    cache.setEnabled(true);
    EXPECT_FALSE(cache.contains("K3"));
    EXPECT_FALSE(fs::exists(dir.path() + "K3.wav"));
    cache.put("K4", TtsResult{}, "no audio");
    EXPECT_FALSE(cache.contains("K4"));

    cache.remove("K2");
    EXPECT_FALSE(cache.contains("K2"));
    EXPECT_FALSE(fs::exists(dir.path() + "K2.wav"));
    EXPECT_EQ(cache.stats().bytes, 600);
    cache.put("K5", line(200), "deleted by hand while the service is down");
  }
  // The index held back by throttling is written on the way out. It is
  // trusted at first; the directory check then drops the line whose clip went.
  fs::remove(dir.path() + "K5.wav");
  AppLog::clear();
  WavCache reopened(dir.path());
  EXPECT_FALSE(reopened.lookup("K5", true));
  reopened.flush();
  EXPECT_EQ(std::make_tuple(reopened.stats().count, reopened.stats().bytes), std::make_tuple(1, 600));
  EXPECT_EQ(logged(LogLevel::info, "cache loaded"), "cache loaded: 1 entries / 0.0 MB from " + dir.path());
  const auto again = reopened.tryGet("K1");
  ASSERT_TRUE(again);
  EXPECT_EQ(again->voiceId, "v1");
  EXPECT_FLOAT_EQ(again->speed, 1.25f);
}

TEST(WavCacheTest, EvictsLeastRecentlyUsedWithinTheBudget) {
  for (const bool touchA : {false, true}) {
    TempDir dir;
    WavCache cache(dir.path(), 1000);
    cache.put("A", line(400), "a");
    cache.put("B", line(400), "b");
    if (touchA) {
      EXPECT_TRUE(cache.tryGet("A"));
    }
    cache.put("C", line(400), "c");
    const std::string evicted = touchA ? "B" : "A";
    EXPECT_FALSE(cache.contains(evicted));
    EXPECT_FALSE(fs::exists(dir.path() + evicted + ".wav"));
    EXPECT_TRUE(cache.contains(touchA ? "A" : "B"));
    EXPECT_TRUE(cache.contains("C"));
    EXPECT_EQ(std::make_tuple(cache.stats().evictions, cache.stats().bytes), std::make_tuple(1, 800));
  }
  // Without a budget nothing is evicted; a negative one means none.
  TempDir dir;
  WavCache cache(dir.path(), 0);
  for (unsigned i = 0; i < 12; ++i) cache.put(keyOf(i), line(2000), "t");
  EXPECT_EQ(std::make_tuple(cache.stats().count, cache.stats().evictions), std::make_tuple(12, 0));
  EXPECT_EQ(WavCache(dir.path() + "neg", -5).stats().budgetBytes, 0);
}

TEST(WavCacheTest, RecoversFromTheBackupThenFromOrphans) {
  TempDir dir;
  const std::string index = dir.path() + "index.json";
  const std::string backup = dir.path() + "index.json.bak";
  {
    WavCache cache(dir.path());
    cache.put("A", line(300), "a");
    cache.saveIndex(true);  // the backup now knows A
    cache.put("B", line(300), "b");
  }
  EXPECT_EQ(entriesIn(index), 2u);
  EXPECT_EQ(entriesIn(backup), 1u);

  AppLog::clear();
  fs::remove(index);
  {
    WavCache cache(dir.path());
    cache.flush();  // the directory check that adopts
    EXPECT_EQ(logged(LogLevel::warn, "main"), "main cache index was unusable, recovered from the backup");
    EXPECT_EQ(logged(LogLevel::info, "adopted"), "adopted 1 cached clip(s) that the index did not know about");
    EXPECT_EQ(cache.tryGet("A")->voiceId, "v1");
    const auto b = cache.tryGet("B");  // adopted: audio and header facts, no texts
    ASSERT_TRUE(b);
    EXPECT_EQ(std::tie(b->voiceId, b->sampleRate, b->durationMs), std::make_tuple("", 22050, line(300).durationMs));
    EXPECT_EQ(b->wav.size(), 300u);
  }

  AppLog::clear();
  fs::remove(index);
  fs::remove(backup);
  WavCache cache(dir.path());
  cache.flush();
  EXPECT_EQ(logged(LogLevel::info, "adopted"), "adopted 2 cached clip(s) that the index did not know about");
  EXPECT_EQ(logged(LogLevel::info, "cache loaded"), "cache loaded: 2 entries / 0.0 MB from " + dir.path());
  EXPECT_EQ(cache.tryGet("A")->voiceId, "");
}

TEST(WavCacheTest, DamagedIndexFallsBackAndNeverLeavesTheDirectory) {
  const std::vector<std::pair<std::string, std::string>> damaged = {
      {"truncated", ""},  // filled in from a real index below
      {"not JSON", "this is not json"},
      {"array", "[1, 2, 3]"},
      {"wrong types", R"({"K1": 5, "K2": {"file": 7}, "K3": {"file": ["a.wav"]}, "K4": null})"},
      {"escaping names", R"({"P1": {"file": "../victim.wav", "bytes": 300},
                             "P2": {"file": "sub/inner.wav", "bytes": 300},
                             "P3": {"file": "/victim.wav"}, "P4": {"file": ".."},
                             "P5": {"file": "index.json"}, "P6": {"file": "index.json.bak"}})"},
  };
  for (const auto& [what, text] : damaged) {
    SCOPED_TRACE(what);
    TempDir root;
    const std::string dir = root.path() + "cache/";
    const std::string victim = root.path() + "victim.wav";
    const std::string inner = dir + "sub/inner.wav";
    ASSERT_FALSE(writeFileAtomic(victim, line(300).wav));
    ASSERT_FALSE(writeFileAtomic(inner, line(300).wav));
    {
      WavCache cache(dir);
      cache.put("A", line(300), "a");
      cache.saveIndex(true);
    }
    const auto good = readFile(dir + "index.json");
    ASSERT_TRUE(good);
    test::writeTextFile(dir + "index.json",
                        what == "truncated" ? std::string(good->begin(), good->begin() + good->size() / 2) : text);
    AppLog::clear();
    {
      WavCache cache(dir, 1);
      EXPECT_EQ(logged(LogLevel::warn, "main"), "main cache index was unusable, recovered from the backup");
      const auto a = cache.tryGet("A");
      ASSERT_TRUE(a);
      EXPECT_EQ(a->voiceId, "v1");
      for (const char* key : {"P1", "P2", "P3", "P4", "P5", "P6"}) {
        EXPECT_FALSE(cache.tryGet(key));
        cache.remove(key);
      }
      cache.put("B", line(300), "b");  // a budget of 1 byte evicts everything
      EXPECT_EQ(cache.stats().count, 0);
      cache.clear();
    }
    EXPECT_EQ(readFile(victim), line(300).wav);
    EXPECT_EQ(readFile(inner), line(300).wav);
    EXPECT_EQ(entriesIn(dir + "index.json"), 0u);
  }
}

TEST(WavCacheTest, IndexReaderIsLenientAboutTypesAndStrictAboutNames) {
  const std::string text = R"({
    "A": {"file": "a.wav", "voice": 12, "text": null, "speed": "1.5", "sampleRate": 22050.7,
          "durationMs": "1200", "bytes": "600"},
    "B": {"file": "b.wav", "speed": 1e300, "bytes": 1e30},
    "C": {"file": "c.wav", "speed": -3, "bytes": -20, "language": true},
    "D": {"file": "d.wa"}, "E": {"file": ".wav"}, "F": {"file": "x/../e.wav"}, "G": {"file": "g\u0000.wav"}})";
  const auto entries = parseCacheIndex(test::bytesOf(text));
  ASSERT_TRUE(entries);
  ASSERT_EQ(entries->size(), 3u);
  const CacheEntry& a = (*entries)[0].second;
  EXPECT_EQ(std::tie((*entries)[0].first, a.voiceId, a.text), std::make_tuple("A", "12", ""));
  EXPECT_EQ(std::tie(a.sampleRate, a.durationMs, a.bytes), std::make_tuple(22050, 1200, 600));
  EXPECT_FLOAT_EQ(a.speed, 1.5f);
  const CacheEntry& b = (*entries)[1].second;  // huge sizes saturate to what a WAV can hold
  EXPECT_FLOAT_EQ(b.speed, KELVO::speedMax);
  EXPECT_EQ(b.bytes, (std::int64_t{1} << 32) + 8);
  const CacheEntry& c = (*entries)[2].second;
  EXPECT_FLOAT_EQ(c.speed, 1.0f);
  EXPECT_EQ(std::tie(c.bytes, c.language), std::make_tuple(0, "1"));

  for (const std::string bad : {"", "{", "[]", "\"text\"", "{} {}", "{\"a\": 1,}"}) {
    EXPECT_FALSE(parseCacheIndex(test::bytesOf(bad))) << bad;
  }
}

// A hit hands out the clip opened under the index lock: whatever happens to
// the file afterwards, the handle reads the whole line it was opened on. A clip
// deleted or cut short behind the cache's back is a miss, never half a line.
TEST(WavCacheTest, HitsStayWholeAndDamagedClipsAreDropped) {
  TempDir dir;
  WavCache cache(dir.path());
  for (const char* key : {"A", "B", "C", "D"}) cache.put(key, line(400), key);
  cache.put("E", line(600), "e");
  // Hit first, so that each clip is one the cache keeps open: a kept handle
  // must not outlive the damage below.
  for (const char* key : {"A", "B", "C", "D", "E"}) ASSERT_TRUE(cache.lookup(key, true)) << key;
  AppLog::clear();

  fs::remove(dir.path() + "A.wav");
  EXPECT_FALSE(cache.tryGet("A"));
  EXPECT_EQ(logged(LogLevel::warn, "cannot read cache file (A"), "cannot read cache file (A.wav), dropping the entry");
  EXPECT_FALSE(cache.contains("A"));

  fs::resize_file(dir.path() + "B.wav", 100);
  EXPECT_FALSE(cache.readAudio("B"));
  EXPECT_EQ(logged(LogLevel::warn, "cannot read cache file (B"), "cannot read cache file (B.wav), dropping the entry");
  EXPECT_FALSE(fs::exists(dir.path() + "B.wav"));  // a torn clip must not come back as an orphan

  fs::resize_file(dir.path() + "C.wav", 399);
  EXPECT_FALSE(cache.lookup("C", true));
  EXPECT_FALSE(fs::exists(dir.path() + "C.wav"));

  // Without the file, a lookup is the index alone: the facts, nothing opened.
  fs::remove(dir.path() + "D.wav");
  const auto facts = cache.lookup("D", false);
  ASSERT_TRUE(facts);
  EXPECT_FALSE(facts->file);
  EXPECT_EQ(std::tie(facts->result.etag, facts->result.voiceId, facts->result.durationMs),
            std::make_tuple("D", "v1", line(400).durationMs));
  EXPECT_FALSE(cache.lookup("D", true));

  auto held = cache.lookup("E", true);
  ASSERT_TRUE(held && held->file);
  EXPECT_TRUE(held->result.wav.empty());
  cache.clear();
  cache.put("E", line(800), "e, stored anew");
  EXPECT_EQ(held->file->readAll(), line(600).wav);
  const CacheStats s = cache.stats();
  EXPECT_EQ(std::make_tuple(s.count, s.bytes, s.hits, s.misses), std::make_tuple(1, 800, 7, 3));
}

// A line handed to the writer thread is a hit at once, and stays one.
TEST(WavCacheTest, BackgroundStoresAreHitsFromTheFirstMoment) {
  TempDir dir;
  {
    WavCache cache(dir.path());
    cache.putLater("A", line(600), "a");
    const auto hit = cache.tryGet("A");  // from memory or from disk, whichever it is by now
    ASSERT_TRUE(hit);
    EXPECT_EQ(hit->wav, line(600).wav);
    EXPECT_EQ(hit->voiceId, "v1");
    cache.putLater("B", line(500), "b");
    cache.remove("B");  // before, during or after its write: gone either way
    cache.putLater("C", line(500), "c");
    cache.clear();
    cache.flush();
    for (const char* gone : {"A", "B", "C"}) {
      EXPECT_FALSE(cache.contains(gone)) << gone;
      EXPECT_FALSE(fs::exists(dir.path() + gone + ".wav")) << gone;
    }
    cache.putLater("D", line(300), "d");
    cache.flush();
    cache.putLater("D", line(700), "the same key again");  // already on disk: not written twice
    cache.flush();
    EXPECT_EQ(readFile(dir.path() + "D.wav"), line(300).wav);
    cache.putLater("E", line(300), "e");
  }  // the destructor finishes the write and indexes it
  WavCache reopened(dir.path());
  EXPECT_EQ(reopened.stats().count, 2);
  EXPECT_EQ(reopened.readAudio("E"), line(300).wav);
}

// Encoded forms stored beside a line count in the size, come back after a
// restart, and go with the line: evicted, cleared, or dropped when damaged.
TEST(WavCacheTest, VariantsLiveAndDieWithTheirLine) {
  TempDir dir;
  const Bytes mp3(300, 0xAB);
  {
    WavCache cache(dir.path(), 2000);
    cache.putLater("A", line(600), "a");
    cache.putVariant("A", "A.mp3", mp3);  // waits for the line's own write
    cache.putVariant("A", "A.opus", Bytes(200, 0xCD));
    for (const auto& [key, name] : {std::pair{"ghost", "ghost.mp3"}, {"A", "../A.mp3"}, {"A", "A.wav"}}) {
      cache.putVariant(key, name, mp3);  // no line, not a plain name, not an encoded form: nothing stored
    }
    EXPECT_FALSE(fs::exists(dir.path() + "ghost.mp3"));
    EXPECT_EQ(cache.stats().bytes, 1100);
    const auto hit = cache.lookupVariant("A", "A.mp3");
    ASSERT_TRUE(hit);
    EXPECT_EQ(hit->file->readAll(), mp3);
    EXPECT_EQ(hit->result.voiceId, "v1");
    EXPECT_FALSE(cache.lookupVariant("A", "A.flac"));
  }
  fs::remove(dir.path() + "A.opus");
  WavCache cache(dir.path(), 2000);
  cache.flush();
  EXPECT_EQ(cache.stats().bytes, 900);  // the variant whose file went is forgotten
  EXPECT_TRUE(cache.hasVariant("A", "A.mp3"));
  EXPECT_FALSE(cache.hasVariant("A", "A.opus"));
  ASSERT_FALSE(writeFileAtomic(dir.path() + "A.mp3", Bytes(10, 0)));
  EXPECT_FALSE(cache.lookupVariant("A", "A.mp3"));  // damaged: dropped, the line stays
  EXPECT_EQ(std::make_tuple(cache.contains("A"), cache.hasVariant("A", "A.mp3"), cache.stats().bytes),
            std::make_tuple(true, false, 600));
  cache.putVariant("A", "A.mp3", mp3);
  cache.put("B", line(600), "b");
  cache.put("C", line(600), "c");  // 2100 bytes with A's variant: A, the least recent, goes whole
  EXPECT_FALSE(cache.contains("A"));
  EXPECT_FALSE(fs::exists(dir.path() + "A.mp3"));
  EXPECT_EQ(cache.stats().bytes, 1200);
  cache.putVariant("B", "B.flac", Bytes(500, 1));
  cache.clear();
  EXPECT_FALSE(fs::exists(dir.path() + "B.flac"));
}

// Whatever the budget, the file system keeps min(1 GiB, 5 %) free: the least
// recently used lines go first, and a line that would not fit even then is not kept.
TEST(WavCacheTest, KeepsTheDiskFloorFreeWhateverTheBudget) {
  struct Case {
    const char* what;
    std::uint64_t total;
    std::uint64_t floor;
    std::int64_t budget;
  };
  const Case cases[] = {{"large disk, no budget", 500ull << 30, 1ull << 30, 0},
                        {"small disk, 5 %", 10ull << 30, 512ull << 20, 0},
                        {"budget far above the room", 500ull << 30, 1ull << 30, 1 << 20}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir dir;
    // 1500 bytes above the floor before the cache writes; its clips use up the rest.
    const auto query = [&c, &dir](const std::string&) -> std::optional<DiskSpace> {
      std::uint64_t used = 0;
      for (const auto& f : fs::directory_iterator(dir.path())) {
        if (f.path().extension() == ".wav") used += f.file_size();
      }
      return DiskSpace{c.floor + 1500 - used, c.total};
    };
    AppLog::clear();
    WavCache cache(dir.path(), c.budget, DiskFloor(query));
    cache.put("A", line(600), "a");
    cache.put("B", line(600), "b");
    EXPECT_EQ(cache.stats().evictions, 0);
    EXPECT_TRUE(cache.tryGet("A"));  // B is now the least recently used
    cache.put("C", line(600), "c");
    EXPECT_EQ(std::make_tuple(cache.contains("A"), cache.contains("B"), cache.contains("C")),
              std::make_tuple(true, false, true));
    EXPECT_GE(query(dir.path())->available, c.floor);

    cache.put("D", line(2000), "d");  // more than the whole room: kept out, and nothing evicted for it
    EXPECT_FALSE(cache.contains("D"));
    EXPECT_FALSE(fs::exists(dir.path() + "D.wav"));
    EXPECT_EQ(cache.stats().count, 2);
    EXPECT_TRUE(logged(LogLevel::warn, "not caching D.wav: the disk is nearly full"));
  }
  // A file system that cannot be asked leaves the budget alone in charge.
  TempDir dir;
  WavCache blind(dir.path(), 0, DiskFloor([](const std::string&) { return std::optional<DiskSpace>(); }));
  for (unsigned i = 0; i < 5; ++i) blind.put(keyOf(i), line(2000), "t");
  EXPECT_EQ(blind.stats().count, 5);
}

TEST(WavCacheTest, ThrottlesIndexWritesAndClears) {
  TempDir dir;
  WavCache cache(dir.path());
  const auto start = std::chrono::steady_clock::now();
  constexpr unsigned kPuts = 60;
  for (unsigned i = 0; i < kPuts; ++i) cache.put(keyOf(i), line(100), "t");
  const auto elapsedMs =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
  const std::int64_t writes = cache.stats().indexWrites;
  EXPECT_GE(writes, 1);
  EXPECT_LE(writes, 1 + elapsedMs / 2000);

  cache.saveIndex(true);
  EXPECT_EQ(cache.stats().indexWrites, writes + 1);
  EXPECT_EQ(entriesIn(dir.path() + "index.json"), std::size_t{kPuts});
  cache.saveIndex(false);  // nothing changed since
  EXPECT_EQ(cache.stats().indexWrites, writes + 1);

  test::writeTextFile(dir.path() + "stray.wav", "not even a wav");
  test::writeTextFile(dir.path() + "notes.txt", "kept");
  AppLog::clear();
  cache.clear();
  EXPECT_EQ(logged(LogLevel::info, "cache c"), "cache cleared");
  EXPECT_EQ(std::make_tuple(cache.stats().count, cache.stats().bytes), std::make_tuple(0, 0));
  EXPECT_EQ(entriesIn(dir.path() + "index.json"), 0u);
  EXPECT_FALSE(fs::exists(dir.path() + "stray.wav"));
  EXPECT_TRUE(fs::exists(dir.path() + "notes.txt"));
}

// Folders where files should go make every write fail, for root as well.
TEST(WavCacheTest, WriteFailuresAreLoggedAndTheCacheCarriesOn) {
  TempDir dir;
  fs::create_directories(dir.path() + "index.json");
  fs::create_directories(dir.path() + "BLOCKED.wav");
  AppLog::clear();
  WavCache cache(dir.path());
  cache.put("BLOCKED", line(300), "t");
  EXPECT_FALSE(cache.contains("BLOCKED"));
  EXPECT_TRUE(logged(LogLevel::warn, "cannot write cache to " + dir.path() + "BLOCKED.wav: "));

  cache.put("K", line(300), "t");
  EXPECT_TRUE(logged(LogLevel::warn, "cannot write cache index: "));
  EXPECT_EQ(cache.stats().indexWrites, 0);
  ASSERT_TRUE(cache.tryGet("K"));  // served from memory and its file all the same
  EXPECT_TRUE(fs::is_directory(dir.path() + "index.json"));
}

// A crash in the middle of an index write must leave a whole index behind: the
// child writes in a loop and is killed at random moments.
TEST(WavCacheTest, IndexOnDiskSurvivesKillsDuringWrites) {
  TempDir dir;
  constexpr unsigned kEntries = 40;
  WavCache cache(dir.path());
  for (unsigned i = 0; i < kEntries; ++i) cache.put(keyOf(i), line(100), "t");
  cache.saveIndex(true);
  cache.saveIndex(true);  // the backup holds every entry too

  std::mt19937 rng(20240611);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  int rounds = 0;
  while (std::chrono::steady_clock::now() < deadline && rounds < 100) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      // No gtest in here: write, and leave without running atexit handlers.
      for (int i = 0; i < 100000; ++i) cache.saveIndex(true);
      _exit(0);
    }
    ::usleep(std::uniform_int_distribution<useconds_t>(0, 15000)(rng));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_EQ(entriesIn(dir.path() + "index.json"), std::size_t{kEntries}) << "round " << rounds;
    ASSERT_EQ(entriesIn(dir.path() + "index.json.bak"), std::size_t{kEntries}) << "round " << rounds;
    ++rounds;
  }
  EXPECT_GE(rounds, 10);
  EXPECT_EQ(WavCache(dir.path()).stats().count, static_cast<std::int64_t>(kEntries));
}

TEST(WavCacheTest, ManyThreadsShareOneCache) {
  TempDir dir;
  constexpr std::int64_t kSize = 300;
  constexpr int kThreads = 4;
  constexpr int kOps = 120;
  std::atomic<std::int64_t> lookups{0};
  {
    WavCache cache(dir.path(), 8 * kSize);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&cache, &lookups, t] {
        std::mt19937 rng(static_cast<unsigned>(t));
        for (int i = 0; i < kOps; ++i) {
          const std::string key = keyOf(rng() % 16);
          switch (rng() % 6) {
            case 0: cache.put(key, line(kSize), "t"); break;
            case 1: cache.remove(key); break;
            case 2: cache.readAudio(key); break;
            case 3: EXPECT_LE(cache.stats().bytes, 8 * kSize); break;
            default: {
              ++lookups;
              const auto hit = cache.tryGet(key);
              if (hit) {
                EXPECT_EQ(hit->wav.size(), static_cast<std::size_t>(kSize));
              }
            }
          }
        }
      });
    }
    for (auto& th : threads) th.join();
    const CacheStats s = cache.stats();
    EXPECT_EQ(s.hits + s.misses, lookups.load());
    EXPECT_EQ(s.bytes, s.count * kSize);
    EXPECT_LE(s.bytes, s.budgetBytes);
  }
  EXPECT_TRUE(entriesIn(dir.path() + "index.json"));
}

}  // namespace
}  // namespace kelvo
