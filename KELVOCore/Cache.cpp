#include "KELVOCore/Cache.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <tuple>

#include <pthread.h>
#include <simdjson.h>

#include "KELVOCore/Files.h"
#include "KELVOCore/Json.h"
#include "KELVOCore/Log.h"
#include "KELVOCore/StringMemo.h"
#include "KELVOCore/Wav.h"

namespace kelvo {

namespace {

namespace fs = std::filesystem;
namespace sj = simdjson::dom;

constexpr std::string_view kSource = "cache";
constexpr std::string_view kIndexName = "index.json";
constexpr std::string_view kBackupName = "index.json.bak";
constexpr std::string_view kWavSuffix = ".wav";
constexpr auto kSaveInterval = std::chrono::milliseconds(2000);
// A RIFF file cannot be larger; a bigger "bytes" in the index is damage.
constexpr std::int64_t kMaxWavBytes = (std::int64_t{1} << 32) + 8;
// Far above any real index (100,000 lines take about 30 MB); a bigger file is
// damage, and reading it whole would only cost memory.
constexpr std::uintmax_t kMaxIndexBytes = std::uintmax_t{512} << 20;
// Digests remembered per thread: a day's announcement set, lines of up to 2 KB.
constexpr std::size_t kKeyMemoEntries = 256;
constexpr std::size_t kKeyMemoTextBytes = 2048;

// A name that stays inside the cache directory and belongs to the cache: no
// separator, no NUL, ends in ".wav" (so never "..", nor one of the index files).
bool isPlainWavName(std::string_view name) {
  return name.size() > kWavSuffix.size() && name.ends_with(kWavSuffix) && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

// The same for an encoded variant of a line: its extension names the format.
bool isPlainVariantName(std::string_view name) {
  if (name.find('/') != std::string_view::npos || name.find('\0') != std::string_view::npos) return false;
  for (const std::string_view suffix : {".mp3", ".opus", ".flac", ".pcm"}) {
    if (name.size() > suffix.size() && name.ends_with(suffix)) return true;
  }
  return false;
}

// True when the file is gone, whether deleted now or never there.
bool deleteFile(const std::string& path) { return ::unlink(path.c_str()) == 0 || errno == ENOENT; }

// What an entry takes on disk: its WAV and every variant.
std::int64_t footprint(const CacheEntry& e) {
  std::int64_t total = e.bytes;
  for (const auto& [name, size] : e.variants) total += size;
  return total;
}

// The facts of a hit as the index knows them.
void describe(const CacheEntry& entry, TtsResult& result) {
  result.sampleRate = entry.sampleRate;
  result.durationMs = entry.durationMs;
  result.voiceId = entry.voiceId;
  result.language = entry.language;
  result.speed = entry.speed;
}

// ---- Index reading ----------------------------------------------------------
// The index is parsed with simdjson: nlohmann needs about a second for 100,000
// entries, which would hold up the start of the service. Members with the types
// the cache writes are read directly; anything else goes through the shared
// lenient readers, so a hand-edited index reads like every other JSON file.

// The member as a one-member nlohmann object; arrays and objects read as null,
// which the lenient readers treat like a missing member.
Json looseMember(std::string_view key, sj::element el) {
  Json value;
  switch (el.type()) {
    case sj::element_type::STRING: value = std::string(el.get_string().value_unsafe()); break;
    case sj::element_type::INT64: value = el.get_int64().value_unsafe(); break;
    case sj::element_type::UINT64: value = el.get_uint64().value_unsafe(); break;
    case sj::element_type::DOUBLE: value = el.get_double().value_unsafe(); break;
    case sj::element_type::BOOL: value = el.get_bool().value_unsafe(); break;
    default: break;
  }
  Json obj = Json::object();
  obj[std::string(key)] = std::move(value);
  return obj;
}

std::string textValue(std::string_view key, sj::element el) {
  std::string_view text;
  if (el.get_string().get(text) == simdjson::SUCCESS) return std::string(text);
  return jStr(looseMember(key, el), key);
}

std::int64_t intValue(std::string_view key, sj::element el) {
  std::int64_t value = 0;
  if (el.get_int64().get(value) == simdjson::SUCCESS) return value;
  return jInt(looseMember(key, el), key, 0);
}

double floatValue(std::string_view key, sj::element el, double def) {
  double value = 0;
  if (el.get_double().get(value) == simdjson::SUCCESS) return value;
  return jFloat(looseMember(key, el), key, def);
}

// One member of the index. Each field is looked at once, in file order; as with
// the lenient readers, a repeated field counts with its last value.
std::optional<CacheEntry> entryFrom(sj::object fields) {
  CacheEntry e;
  double speed = 1.0;
  for (const auto field : fields) {
    const std::string_view name = field.key;
    if (name == "file") {
      e.fileName = textValue(name, field.value);
    } else if (name == "voice") {
      e.voiceId = textValue(name, field.value);
    } else if (name == "text") {
      e.text = textValue(name, field.value);
    } else if (name == "language") {
      e.language = textValue(name, field.value);
    } else if (name == "speed") {
      speed = floatValue(name, field.value, 1.0);
    } else if (name == "sampleRate") {
      e.sampleRate = intValue(name, field.value);
    } else if (name == "durationMs") {
      e.durationMs = intValue(name, field.value);
    } else if (name == "bytes") {
      e.bytes = std::clamp<std::int64_t>(intValue(name, field.value), 0, kMaxWavBytes);
    } else if (name == "variants") {
      sj::object variants;
      if (field.value.get_object().get(variants) != simdjson::SUCCESS) continue;
      for (const auto variant : variants) {
        const std::int64_t size = std::clamp<std::int64_t>(intValue(variant.key, variant.value), 0, kMaxWavBytes);
        if (isPlainVariantName(variant.key)) e.variants[std::string(variant.key)] = size;
      }
    }
  }
  if (!isPlainWavName(e.fileName)) return std::nullopt;
  // Bounded first: a double beyond the float range cannot be converted.
  e.speed = clampSpeed(static_cast<float>(std::clamp(speed, -1.0, 4.0)));
  return e;
}

// Hands every usable member of the index in `text` to `take`, in file order,
// after telling `reserve` how many members there are. False unless `text` is
// one JSON object. `text` carries simdjson's padding, so it is parsed in place.
template <typename Reserve, typename Take>
bool readIndex(simdjson::padded_string_view text, Reserve&& reserve, Take&& take) {
  sj::parser parser;
  sj::object root;
  if (parser.parse(text).get_object().get(root) != simdjson::SUCCESS) return false;
  reserve(root.size());
  for (const auto member : root) {
    sj::object fields;
    if (member.value.get_object().get(fields) != simdjson::SUCCESS) continue;
    if (auto entry = entryFrom(fields)) take(member.key, std::move(*entry));
  }
  return true;
}

// ---- Index writing ----------------------------------------------------------

// Compact: only the cache reads this file, and every byte costs at start.
Bytes indexBytes(const std::vector<std::pair<std::string, CacheEntry>>& entries) {
  Json root = Json::object();
  for (const auto& [key, e] : entries) {
    root[key] = {{"file", e.fileName},     {"voice", e.voiceId},
                 {"text", e.text},         {"language", e.language},
                 {"speed", jsonNumber(e.speed, 3)}, {"sampleRate", e.sampleRate},
                 {"durationMs", e.durationMs},      {"bytes", e.bytes}};
    if (!e.variants.empty()) root[key]["variants"] = e.variants;
  }
  return jsonData(root, false);
}

// Makes the current index the backup without a moment in which no whole backup
// exists: a hard link renamed over the old backup, no bytes copied. File systems
// without hard links (a portable install on a FAT stick) get an atomic copy.
void keepBackup(const std::string& index, const std::string& backup) {
  const std::string link = backup + ".link";
  ::unlink(link.c_str());
  if (::link(index.c_str(), link.c_str()) == 0) {
    if (::rename(link.c_str(), backup.c_str()) == 0) return;
    ::unlink(link.c_str());
  } else if (errno == ENOENT) {
    return;  // no index yet, nothing to keep
  }
  if (auto bytes = readFile(index)) writeFileAtomic(backup, *bytes);
}

}  // namespace

std::string makeCacheKey(const TtsRequest& request, const VoiceInfo& voice, std::string_view engineTag,
                         std::int64_t sampleRate, bool speedApplied) {
  // Joined in one buffer the thread keeps: this runs on every request, cached
  // or not. to_chars rather than printf: the key must not change with the C locale.
  thread_local std::string joined;
  joined.clear();
  char number[32];
  const auto put = [&](std::string_view part) {
    joined += part;
    joined += '|';
  };
  const auto putInt = [&](std::int64_t value) {
    put(std::string_view(number, std::to_chars(number, number + sizeof number, value).ptr));
  };
  put(engineTag);
  put(voice.id);
  put(voice.profileFile);
  put(voice.style);
  putInt(voice.seed);
  put(std::string_view(number, std::to_chars(number, number + sizeof number, static_cast<double>(request.speed),
                                              std::chars_format::fixed, 3).ptr));
  put(speedApplied ? "True" : "False");
  putInt(sampleRate);
  putInt(request.seed);
  put(request.style);
  request.appendEffectiveText(joined);
  // The same line asked for again hashes the same text: remember the digest
  // (about half of this function's time on a cache hit).
  thread_local StringMemo<std::string> digests(kKeyMemoEntries, kKeyMemoTextBytes);
  return digests.get(joined, [] { return sha256Utf8(joined); });
}

std::optional<std::vector<std::pair<std::string, CacheEntry>>> parseCacheIndex(std::span<const std::uint8_t> bytes) {
  const simdjson::padded_string text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  std::vector<std::pair<std::string, CacheEntry>> entries;
  const bool parsed = readIndex(
      text, [&entries](std::size_t count) { entries.reserve(count); },
      [&entries](std::string_view key, CacheEntry&& entry) { entries.emplace_back(key, std::move(entry)); });
  if (!parsed) return std::nullopt;
  return entries;
}

// ---- WavCache -----------------------------------------------------------------

std::int64_t DiskFloor::deficit(const std::string& dir, std::int64_t incoming) const {
  const std::optional<DiskSpace> space = query_ ? query_(dir) : std::nullopt;
  if (!space) return 0;
  const auto floor = static_cast<std::int64_t>(std::min(maxFloorBytes, space->total / 100 * floorPercent));
  const auto available = static_cast<std::int64_t>(std::min<std::uint64_t>(space->available, INT64_MAX / 2));
  return std::max<std::int64_t>(0, floor + incoming - available);
}

WavCache::WavCache(std::string dir, std::int64_t budgetBytes, DiskFloor floor)
    : dir_(KELVOPaths::withSlash(std::move(dir))), budget_(std::max<std::int64_t>(budgetBytes, 0)),
      floor_(std::move(floor)) {
  std::error_code ignored;
  fs::create_directories(dir_, ignored);
  // Only the index is read here; the directory is compared with it by the
  // writer thread (checkDirectory), so the service answers before a large
  // cache has been listed. Until then every hit still checks its own file.
  const std::string index = dir_ + std::string(kIndexName);
  if (!loadIndex(index) && loadIndex(dir_ + std::string(kBackupName))) {
    AppLog::warn(kSource, "main cache index was unusable, recovered from the backup");
    // Otherwise the next save would make the damaged file the backup.
    deleteFile(index);
  }
  writesInFlight_ = 1;  // the check, so that flush() waits for it
  writer_ = std::thread([this] {
    pthread_setname_np(pthread_self(), "KELVO cache io");
    checkDirectory();
    writerLoop();
  });
}

WavCache::~WavCache() {
  {
    std::lock_guard guard(lock_);
    stopping_ = true;
  }
  writeWake_.notify_all();
  writer_.join();
  bool dirty = false;
  {
    std::lock_guard guard(lock_);
    dirty = dirty_;
  }
  if (dirty) saveIndex(true);
}

// Usable means: one JSON object with at least one well-formed entry. An index
// whose every member is damaged is as good as none, and the backup may still
// know the texts. (An empty index after a clear tries the backup too, but that
// one only names the files the clear deleted, which the check then drops.)
bool WavCache::loadIndex(const std::string& path) {
  std::error_code sizeError;
  const std::uintmax_t size = fs::file_size(path, sizeError);
  if (sizeError || size > kMaxIndexBytes) return false;
  // Read into simdjson's padded buffer rather than through readFile: the parser
  // then works in place instead of copying 30 MB first.
  simdjson::padded_string text;
  if (simdjson::padded_string::load(path).get(text) != simdjson::SUCCESS) return false;
  const bool parsed = readIndex(
      text, [this](std::size_t count) { items_.reserve(count); },
      [this](std::string_view key, CacheEntry&& entry) {
        const auto [it, fresh] = items_.try_emplace(std::string(key), std::move(entry));
        if (!fresh) return;
        it->second.stamp = ++clock_;
        bytes_ += footprint(it->second);
      });
  if (!parsed) AppLog::warn(kSource, "cache index is not valid JSON: " + fs::path(path).filename().string());
  if (items_.empty()) {
    bytes_ = 0;
    return false;
  }
  return true;
}

void WavCache::checkDirectory() {
  // Sorted, so orphans get their stamps in name order, not in readdir's.
  std::vector<std::string> listed;
  forEachFile(dir_, isPlainWavName, [&listed](std::string_view name) { listed.emplace_back(name); });
  std::sort(listed.begin(), listed.end());
  const auto isListed = [&listed](const std::string& name) {
    return std::binary_search(listed.begin(), listed.end(), name);
  };

  // Entries whose file is not listed get a second look, under the lock: a line
  // stored meanwhile was written before it was indexed, so the file being
  // there tells a new entry from a lost one. Variants are looked at without
  // the lock; one re-encoded meanwhile would only be encoded once more.
  std::vector<std::pair<std::string, std::string>> unlisted;  // key, file name
  std::vector<std::tuple<std::string, std::string, std::int64_t>> variants;  // key, name, size
  std::vector<std::string> orphans;
  std::size_t dropped = 0;
  {
    std::lock_guard guard(lock_);
    std::unordered_map<std::string_view, std::string_view> owners;  // file name -> key
    owners.reserve(items_.size());
    for (auto it = items_.begin(); it != items_.end();) {
      const auto [owner, first] = owners.try_emplace(it->second.fileName, it->first);
      if (!first) {  // two entries of an edited index name one file: the file stays with one
        bytes_ -= footprint(it->second);
        it = items_.erase(it);
        dirty_ = true;
        ++dropped;
        continue;
      }
      if (!isListed(it->second.fileName)) unlisted.emplace_back(it->first, it->second.fileName);
      for (const auto& [name, size] : it->second.variants) variants.emplace_back(it->first, name, size);
      ++it;
    }
    for (const std::string& name : listed) {
      if (!owners.contains(name)) orphans.push_back(name);
    }
  }
  for (const auto& [key, fileName] : unlisted) {
    std::lock_guard guard(lock_);
    const auto it = items_.find(key);
    if (it == items_.end() || it->second.fileName != fileName || ::access((dir_ + fileName).c_str(), F_OK) == 0) continue;
    eraseLocked(it);
    ++dropped;
  }
  // Variants are few and optional: one whose file is gone is simply forgotten.
  for (const auto& [key, name, size] : variants) {
    std::error_code ec;
    if (static_cast<std::int64_t>(fs::file_size(dir_ + name, ec)) == size && !ec) continue;
    std::lock_guard guard(lock_);
    const auto it = items_.find(key);
    if (it == items_.end()) continue;
    const auto variant = it->second.variants.find(name);
    if (variant == it->second.variants.end() || variant->second != size) continue;
    bytes_ -= size;
    it->second.variants.erase(variant);
    dirty_ = true;
  }
  adoptOrphans(orphans);
  std::size_t entries = 0;
  std::int64_t bytes = 0;
  {
    std::lock_guard guard(lock_);
    entries = items_.size();
    bytes = bytes_;
  }
  // Logged without the lock (the log may write to a terminal while hits
  // wait), and before flush() lets go: the report is part of the check.
  AppLog::info(kSource, formatText("cache loaded: %zu entries / %.1f MB from %s", entries,
                                   static_cast<double>(bytes) / 1048576.0, dir_));
  if (dropped > 0) {
    AppLog::info(kSource, "dropped " + std::to_string(dropped) +
                              " cache entries without a clip of their own (gone, or named by another entry)");
  }
  {
    std::lock_guard guard(lock_);
    --writesInFlight_;
  }
  writeDone_.notify_all();
  saveIndex(false);
}

// A file that shows up during the check may be a line being stored right now;
// whichever comes second simply replaces the other under the same name.
void WavCache::adoptOrphans(const std::vector<std::string>& orphans) {
  std::size_t adopted = 0;
  for (const auto& name : orphans) {
    const std::string key = name.substr(0, name.size() - kWavSuffix.size());
    const auto header = readWavHeader(dir_ + name);
    if (!header) continue;
    CacheEntry entry;
    entry.fileName = name;
    entry.sampleRate = header->sampleRate;
    entry.durationMs = header->durationMs;
    entry.bytes = header->totalBytes;
    std::lock_guard guard(lock_);
    if (stopping_) break;
    if (items_.contains(key) || pending_.contains(key)) continue;
    insertLocked(key, std::move(entry));
    dirty_ = true;
    ++adopted;
  }
  if (adopted == 0) return;
  AppLog::info(kSource, "adopted " + std::to_string(adopted) + " cached clip(s) that the index did not know about");
}

std::optional<TtsResult> WavCache::tryGet(const std::string& key) {
  auto hit = find(key, true, true);
  if (!hit) return std::nullopt;
  if (hit->file) {
    auto wav = hit->file->readAll();
    if (!wav) return std::nullopt;  // shrank after it was opened: only a hand can do that
    hit->result.wav = std::move(*wav);
  }
  return std::move(hit->result);
}

std::optional<CacheHit> WavCache::lookup(const std::string& key, bool openFile) { return find(key, true, openFile); }

std::optional<Bytes> WavCache::readAudio(const std::string& key) {
  auto hit = find(key, false, true);
  if (!hit) return std::nullopt;
  if (!hit->file) return std::move(hit->result.wav);
  return hit->file->readAll();
}

std::optional<CacheHit> WavCache::find(const std::string& key, bool countUse, bool openFile) {
  if (!enabled_) return std::nullopt;
  CacheHit hit;
  std::string damaged;
  std::shared_ptr<const Pending> waiting;
  {
    std::lock_guard guard(lock_);
    const auto pending = pending_.empty() ? pending_.end() : pending_.find(key);
    const auto it = pending != pending_.end() ? items_.end() : items_.find(key);
    if (pending != pending_.end()) {
      waiting = pending->second;
    } else if (it == items_.end()) {
      if (countUse) ++misses_;
      return std::nullopt;
    } else if (openFile) {
      hit.file = openClipLocked(key, it->second);
      if (!hit.file) {
        damaged = it->second.fileName;
        eraseLocked(it);
        if (countUse) ++misses_;
      }
    }
    if (damaged.empty()) {
      if (countUse) ++hits_;
      if (!waiting) {
        if (countUse) it->second.stamp = ++clock_;
        describe(it->second, hit.result);
      }
    }
  }
  if (!damaged.empty()) {
    AppLog::warn(kSource, "cannot read cache file (" + damaged + "), dropping the entry");
    return std::nullopt;
  }
  // A line still on its way to the disk is copied without the lock: it is half a megabyte.
  if (waiting) hit.result = waiting->result;
  hit.result.etag = key;
  hit.result.fromCache = true;
  return hit;
}

std::optional<CacheHit> WavCache::lookupVariant(const std::string& key, const std::string& name) {
  if (!enabled_) return std::nullopt;
  CacheHit hit;
  {
    std::lock_guard guard(lock_);
    const auto it = items_.find(key);
    if (it == items_.end()) return std::nullopt;
    const auto variant = it->second.variants.find(name);
    if (variant == it->second.variants.end()) return std::nullopt;
    // Opened under the lock for the same reason as the clip itself (find).
    std::optional<OpenFile> file = OpenFile::open(dir_ + name);
    if (file && static_cast<std::int64_t>(file->size()) == variant->second) {
      hit.file = std::make_shared<const OpenFile>(std::move(*file));
      it->second.stamp = ++clock_;
      ++hits_;
      describe(it->second, hit.result);
    } else {
      // The line itself is still good; only this form is encoded again.
      bytes_ -= variant->second;
      it->second.variants.erase(variant);
      dirty_ = true;
    }
  }
  if (!hit.file) {
    AppLog::warn(kSource, "cannot read cached variant (" + name + "), encoding it again");
    return std::nullopt;
  }
  hit.result.etag = key;
  hit.result.fromCache = true;
  return hit;
}

void WavCache::putVariant(const std::string& key, const std::string& name, std::span<const std::uint8_t> bytes) {
  if (!enabled_ || !isPlainVariantName(name)) return;
  {
    std::unique_lock guard(lock_);
    // A fresh line is still with the writer thread; its variants follow it.
    writeDone_.wait(guard, [&] { return !pending_.contains(key); });
    if (!items_.contains(key)) return;
  }
  const auto size = static_cast<std::int64_t>(bytes.size());
  // A variant never pushes out lines for the free-space floor: it is only a convenience.
  if (floor_.deficit(dir_, size) > 0) return;
  const std::string path = dir_ + name;
  if (const auto ec = writeFileAtomic(path, bytes)) {
    AppLog::warn(kSource, "cannot write cache to " + path + ": " + ec.message());
    return;
  }
  {
    std::lock_guard guard(lock_);
    const auto it = items_.find(key);
    // Evicted or cleared while the file was written: it must not stay behind.
    if (it == items_.end()) {
      deleteFile(path);
      return;
    }
    std::int64_t& stored = it->second.variants[name];
    bytes_ += size - stored;
    stored = size;
    dirty_ = true;
    evictLocked(0);
  }
  saveIndex(false);
}

bool WavCache::hasVariant(const std::string& key, const std::string& name) const {
  if (!enabled_) return false;
  std::lock_guard guard(lock_);
  const auto it = items_.find(key);
  return it != items_.end() && it->second.variants.contains(name);
}

bool WavCache::contains(const std::string& key) const {
  if (!enabled_) return false;
  std::lock_guard guard(lock_);
  return items_.contains(key) || pending_.contains(key);
}

void WavCache::put(const std::string& key, const TtsResult& result, const std::string& text) {
  store(key, result, text, nullptr);
}

void WavCache::putLater(const std::string& key, TtsResult result, std::string text) {
  if (!enabled_ || result.wav.empty() || !isPlainWavName(key + std::string(kWavSuffix))) return;
  const auto size = static_cast<std::int64_t>(result.wav.size());
  {
    std::lock_guard guard(lock_);
    if (!stopping_ && pendingBytes_ + size <= maxPendingBytes) {
      auto& slot = pending_[key];
      if (slot) pendingBytes_ -= static_cast<std::int64_t>(slot->result.wav.size());
      slot = std::make_shared<const Pending>(Pending{std::move(result), std::move(text)});
      pendingBytes_ += size;
      writeOrder_.push_back(key);
      ++writesInFlight_;
      writeWake_.notify_one();
      return;
    }
  }
  // The disk is far behind: this caller waits for its own write.
  store(key, result, text, nullptr);
}

void WavCache::flush() {
  std::unique_lock guard(lock_);
  writeDone_.wait(guard, [this] { return writesInFlight_ == 0; });
}

void WavCache::writerLoop() {
  std::unique_lock guard(lock_);
  for (;;) {
    writeWake_.wait(guard, [this] { return stopping_ || !writeOrder_.empty(); });
    if (writeOrder_.empty()) return;  // stopping, and everything written
    const std::string key = std::move(writeOrder_.front());
    writeOrder_.pop_front();
    const auto it = pending_.find(key);
    // Gone (removed, cleared) or already written by an earlier turn of the same key.
    if (it != pending_.end()) {
      const std::shared_ptr<const Pending> line = it->second;
      if (items_.contains(key)) {
        pendingBytes_ -= static_cast<std::int64_t>(line->result.wav.size());
        pending_.erase(it);
      } else {
        guard.unlock();
        store(key, line->result, line->text, line);
        guard.lock();
      }
    }
    --writesInFlight_;
    writeDone_.notify_all();
  }
}

void WavCache::store(const std::string& key, const TtsResult& result, const std::string& text,
                     const std::shared_ptr<const Pending>& pending) {
  CacheEntry entry;
  entry.fileName = key + std::string(kWavSuffix);
  const auto forget = [&] {
    if (!pending) return;
    std::lock_guard guard(lock_);
    const auto it = pending_.find(key);
    if (it == pending_.end() || it->second != pending) return;
    pendingBytes_ -= static_cast<std::int64_t>(pending->result.wav.size());
    pending_.erase(it);
  };
  if (!enabled_ || result.wav.empty() || !isPlainWavName(entry.fileName)) return forget();
  entry.bytes = static_cast<std::int64_t>(result.wav.size());
  // Room first: the floor holds whatever the budget, and a line that would
  // break it even with every other line gone is not kept.
  std::int64_t deficit = floor_.deficit(dir_, entry.bytes);
  if (deficit > 0) {
    {
      std::lock_guard guard(lock_);
      // Emptying the cache would not make room: keep what is there.
      if (deficit <= bytes_) evictLocked(deficit);
    }
    saveIndex(false);
    deficit = floor_.deficit(dir_, entry.bytes);
    if (deficit > 0) {
      AppLog::warn(kSource, "not caching " + entry.fileName + ": the disk is nearly full (" +
                                std::to_string(deficit) + " bytes short of the free-space floor)");
      return forget();
    }
  }
  const std::string path = dir_ + entry.fileName;
  if (const auto ec = writeFileAtomic(path, result.wav)) {
    AppLog::warn(kSource, "cannot write cache to " + path + ": " + ec.message());
    return forget();
  }
  entry.voiceId = result.voiceId;
  entry.text = text;
  entry.language = result.language;
  entry.speed = result.speed;
  entry.sampleRate = result.sampleRate;
  entry.durationMs = result.durationMs;
  {
    std::lock_guard guard(lock_);
    if (pending) {
      const auto it = pending_.find(key);
      if (it == pending_.end() || it->second != pending) {
        // Removed or cleared while it was being written.
        deleteFile(path);
        return;
      }
      pendingBytes_ -= entry.bytes;
      pending_.erase(it);
    }
    insertLocked(key, std::move(entry));
    dirty_ = true;
    evictLocked(0);
  }
  saveIndex(false);
}

void WavCache::remove(const std::string& key) {
  {
    std::lock_guard guard(lock_);
    if (const auto waiting = pending_.find(key); waiting != pending_.end()) {
      pendingBytes_ -= static_cast<std::int64_t>(waiting->second->result.wav.size());
      pending_.erase(waiting);
    }
    const auto it = items_.find(key);
    if (it == items_.end()) return;
    eraseLocked(it);
  }
  saveIndex(false);
}

void WavCache::clear() {
  // Files first: a line stored meanwhile at worst leaves a file that comes back
  // as an orphan, never an entry without its file.
  std::vector<std::string> names;
  const auto collect = [&names](std::string_view name) { names.emplace_back(name); };
  forEachFile(dir_, isPlainWavName, collect);
  forEachFile(dir_, isPlainVariantName, collect);
  std::size_t failed = 0;
  for (const auto& name : names) {
    if (!deleteFile(dir_ + name)) ++failed;
  }
  {
    std::lock_guard guard(lock_);
    items_.clear();
    openClips_.clear();
    openOrder_.clear();
    pending_.clear();
    pendingBytes_ = 0;
    bytes_ = 0;
    dirty_ = true;
  }
  saveIndex(true);
  if (failed == 0) {
    AppLog::info(kSource, "cache cleared");
  } else {
    AppLog::warn(kSource, "cache cleared, but " + std::to_string(failed) +
                              " file(s) could not be deleted; they will reappear on the next start");
  }
}

CacheStats WavCache::stats() const {
  std::lock_guard guard(lock_);
  return {static_cast<std::int64_t>(items_.size()), bytes_, budget_, hits_, misses_, evictions_, indexWrites_};
}

void WavCache::saveIndex(bool force) {
  {
    std::lock_guard guard(lock_);
    const auto now = std::chrono::steady_clock::now();
    if (!force && (!dirty_ || (lastSave_ && now - *lastSave_ < kSaveInterval))) return;
    // Claimed before waiting for ioLock_, so a burst of stores never queues
    // behind a write in progress.
    lastSave_ = now;
  }
  std::lock_guard io(ioLock_);
  std::vector<std::pair<std::string, CacheEntry>> snapshot;
  {
    // Taken under ioLock_, so writes reach the disk in snapshot order.
    std::lock_guard guard(lock_);
    snapshot.assign(items_.begin(), items_.end());
    dirty_ = false;
  }
  const Bytes data = indexBytes(snapshot);
  const std::string index = dir_ + std::string(kIndexName);
  keepBackup(index, dir_ + std::string(kBackupName));
  const auto ec = writeFileAtomic(index, data);
  {
    std::lock_guard guard(lock_);
    if (ec) {
      dirty_ = true;
    } else {
      ++indexWrites_;
    }
  }
  if (ec) AppLog::warn(kSource, "cannot write cache index: " + ec.message());
}

void WavCache::setEnabled(bool enabled) {
  // Called on every request: a store only on a change keeps the line shared between the cores.
  if (enabled_.load(std::memory_order_relaxed) != enabled) enabled_ = enabled;
}

bool WavCache::isEnabled() const { return enabled_; }

std::shared_ptr<const OpenFile> WavCache::openClipLocked(const std::string& key, const CacheEntry& entry) {
  const auto kept = openClips_.find(key);
  if (kept != openClips_.end()) {
    if (kept->second->unchanged()) return kept->second;
    openClips_.erase(kept);  // deleted or rewritten behind our back: the path decides
  }
  // Opened under the lock: eviction unlinks under it too, so the handle is
  // always the clip this entry describes, and stays readable after an unlink.
  std::optional<OpenFile> opened = OpenFile::open(dir_ + entry.fileName);
  if (!opened || static_cast<std::int64_t>(opened->size()) != entry.bytes) return nullptr;
  auto clip = std::make_shared<const OpenFile>(std::move(*opened));
  openClips_.emplace(key, clip);
  openOrder_.push_back(key);
  // The order may name a key twice or one already dropped: closing a clip
  // early only costs its next hit an open().
  while (openOrder_.size() > kOpenClips) {
    openClips_.erase(openOrder_.front());
    openOrder_.pop_front();
  }
  return clip;
}

void WavCache::insertLocked(const std::string& key, CacheEntry entry) {
  openClips_.erase(key);  // a replaced line's clip is the old audio
  entry.stamp = ++clock_;
  bytes_ += footprint(entry);
  const auto [it, inserted] = items_.try_emplace(key);
  // A replaced line's file was just overwritten under the same name: only its
  // bytes go; its encoded forms were made from the old audio and go entirely.
  if (!inserted) {
    bytes_ -= footprint(it->second);
    for (const auto& [name, size] : it->second.variants) {
      if (!entry.variants.contains(name)) deleteFile(dir_ + name);
    }
  }
  it->second = std::move(entry);
}

void WavCache::eraseLocked(Items::iterator it) {
  openClips_.erase(it->first);
  bytes_ -= footprint(it->second);
  deleteFile(dir_ + it->second.fileName);
  for (const auto& [name, size] : it->second.variants) deleteFile(dir_ + name);
  items_.erase(it);
  dirty_ = true;
}

void WavCache::evictLocked(std::int64_t diskDeficit) {
  const auto overBudget = [this] { return budget_ >= 1 && bytes_ > budget_; };
  if (!overBudget() && diskDeficit <= 0) return;
  std::vector<std::pair<std::int64_t, const std::string*>> order;
  order.reserve(items_.size());
  for (const auto& [key, entry] : items_) order.emplace_back(entry.stamp, &key);
  // A heap yields the least recently used entries one by one without sorting
  // the many that stay.
  const auto moreRecent = [](const auto& a, const auto& b) { return a.first > b.first; };
  std::make_heap(order.begin(), order.end(), moreRecent);
  while ((overBudget() || diskDeficit > 0) && !order.empty()) {
    std::pop_heap(order.begin(), order.end(), moreRecent);
    const auto it = items_.find(*order.back().second);
    order.pop_back();
    diskDeficit -= it->second.bytes;
    eraseLocked(it);
    ++evictions_;
  }
}

}  // namespace kelvo
