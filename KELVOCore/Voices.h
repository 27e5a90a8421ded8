// VoiceLibrary: the store of voices cloned from reference recordings. Keeps the
// list of voices in memory and in "voices.json", the reference clips as files
// in the clip folder (bytes exactly as received), gives voices content-derived
// ids, checks clips when they are added, resolves the voice of a request
// through the configuration's bindings, and hands the engine one reference
// recording per voice (several clips are spliced into one of at most 30 s).
//
// Thread-safe: one mutex guards the list; clip files and the voices file are
// written inside the operation that changes the list, so file and memory never
// disagree for long. Decoding and validation of new clips run before the lock
// is taken, and the library never holds its lock while it calls the
// configuration or the log. Callers always get copies of `VoiceInfo`.
//
// Cost: `find` and `resolve` are hash lookups (a few case-mappings of short
// texts); every change rewrites the whole voices file.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <vector>

#include "KELVOCore/Config.h"
#include "KELVOCore/Paths.h"
#include "KELVOCore/Types.h"

namespace kelvo {

// djb2 over the UTF-8 bytes (start 5381, h * 33 + byte, wrapping): a hash that
// stays the same across runs, builds and platforms. "" hashes to 5381.
std::uint64_t stableHash(std::string_view text);

class VoiceLibrary {
 public:
  static constexpr std::int64_t maxReferenceMs = 30000;  // the engine takes at most this much

  struct Resolution {
    std::optional<VoiceInfo> voice;  // absent: nothing bound; the caller picks a fallback
    bool explicitVoice = false;      // the request named the voice itself
  };

  // `voicesFile` is the JSON index, `clipDir` (ending in "/") the clip folder.
  explicit VoiceLibrary(std::string voicesFile = KELVOPaths::voicesFile(),
                        std::string clipDir = KELVOPaths::voicesDir());
  VoiceLibrary(const VoiceLibrary&) = delete;
  VoiceLibrary& operator=(const VoiceLibrary&) = delete;

  // The configuration consulted for bindings and told about removed voices.
  // Without one, only explicit voice ids resolve.
  void setConfig(std::shared_ptr<AppConfig> config);

  // Replaces the list from the voices file. A missing file gives an empty
  // library; an unreadable one keeps the list; one that is not JSON empties it
  // (the file itself stays until the next save). Damaged entries are skipped.
  void load();
  // Writes the list to the voices file; a failure is logged.
  void save();

  std::vector<VoiceInfo> all() const;
  std::int64_t count() const;
  std::optional<VoiceInfo> find(std::string_view id) const;  // ignoring case
  std::optional<VoiceInfo> findByDisplay(std::string_view name) const;  // ignoring case
  std::vector<VoiceInfo> forLanguage(std::string_view language) const;  // by normalised code
  // Replaces the stored voice with the same id and saves; unknown ids are ignored.
  // Clip entries whose file name is not a plain file name are dropped.
  void update(const VoiceInfo& voice);

  // The id addClone(spec) would give right now.
  std::string predictId(const VoiceCloneSpec& spec) const;
  // Checks and stores every clip, then adds and saves the voice. Throws
  // TtsError; on failure no voice is added and no clip file is left behind.
  // A clip that cannot be decoded fails unless it is the only one and not Ogg
  // (the engine gets its bytes as they are). What was accepted with a doubt (a
  // short or long clip, a transcript too short for its audio) is logged and,
  // localised, appended to `warnings` when given.
  VoiceInfo addClone(const VoiceCloneSpec& spec, std::vector<std::string>* warnings = nullptr);
  // One more clip for an existing voice. Throws TtsError (unknown voice, bad clip).
  VoiceInfo addClip(std::string_view voiceId, const VoiceClipInput& clip);
  // False for an unknown voice or index; throws TtsError for the only clip.
  bool removeClip(std::string_view voiceId, std::int64_t index);
  // Deletes the voice and its clip files, saves, and drops every binding to it
  // from the configuration (which is saved too). False when there is no such voice.
  bool remove(std::string_view id);

  // The voice for a request: its explicit id (TtsError badVoice when unknown),
  // else the airline binding (gender, then "default"), else the language
  // default (gender, then "default"); then all of that again with no language.
  Resolution resolve(const TtsRequest& request) const;
  // The genders for which resolve() would reach a stored voice.
  std::set<TtsGender> availableGenders(std::string_view airline, std::string_view language) const;

  // A stand-in voice, never stored, for a language and gender with nothing bound.
  static VoiceInfo fallbackVoice(std::string_view language, TtsGender gender);
  static bool isFallback(const VoiceInfo& voice);

  // The one recording sent to the engine: a single clip as stored (WAV or MP3),
  // re-encoded as WAV when it is Ogg or longer than 30 s; several clips decoded,
  // resampled to the first one's rate and joined with 300 ms pauses up to 30 s.
  // Absent without clips, or when nothing usable can be read.
  std::optional<Bytes> referenceAudio(const VoiceInfo& voice) const;
  // The clips' transcripts, trimmed, empty ones dropped, joined by one space.
  static std::string referenceText(const VoiceInfo& voice);
  // Clip folder + file name; "" when the stored name is not a plain file name.
  std::string clipPath(const VoiceClip& clip) const;

 private:
  struct PreparedClip;

  // Checks and decodes one clip; throws TtsError when it cannot be used.
  // `alone`: the voice will have no other clip, so undecodable WAV or MP3
  // bytes can still go to the engine as they are.
  static PreparedClip prepareClip(const VoiceClipInput& input, bool alone);
  std::error_code writeClip(const PreparedClip& clip, const std::string& fileName) const;
  static TtsError saveClipError(std::error_code ec);
  static void logSaveError(std::error_code ec);
  std::optional<Bytes> singleClipAudio(const VoiceInfo& voice) const;
  std::optional<Bytes> mergedClipAudio(const VoiceInfo& voice) const;

  // REQUIRES: lock_ held.
  std::string freeIdLocked(const std::string& base) const;
  const VoiceInfo* findLocked(const std::string& lowerId) const;
  void reindexLocked();
  std::error_code saveLocked() const;

  std::shared_ptr<AppConfig> configRef() const;

  const std::string voicesFile_;
  const std::string clipDir_;

  mutable std::mutex lock_;
  std::vector<VoiceInfo> items_;
  std::unordered_map<std::string, std::size_t> byId_;  // lower-cased id -> position in items_
  std::shared_ptr<AppConfig> config_;
};

}  // namespace kelvo
