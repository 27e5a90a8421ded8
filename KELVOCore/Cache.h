// WavCache: synthesised lines kept on disk, so that an announcement spoken once
// is served again without the engine (also while the model is unloaded). One
// WAV file per line in the cache directory plus a JSON index, "index.json",
// whose previous version is kept as "index.json.bak". The total size stays under
// a byte budget by dropping the least recently used lines, and whatever the
// budget, the file system keeps 1 GiB or 5 % of its size free (the smaller);
// WAV files the index does not know are adopted at start, so a lost index
// costs the texts of the lines, never their audio.
//
// A clip is checked when it enters the cache (written here, or its header read
// at adoption); a hit hands out what the index knows plus the clip opened while
// the index lock is held, so eviction or a clear afterwards cannot take the
// bytes away from a reply already on its way. Fresh lines can be stored in the
// background (`putLater`): until the file is written they are served from
// memory, so a repeat is a hit from the first moment.
//
// Thread-safe: any thread may call any method. One lock guards the in-memory
// index and the counters and is never held while an audio file is read or
// written or the index is serialised; a second lock only keeps two index writes
// apart. One writer thread stores the lines handed to `putLater`.
// Cost: a hit is a hash lookup plus open() and fstat(), or for one of the
// lines hit most recently, whose clips stay open, fstat() alone; reading its
// bytes is the caller's choice. A store is one atomic file write with fsync plus, at most
// once every 2 s, an index write of O(entries). Opening reads the index alone,
// O(entries); the writer thread then lists the directory, drops entries whose
// clip is gone and adopts unknown clips, O(entries + files), before its first
// store.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <thread>
#include <vector>

#include "KELVOCore/Files.h"
#include "KELVOCore/Paths.h"
#include "KELVOCore/Types.h"

namespace kelvo {

// The cache key of a request spoken by `voice`: SHA-256 (64 upper-case hex
// digits) of engine tag, the voice's id, profile file, style and seed, the
// request's speed ("%.3f"), "True"/"False" for `speedApplied`, `sampleRate`, the
// request's seed and style and its effective text, joined with "|". Airline,
// priority and gender are deliberately not part of it.
std::string makeCacheKey(const TtsRequest& request, const VoiceInfo& voice, std::string_view engineTag,
                         std::int64_t sampleRate, bool speedApplied);

// One cached line.
struct CacheEntry {
  std::string fileName;  // plain name inside the cache directory, ending in ".wav"
  std::string voiceId;
  std::string text;  // what was spoken; empty for adopted files
  std::string language;
  float speed = 1.0f;
  std::int64_t sampleRate = 0;
  std::int64_t durationMs = 0;
  std::int64_t bytes = 0;  // size of the WAV file
  std::int64_t stamp = 0;  // cache clock at the last use; larger is more recent; not stored
  // Encoded forms of the line stored beside the WAV, file name -> size. They
  // belong to the entry: counted in the cache's size, evicted, replaced and
  // removed with it.
  std::map<std::string, std::int64_t> variants;
};

struct CacheStats {
  std::int64_t count = 0;
  std::int64_t bytes = 0;
  std::int64_t budgetBytes = 0;  // 0: no limit
  std::int64_t hits = 0;
  std::int64_t misses = 0;
  std::int64_t evictions = 0;
  std::int64_t indexWrites = 0;  // index files written since start
};

// The entries of an index file's bytes, in file order, with stamp 0. Members
// that are not objects or whose "file" is not a plain ".wav" name are left out;
// other fields are read leniently. Absent unless the bytes are one JSON object.
std::optional<std::vector<std::pair<std::string, CacheEntry>>> parseCacheIndex(std::span<const std::uint8_t> bytes);

// A hit as the index knows it.
struct CacheHit {
  TtsResult result;  // `fromCache` set, `etag` = key; `wav` filled only for a line not yet on disk
  // The clip, when it was asked for and is on disk; exactly `bytes` long. The
  // handle may be shared with other hits of the line: read it by position only.
  std::shared_ptr<const OpenFile> file;
};

// How much room the cache has left before the free-space floor.
class DiskFloor {
 public:
  // Free and total bytes of the file system holding a path; absent when unknown.
  using Query = std::function<std::optional<DiskSpace>(const std::string&)>;
  static constexpr std::uint64_t maxFloorBytes = std::uint64_t{1} << 30;  // 1 GiB
  static constexpr std::uint64_t floorPercent = 5;

