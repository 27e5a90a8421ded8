#include "KELVOCore/Cache.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>

#include <simdjson.h>

#include "KELVOCore/Files.h"
#include "KELVOCore/Json.h"
#include "KELVOCore/Log.h"
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

// A name that stays inside the cache directory and belongs to the cache: no
// separator, no NUL, ends in ".wav" (so never "..", nor one of the index files).
bool isPlainWavName(std::string_view name) {
  return name.size() > kWavSuffix.size() && name.ends_with(kWavSuffix) &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

// Regular files with a plain ".wav" name directly inside `dir`. Links and
// folders are left out, so no entry can lead outside the directory.
std::unordered_set<std::string> listWavFiles(const std::string& dir) {
  std::unordered_set<std::string> names;
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code typeError;
    if (it->symlink_status(typeError).type() != fs::file_type::regular) continue;
    std::string name = it->path().filename().string();
    if (isPlainWavName(name)) names.insert(std::move(name));
  }
  return names;
}

void deleteFile(const std::string& path) {
  std::error_code ignored;
  fs::remove(path, ignored);
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

std::string textMember(sj::object fields, std::string_view key) {
  sj::element el;
  if (fields.at_key(key).get(el) != simdjson::SUCCESS) return {};
  std::string_view text;
  if (el.get_string().get(text) == simdjson::SUCCESS) return std::string(text);
  return jStr(looseMember(key, el), key);
}

std::int64_t intMember(sj::object fields, std::string_view key) {
  sj::element el;
  if (fields.at_key(key).get(el) != simdjson::SUCCESS) return 0;
  std::int64_t value = 0;
  if (el.get_int64().get(value) == simdjson::SUCCESS) return value;
  return jInt(looseMember(key, el), key, 0);
}

double floatMember(sj::object fields, std::string_view key, double def) {
  sj::element el;
  if (fields.at_key(key).get(el) != simdjson::SUCCESS) return def;
  double value = 0;
  if (el.get_double().get(value) == simdjson::SUCCESS) return value;
  return jFloat(looseMember(key, el), key, def);
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
  }
  if (auto bytes = readFile(index)) writeFileAtomic(backup, *bytes);
}

std::string withSlash(std::string dir) {
  if (!dir.ends_with('/')) dir += '/';
  return dir;
}

}  // namespace

std::string makeCacheKey(const TtsRequest& request, const VoiceInfo& voice, std::string_view engineTag,
                         std::int64_t sampleRate, bool speedApplied) {
  // to_chars rather than printf: the key must not change with the C locale.
  char speed[32];
  const auto speedEnd =
      std::to_chars(speed, speed + sizeof speed, static_cast<double>(request.speed), std::chars_format::fixed, 3).ptr;
  const std::string parts[] = {std::string(engineTag),
                               voice.id,
                               voice.profileFile,
                               voice.style,
                               std::to_string(voice.seed),
                               std::string(speed, speedEnd),
                               speedApplied ? "True" : "False",
                               std::to_string(sampleRate),
                               std::to_string(request.seed),
                               request.style,
                               request.effectiveText()};
  std::string joined = parts[0];
  for (std::size_t i = 1; i < std::size(parts); ++i) joined += "|" + parts[i];
  return sha256Utf8(joined);
}

std::optional<std::vector<std::pair<std::string, CacheEntry>>> parseCacheIndex(std::span<const std::uint8_t> bytes) {
  sj::parser parser;
  sj::object root;
  if (parser.parse(bytes.data(), bytes.size()).get_object().get(root) != simdjson::SUCCESS) return std::nullopt;
  std::vector<std::pair<std::string, CacheEntry>> entries;
  entries.reserve(root.size());
  for (const auto member : root) {
    sj::object fields;
    if (member.value.get_object().get(fields) != simdjson::SUCCESS) continue;
    CacheEntry e;
    e.fileName = textMember(fields, "file");
    if (!isPlainWavName(e.fileName)) continue;
    e.voiceId = textMember(fields, "voice");
    e.text = textMember(fields, "text");
    e.language = textMember(fields, "language");
    // Bounded first: a double beyond the float range cannot be converted.
    e.speed = clampSpeed(static_cast<float>(std::clamp(floatMember(fields, "speed", 1.0), -1.0, 4.0)));
    e.sampleRate = intMember(fields, "sampleRate");
    e.durationMs = intMember(fields, "durationMs");
    e.bytes = std::clamp<std::int64_t>(intMember(fields, "bytes"), 0, kMaxWavBytes);
    entries.emplace_back(std::string(member.key), std::move(e));
  }
  return entries;
}

