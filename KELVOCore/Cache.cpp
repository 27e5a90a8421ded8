#include "KELVOCore/Cache.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <future>

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

// Calls `visit` with the name of every regular file directly inside `dir`
// whose name passes `wanted`. Links and folders are left out, so no entry can
// lead outside the directory. readdir rather than std::filesystem: at 100,000
// files a path object per name is a visible part of the start.
template <typename Visit>
void forEachFile(const std::string& dir, bool (*wanted)(std::string_view), Visit&& visit) {
  DIR* folder = ::opendir(dir.c_str());
  if (folder == nullptr) return;
  while (const dirent* e = ::readdir(folder)) {
    const std::string_view name = e->d_name;
    if (!wanted(name)) continue;
    bool regular = e->d_type == DT_REG;
    if (e->d_type == DT_UNKNOWN) {  // file systems that do not say; ask without following links
      struct stat st {};
      regular = ::fstatat(::dirfd(folder), e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode);
    }
    if (regular) visit(name);
  }
  ::closedir(folder);
}

// True when the file is gone, whether deleted now or never there.
bool deleteFile(const std::string& path) { return ::unlink(path.c_str()) == 0 || errno == ENOENT; }

// What an entry takes on disk: its WAV and every variant.
std::int64_t footprint(const CacheEntry& e) {
  std::int64_t total = e.bytes;
  for (const auto& [name, size] : e.variants) total += size;
  return total;
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
  const simdjson::padded_string text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  std::vector<std::pair<std::string, CacheEntry>> entries;
  const bool parsed = readIndex(
      text, [&entries](std::size_t count) { entries.reserve(count); },
      [&entries](std::string_view key, CacheEntry&& entry) { entries.emplace_back(key, std::move(entry)); });
  if (!parsed) return std::nullopt;
  return entries;
}

// ---- WavCache -----------------------------------------------------------------