  explicit DiskFloor(Query query = diskSpace) : query_(std::move(query)) {}
  // Bytes that must be freed in `dir` so that writing `incoming` more still
  // leaves the floor free; 0 when the space cannot be asked.
  std::int64_t deficit(const std::string& dir, std::int64_t incoming) const;

 private:
  Query query_;
};

class WavCache {
 public:
  // Opens the cache in `dir` (created when missing): loads "index.json", or
  // "index.json.bak" when the main index is unusable; the check of the
  // directory against it (entries without a clip dropped, unknown WAV files
  // adopted, the size recounted) follows on the writer thread, see flush().
  // `budgetBytes` below 1 means no limit. Never fails: a cache whose files
  // cannot be read starts empty.
  // REQUIRES: `dir` is not empty (it would name the root directory).
  explicit WavCache(std::string dir = KELVOPaths::cacheDir(), std::int64_t budgetBytes = 0,
                    DiskFloor floor = DiskFloor());
  // Finishes the background stores, then writes the index once more when it
  // has changes that were held back.
  ~WavCache();
  WavCache(const WavCache&) = delete;
  WavCache& operator=(const WavCache&) = delete;

  // The cached line with `fromCache` set and `etag` = key, counting a hit and
  // marking it most recently used; absent (a miss) when unknown or disabled. An
  // entry whose file is gone or has the wrong size is dropped with a warning,
  // and a wrong-sized file is deleted.
  std::optional<TtsResult> tryGet(const std::string& key);
  // The same hit without reading the clip: with `openFile`, `file` holds it
  // (opened under the index lock, so it stays whole whatever happens to the
  // file afterwards; a clip deleted or cut short before the hit is a miss, as
  // above); without, nothing on disk is touched.
  std::optional<CacheHit> lookup(const std::string& key, bool openFile);
  // The entry's WAV bytes, without counting or touching its recency.
  std::optional<Bytes> readAudio(const std::string& key);
  // Whether `tryGet` would find an entry; no counter changes.
  bool contains(const std::string& key) const;

  // The entry's stored variant `name` (an encoded form, see putVariant) as a
  // hit like lookup's, with the variant's file open; absent, and nothing
  // counted, when the entry or the variant is not there. A variant file that
  // is gone or has the wrong size is dropped from the entry.
  std::optional<CacheHit> lookupVariant(const std::string& key, const std::string& name);
  // Whether lookupVariant would find the variant's entry; no counter changes.
  bool hasVariant(const std::string& key, const std::string& name) const;
  // Stores `bytes` as the file `name` beside the entry's WAV (once a line
  // handed to putLater is written) and counts it in the cache's size,
  // evicting down to the budget. Does nothing when disabled, when `key` has no
  // entry, when the disk is at its free-space floor, or for a name that is not
  // a plain file name with an encoded-audio extension (".mp3", ".opus",
  // ".flac", ".pcm").
  void putVariant(const std::string& key, const std::string& name, std::span<const std::uint8_t> bytes);

  // Stores `result.wav` as "<key>.wav" and indexes it with `text`, replacing an
  // older entry of the key, then evicts down to the budget. Does nothing when
  // disabled or the audio is empty; a failed write is logged and stores nothing.
  // REQUIRES: `key` is a file-name-safe string (as makeCacheKey gives).
  void put(const std::string& key, const TtsResult& result, const std::string& text);
  // The same on the writer thread; the line is a hit (served from memory) at
  // once. A line whose key is already stored by then is not written again.
  // While more than `maxPendingBytes` wait, stores synchronously instead.
  void putLater(const std::string& key, TtsResult result, std::string text);
  // Returns once the directory check that follows opening is done and every
  // line handed to putLater() before the call is stored (or failed).
  void flush();
  // Drops one entry and deletes its file.
  void remove(const std::string& key);
  // Deletes every WAV file and variant in the directory and empties the index.
  void clear();