// ---- WavCache -----------------------------------------------------------------

WavCache::WavCache(std::string dir, std::int64_t budgetBytes)
    : dir_(withSlash(std::move(dir))), budget_(std::max<std::int64_t>(budgetBytes, 0)) {
  std::error_code ignored;
  fs::create_directories(dir_, ignored);
  const FileNames wavFiles = listWavFiles(dir_);
  const std::string index = dir_ + std::string(kIndexName);
  if (!loadIndex(index, wavFiles) && loadIndex(dir_ + std::string(kBackupName), wavFiles)) {
    AppLog::warn(kSource, "main cache index was unusable, recovered from the backup");
    // Otherwise the next save would make the damaged file the backup.
    deleteFile(index);
  }
  adoptOrphans(wavFiles);
  char line[64];
  std::snprintf(line, sizeof line, "cache loaded: %zu entries / %.1f MB from ", items_.size(),
                static_cast<double>(bytes_) / 1048576.0);
  AppLog::info(kSource, line + dir_);
}

WavCache::~WavCache() {
  bool dirty = false;
  {
    std::lock_guard guard(lock_);
    dirty = dirty_;
  }
  if (dirty) saveIndex(true);
}

// Usable means: one JSON object with at least one entry whose file is here. An
// index whose every member is damaged is as good as none, and the backup may
// still know the texts. (An empty index after a clear tries the backup too, but
// that one only names the files the clear deleted.)
bool WavCache::loadIndex(const std::string& path, const FileNames& wavFiles) {
  std::error_code sizeError;
  const std::uintmax_t size = fs::file_size(path, sizeError);
  if (sizeError || size > kMaxIndexBytes) return false;
  const auto bytes = readFile(path);
  if (!bytes) return false;
  auto entries = parseCacheIndex(*bytes);
  if (!entries) {
    AppLog::warn(kSource, "cache index is not valid JSON: " + fs::path(path).filename().string());
    return false;
  }
  FileNames used;
  for (auto& [key, entry] : *entries) {
    // First claim wins: two keys sharing a file would delete it under each other.
    if (!wavFiles.contains(entry.fileName) || items_.contains(key) || !used.insert(entry.fileName).second) continue;
    insertLocked(key, std::move(entry));
  }
  return !items_.empty();
}

void WavCache::adoptOrphans(const FileNames& wavFiles) {
  FileNames known;
  for (const auto& [key, entry] : items_) known.insert(entry.fileName);
  std::vector<std::string> orphans;
  for (const auto& name : wavFiles) {
    if (!known.contains(name)) orphans.push_back(name);
  }
  // Sorted, so stamps (and with them eviction order) do not depend on readdir.
  std::sort(orphans.begin(), orphans.end());
  std::size_t adopted = 0;
  for (const auto& name : orphans) {
    const std::string key = name.substr(0, name.size() - kWavSuffix.size());
    if (items_.contains(key)) continue;
    const auto header = readWavHeader(dir_ + name);
    if (!header) continue;
    CacheEntry entry;
    entry.fileName = name;
    entry.sampleRate = header->sampleRate;
    entry.durationMs = header->durationMs;
    entry.bytes = header->totalBytes;
    insertLocked(key, std::move(entry));
    ++adopted;
  }
  if (adopted == 0) return;
  dirty_ = true;
  AppLog::info(kSource, "adopted " + std::to_string(adopted) + " cached clip(s) that the index did not know about");
}

std::optional<TtsResult> WavCache::tryGet(const std::string& key) {
  auto found = fetch(key, true);
  if (!found) return std::nullopt;
  auto& [entry, wav] = *found;
  TtsResult result;
  result.wav = std::move(wav);
  result.sampleRate = entry.sampleRate;
  result.durationMs = entry.durationMs;
  result.voiceId = std::move(entry.voiceId);
  result.language = std::move(entry.language);
  result.speed = entry.speed;
  result.etag = key;
  result.fromCache = true;
  return result;
}

std::optional<Bytes> WavCache::readAudio(const std::string& key) {
  auto found = fetch(key, false);
  if (!found) return std::nullopt;
  return std::move(found->second);
}