WavCache::WavCache(std::string dir, std::int64_t budgetBytes)
    : dir_(KELVOPaths::withSlash(std::move(dir))), budget_(std::max<std::int64_t>(budgetBytes, 0)) {
  std::error_code ignored;
  fs::create_directories(dir_, ignored);
  // Listing a large directory is mostly kernel time and needs nothing from the
  // index, so it runs while the index is parsed. (Without a spare thread the
  // default policy runs it on first use instead.) Sorted like the index's keys,
  // the lookups then meet the entries in the order they were allocated in.
  const Listing listing = std::async([dir = dir_] {
                            std::vector<std::string> names;
                            forEachFile(dir, isPlainWavName, [&names](std::string_view name) { names.emplace_back(name); });
                            std::sort(names.begin(), names.end());
                            return names;
                          }).share();
  const std::string index = dir_ + std::string(kIndexName);
  std::vector<std::string> orphans;
  if (!loadIndex(index, listing, orphans)) {
    if (loadIndex(dir_ + std::string(kBackupName), listing, orphans)) {
      AppLog::warn(kSource, "main cache index was unusable, recovered from the backup");
      // Otherwise the next save would make the damaged file the backup.
      deleteFile(index);
    } else {
      orphans = listing.get();
    }
  }
  adoptOrphans(orphans);
  AppLog::info(kSource, formatText("cache loaded: %zu entries / %.1f MB from %s", items_.size(),
                                   static_cast<double>(bytes_) / 1048576.0, dir_));
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
bool WavCache::loadIndex(const std::string& path, const Listing& listing, std::vector<std::string>& orphans) {
  std::error_code sizeError;
  const std::uintmax_t size = fs::file_size(path, sizeError);
  if (sizeError || size > kMaxIndexBytes) return false;
  // Read into simdjson's padded buffer rather than through readFile: the parser
  // then works in place instead of copying 30 MB first.
  simdjson::padded_string text;
  if (simdjson::padded_string::load(path).get(text) != simdjson::SUCCESS) return false;
  // Entries come in unclaimed (stamp 0); listing the directory once claims each
  // file for the entry that names it, so existence and "one entry per file" cost
  // one lookup per file. Files named after another key only come from edited
  // indexes and are looked up on the side.
  std::unordered_map<std::string, std::string> otherNames;  // file name -> key
  const bool parsed = readIndex(
      text, [this](std::size_t count) { items_.reserve(count); },
      [this, &otherNames](std::string_view key, CacheEntry&& entry) {
        const bool namedAfterKey =
            entry.fileName.size() == key.size() + kWavSuffix.size() && entry.fileName.starts_with(key);
        const auto [it, fresh] = items_.try_emplace(std::string(key), std::move(entry));
        if (fresh && !namedAfterKey) otherNames.try_emplace(it->second.fileName, it->first);
      });
  if (!parsed) {
    AppLog::warn(kSource, "cache index is not valid JSON: " + fs::path(path).filename().string());
    return false;
  }
  std::vector<std::string> unknown;
  std::size_t claimed = 0;
  for (const std::string& name : listing.get()) {
    auto it = items_.find(std::string_view(name).substr(0, name.size() - kWavSuffix.size()));
    if ((it == items_.end() || it->second.fileName != name) && !otherNames.empty()) {
      const auto other = otherNames.find(name);
      it = other == otherNames.end() ? items_.end() : items_.find(other->second);
    }
    if (it == items_.end() || it->second.fileName != name) {
      unknown.push_back(name);
      continue;
    }
    it->second.stamp = ++clock_;
    // Variants are few and optional: one whose file is gone is simply forgotten.
    std::erase_if(it->second.variants, [this](const auto& variant) {
      std::error_code ec;
      return static_cast<std::int64_t>(fs::file_size(dir_ + variant.first, ec)) != variant.second || ec;
    });
    bytes_ += footprint(it->second);
    ++claimed;
  }
  if (claimed == 0) {
    items_.clear();
    return false;
  }
  if (claimed < items_.size()) std::erase_if(items_, [](const auto& item) { return item.second.stamp == 0; });
  orphans = std::move(unknown);
  return true;
}

void WavCache::adoptOrphans(const std::vector<std::string>& orphans) {
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

namespace {

TtsResult hitFrom(const std::string& key, CacheEntry& entry, Bytes audio) {
  TtsResult result;
  result.wav = std::move(audio);
  result.sampleRate = entry.sampleRate;
  result.durationMs = entry.durationMs;
  result.voiceId = std::move(entry.voiceId);
  result.language = std::move(entry.language);
  result.speed = entry.speed;
  result.etag = key;
  result.fromCache = true;
  return result;
}

}  // namespace

std::optional<TtsResult> WavCache::tryGet(const std::string& key) {
  auto found = fetch(key, true);
  if (!found) return std::nullopt;
  return hitFrom(key, found->first, std::move(found->second));
}

std::optional<TtsResult> WavCache::tryGetVariant(const std::string& key, const std::string& name) {
  if (!enabled_) return std::nullopt;
  CacheEntry entry;
  std::int64_t size = 0;
  {
    std::lock_guard guard(lock_);
    const auto it = items_.find(key);
    if (it == items_.end()) return std::nullopt;
    const auto variant = it->second.variants.find(name);
    if (variant == it->second.variants.end()) return std::nullopt;
    size = variant->second;
    it->second.stamp = ++clock_;
    ++hits_;
    entry = it->second;
  }
  auto audio = readFile(dir_ + name);
  if (audio && static_cast<std::int64_t>(audio->size()) == size) return hitFrom(key, entry, std::move(*audio));
  {
    // The line itself is still good; only this form is encoded again.
    std::lock_guard guard(lock_);
    const auto it = items_.find(key);
    if (it != items_.end() && it->second.variants.erase(name) > 0) {
      bytes_ -= size;
      dirty_ = true;
    }
  }
  AppLog::warn(kSource, "cannot read cached variant (" + name + "), encoding it again");
  return std::nullopt;
}

void WavCache::putVariant(const std::string& key, const std::string& name, std::span<const std::uint8_t> bytes) {
  if (!enabled_ || !isPlainVariantName(name) || !contains(key)) return;
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
    std::int64_t& size = it->second.variants[name];
    bytes_ += static_cast<std::int64_t>(bytes.size()) - size;
    size = static_cast<std::int64_t>(bytes.size());
    dirty_ = true;
    evictLocked();
  }
  saveIndex(false);
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

void WavCache::setEnabled(bool enabled) { enabled_ = enabled; }

bool WavCache::isEnabled() const { return enabled_; }

void WavCache::insertLocked(const std::string& key, CacheEntry entry) {
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
  bytes_ -= footprint(it->second);
  deleteFile(dir_ + it->second.fileName);
  for (const auto& [name, size] : it->second.variants) deleteFile(dir_ + name);
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