  // What is on disk: lines still waiting for the writer thread are not counted yet.
  CacheStats stats() const;
  // Writes the index (keeping the previous one as the backup). Unless `force`,
  // only when there are unsaved changes and the last write is 2 s or more ago.
  void saveIndex(bool force);

  const std::string& directory() const { return dir_; }  // ends in "/"
  static constexpr std::int64_t maxPendingBytes = 32ll << 20;

  // A disabled cache neither serves nor stores; its content is kept.
  void setEnabled(bool enabled);
  bool isEnabled() const;

 private:
  // Keys are looked up by string_view too (file names without ".wav"). Not
  // noexcept on purpose: libstdc++ then keeps each hash in its node, so chain
  // walks and rehashes do not compare or rehash 64-digit keys.
  struct KeyHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
  };
  using Items = std::unordered_map<std::string, CacheEntry, KeyHash, std::equal_to<>>;

  // Takes the entries of one index file, in file order as their recency;
  // true when at least one was taken. REQUIRES: the constructor running.
  bool loadIndex(const std::string& path);
  // Compares the directory with the loaded index (see the constructor); runs
  // on the writer thread while the cache already serves.
  void checkDirectory();
  void adoptOrphans(const std::vector<std::string>& orphans);
  // A line waiting for the writer thread.
  struct Pending {
    TtsResult result;
    std::string text;
  };
  // What lookup() finds for `key`, counted when `countUse`; an entry whose file
  // is gone or has the wrong size is dropped (the file deleted) and missed.
  std::optional<CacheHit> find(const std::string& key, bool countUse, bool openFile);
  // Writes the clip and indexes it; `pending`, when given, must still be the
  // waiting line of `key` by then, or the store is undone.
  void store(const std::string& key, const TtsResult& result, const std::string& text,
             const std::shared_ptr<const Pending>& pending);
  void writerLoop();
  // The clip of `entry` for a hit: the one kept open while it is still named
  // and whole, else opened anew and kept; null when it is gone or has the
  // wrong size. REQUIRES: lock_ held.
  std::shared_ptr<const OpenFile> openClipLocked(const std::string& key, const CacheEntry& entry);
  // Adds or replaces `key` as the most recently used entry.
  // REQUIRES (this and the next two): lock_ held, or the constructor running.
  void insertLocked(const std::string& key, CacheEntry entry);
  void eraseLocked(Items::iterator it);
  // Down to the budget, and `diskDeficit` more bytes for the free-space floor.
  void evictLocked(std::int64_t diskDeficit);

  mutable std::mutex lock_;
  std::mutex ioLock_;  // taken before lock_, never the other way round
  Items items_;
  const std::string dir_;
  const std::int64_t budget_;
  std::int64_t bytes_ = 0;
  std::int64_t clock_ = 0;
  std::int64_t hits_ = 0;
  std::int64_t misses_ = 0;
  std::int64_t evictions_ = 0;
  std::int64_t indexWrites_ = 0;
  bool dirty_ = false;
  std::optional<std::chrono::steady_clock::time_point> lastSave_;
  std::unordered_map<std::string, std::shared_ptr<const Pending>> pending_;
  // Clips of recent hits kept open, at most kOpenClips; dropped with their
  // entry. Replies in flight hold their own reference.
  static constexpr std::size_t kOpenClips = 64;
  std::unordered_map<std::string, std::shared_ptr<const OpenFile>> openClips_;
  std::deque<std::string> openOrder_;  // keys of openClips_, oldest first
  std::deque<std::string> writeOrder_;  // keys for the writer, oldest first
  std::int64_t pendingBytes_ = 0;
  std::int64_t writesInFlight_ = 0;  // queued or being written
  bool stopping_ = false;
  std::condition_variable writeWake_;  // new work, or stopping
  std::condition_variable writeDone_;  // writesInFlight_ went down
  const DiskFloor floor_;
  std::atomic<bool> enabled_{true};
  std::thread writer_;  // last: started once everything above exists
};

}  // namespace kelvo