std::optional<std::pair<CacheEntry, Bytes>> WavCache::fetch(const std::string& key, bool countUse) {
  if (!enabled_) return std::nullopt;
  CacheEntry entry;
  {
    std::lock_guard guard(lock_);
    const auto it = items_.find(key);
    if (it == items_.end()) {
      if (countUse) ++misses_;
      return std::nullopt;
    }
    if (countUse) {
      it->second.stamp = ++clock_;
      ++hits_;
    }
    entry = it->second;
  }
  // Read without the lock: other requests must not queue behind the disk.
  auto wav = readFile(dir_ + entry.fileName);
  if (!wav || static_cast<std::int64_t>(wav->size()) != entry.bytes) {
    drop(key, entry);
    return std::nullopt;
  }
  return std::pair{std::move(entry), std::move(*wav)};
}

void WavCache::drop(const std::string& key, const CacheEntry& seen) {
  {
    std::lock_guard guard(lock_);
    const auto it = items_.find(key);
    if (it == items_.end() || it->second.fileName != seen.fileName) return;
    // The read may have fallen between an eviction and a put of the same line:
    // keep the entry when its file is whole now.
    std::error_code ec;
    const auto size = fs::file_size(dir_ + seen.fileName, ec);
    if (!ec && static_cast<std::int64_t>(size) == it->second.bytes) return;
    eraseLocked(it);
  }
  AppLog::warn(kSource, "cannot read cache file (" + seen.fileName + "), dropping the entry");
}

bool WavCache::contains(const std::string& key) const {
  if (!enabled_) return false;
  std::lock_guard guard(lock_);
  return items_.contains(key);
}

void WavCache::put(const std::string& key, const TtsResult& result, const std::string& text) {
  CacheEntry entry;
  entry.fileName = key + std::string(kWavSuffix);
  if (!enabled_ || result.wav.empty() || !isPlainWavName(entry.fileName)) return;
  const std::string path = dir_ + entry.fileName;
  if (const auto ec = writeFileAtomic(path, result.wav)) {
    AppLog::warn(kSource, "cannot write cache to " + path + ": " + ec.message());
    return;
  }
  entry.voiceId = result.voiceId;
  entry.text = text;
  entry.language = result.language;
  entry.speed = result.speed;
  entry.sampleRate = result.sampleRate;
  entry.durationMs = result.durationMs;
  entry.bytes = static_cast<std::int64_t>(result.wav.size());
  {
    std::lock_guard guard(lock_);
    insertLocked(key, std::move(entry));
    dirty_ = true;
    evictLocked();
  }
  saveIndex(false);
}

void WavCache::remove(const std::string& key) {
  {
    std::lock_guard guard(lock_);
    const auto it = items_.find(key);
    if (it == items_.end()) return;
    eraseLocked(it);
  }
  saveIndex(false);
}

void WavCache::clear() {
  // Files first: a line stored meanwhile at worst leaves a file that comes back
  // as an orphan, never an entry without its file.
  std::size_t failed = 0;
  for (const auto& name : listWavFiles(dir_)) {
    std::error_code ec;
    fs::remove(dir_ + name, ec);
    if (ec) ++failed;
  }
  {
    std::lock_guard guard(lock_);
    items_.clear();
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
  if (fs::exists(index)) keepBackup(index, dir_ + std::string(kBackupName));
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

void WavCache::setEnabled(bool enabled) { enabled_ = enabled; }

bool WavCache::isEnabled() const { return enabled_; }

void WavCache::insertLocked(const std::string& key, CacheEntry entry) {
  entry.stamp = ++clock_;
  bytes_ += entry.bytes;
  const auto [it, inserted] = items_.try_emplace(key);
  // A replaced line's file was just overwritten under the same name: only its bytes go.
  if (!inserted) bytes_ -= it->second.bytes;
  it->second = std::move(entry);
}

void WavCache::eraseLocked(Items::iterator it) {
  bytes_ -= it->second.bytes;
  deleteFile(dir_ + it->second.fileName);
  items_.erase(it);
  dirty_ = true;
}

void WavCache::evictLocked() {
  if (budget_ < 1 || bytes_ <= budget_) return;
  std::vector<std::pair<std::int64_t, const std::string*>> order;
  order.reserve(items_.size());
  for (const auto& [key, entry] : items_) order.emplace_back(entry.stamp, &key);
  // A heap yields the least recently used entries one by one without sorting
  // the many that stay.
  const auto moreRecent = [](const auto& a, const auto& b) { return a.first > b.first; };
  std::make_heap(order.begin(), order.end(), moreRecent);
  while (bytes_ > budget_ && !order.empty()) {
    std::pop_heap(order.begin(), order.end(), moreRecent);
    const auto it = items_.find(*order.back().second);
    order.pop_back();
    eraseLocked(it);
    ++evictions_;
  }
}

}  // namespace kelvo
