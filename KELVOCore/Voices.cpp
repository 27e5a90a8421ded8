#include "KELVOCore/Voices.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "KELVOCore/AudioDecode.h"
#include "KELVOCore/Dsp.h"
#include "KELVOCore/Files.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Json.h"
#include "KELVOCore/Log.h"
#include "KELVOCore/Timestamp.h"
#include "KELVOCore/Wav.h"

namespace kelvo {

namespace {

constexpr std::string_view kSource = "voices";
constexpr std::int64_t kMergeGapMs = 300;

double seconds(std::int64_t ms) { return static_cast<double>(ms) / 1000.0; }

// Seeds stay within 31 bits: every engine takes them, whatever its integer width.
std::int64_t seedFrom(std::string_view text) { return static_cast<std::int64_t>(stableHash(text) & 0x7FFFFFFF); }

// A clip file name as the library makes them: no folder part, nothing hidden,
// nothing that could climb out of the clip folder. Names read from the voices
// file are held to the same rule before they get near the file system.
bool isPlainFileName(std::string_view name) {
  if (name.empty() || name.size() > 255 || name.front() == '.') return false;
  return name.find_first_of(std::string_view("/\\\0", 3)) == std::string_view::npos;
}

// The part of a clip file name taken from the voice id. Ids made here are
// already safe; ids from older files or packs may hold anything, so everything
// but letters, digits, "-" and "_" becomes "_".
std::string fileStem(std::string_view id) {
  std::string stem;
  for (char c : id.substr(0, 96)) {
    const bool safe = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
    stem += safe ? c : '_';
  }
  return stem.empty() ? std::string("voice") : stem;
}

std::string clipFileName(std::string_view stem, std::size_t index, std::string_view extension) {
  return std::string(stem) + "-" + std::to_string(index) + std::string(extension);
}

void deleteFile(const std::string& path) {
  if (!path.empty()) ::unlink(path.c_str());
}

// ---- The voices file ---------------------------------------------------------------

// Years past 2200 would overflow the clock's nanosecond count.
constexpr std::int64_t kLatestSeconds = 7258118400;

TimePoint timeFromSeconds(std::int64_t secs) {
  return TimePoint(std::chrono::seconds(std::clamp<std::int64_t>(secs, 0, kLatestSeconds)));
}

// The text form above, or a number of seconds since 1970; now when unusable.
TimePoint parseTime(const Json& voice) {
  auto it = voice.find("createdAt");
  if (it == voice.end()) return std::chrono::system_clock::now();
  if (it->is_number()) return timeFromSeconds(jInt(voice, "createdAt", 0));
  if (!it->is_string()) return std::chrono::system_clock::now();
  std::tm parts{};
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (std::sscanf(it->get_ref<const std::string&>().c_str(), "%4d-%2d-%2dT%2d:%2d:%2d", &year, &month, &day, &hour,
                  &minute, &second) != 6 ||
      month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) {
    return std::chrono::system_clock::now();
  }
  parts.tm_year = year - 1900;
  parts.tm_mon = month - 1;
  parts.tm_mday = day;
  parts.tm_hour = hour;
  parts.tm_min = minute;
  parts.tm_sec = second;
  return timeFromSeconds(static_cast<std::int64_t>(timegm(&parts)));
}

std::vector<VoiceClip> clipsFrom(const Json& voice) {
  std::vector<VoiceClip> clips;
  auto keep = [&](VoiceClip clip) {
    if (isPlainFileName(clip.fileName)) clips.push_back(std::move(clip));
  };
  if (auto list = voice.find("clips"); list != voice.end() && list->is_array()) {
    for (const Json& c : *list) {
      if (c.is_object()) keep({jStr(c, "file"), jStr(c, "text"), std::max<std::int64_t>(jInt(c, "durationMs", 0), 0)});
    }
  } else if (voice.contains("refAudio")) {
    keep({jStr(voice, "refAudio"), jStr(voice, "refText"), 0});
  }
  return clips;
}

std::optional<VoiceInfo> voiceFrom(const Json& v) {
  if (!v.is_object()) return std::nullopt;
  VoiceInfo voice;
  voice.id = trimmed(jStr(v, "id"));
  if (voice.id.empty()) return std::nullopt;
  voice.display = jStr(v, "display");
  voice.kind = jStr(v, "kind") == "reference" ? VoiceKind::profile : VoiceKind::cloned;
  voice.profileFile = jStr(v, "profile");
  voice.clips = clipsFrom(v);
  voice.language = normLang(jStr(v, "language", "auto"));
  voice.gender = parseGender(jStr(v, "gender", "default"));
  voice.style = jStr(v, "style");
  voice.note = jStr(v, "note");
  voice.seed = jInt(v, "seed", 0);
  voice.createdAt = parseTime(v);
  return voice;
}

Json voiceJson(const VoiceInfo& v) {
  Json clips = Json::array();
  for (const auto& c : v.clips) clips.push_back({{"file", c.fileName}, {"text", c.text}, {"durationMs", c.durationMs}});
  return Json{
      {"id", v.id},
      {"display", v.display},
      // "reference" rather than the enum's own word: older files say so.
      {"kind", v.kind == VoiceKind::profile ? "reference" : "cloned"},
      {"profile", v.profileFile},
      {"clips", clips},
      {"language", v.language.empty() ? std::string("auto") : v.language},
      {"gender", code(v.gender)},
      {"style", v.style},
      {"note", v.note},
      {"seed", v.seed},
      {"createdAt", isoUtc(v.createdAt)},  // UTC "2026-08-07T07:34:00Z"
  };
}

// ---- Voice ids -----------------------------------------------------------------------

std::string contentId(const VoiceCloneSpec& spec) {
  std::string key;
  for (const auto& clip : spec.clips) key += sha256Bytes(clip.audio) + "|" + clip.text + "\n";
  return "v-" + toLower(sha256Utf8(key).substr(0, 12));
}

double totalSeconds(const VoiceInfo& voice) {
  double total = 0;
  for (const auto& c : voice.clips) total += seconds(c.durationMs);
  return total;
}

}  // namespace

std::uint64_t stableHash(std::string_view text) {
  std::uint64_t h = 5381;
  for (unsigned char byte : text) h = h * 33 + byte;
  return h;
}

// A clip that passed every check, waiting to be written.
struct VoiceLibrary::PreparedClip {
  Bytes audio;
  std::string extension;  // ".wav", ".mp3" or ".ogg"
  std::string text;       // trimmed transcript
  std::int64_t durationMs = 0;
  std::vector<std::string> warnings;  // localised, for whoever asked
};

VoiceLibrary::VoiceLibrary(std::string voicesFile, std::string clipDir)
    : voicesFile_(std::move(voicesFile)), clipDir_(std::move(clipDir)) {}

void VoiceLibrary::setConfig(std::shared_ptr<AppConfig> config) {
  std::lock_guard guard(lock_);
  config_ = std::move(config);
}

std::shared_ptr<AppConfig> VoiceLibrary::configRef() const {
  std::lock_guard guard(lock_);
  return config_;
}

// ---- Loading and saving ----------------------------------------------------------------

void VoiceLibrary::load() {
  std::error_code ec;
  std::vector<VoiceInfo> voices;
  bool usable = true;
  if (std::filesystem::exists(voicesFile_, ec) || ec) {
    const auto bytes = readFile(voicesFile_);
    if (!bytes) {
      AppLog::error(kSource, "cannot read the voice library");
      return;
    }
    if (const auto root = parseJsonObject(*bytes)) {
      if (auto list = root->find("voices"); list != root->end() && list->is_array()) {
        for (const Json& element : *list) {
          if (auto voice = voiceFrom(element)) voices.push_back(std::move(*voice));
        }
      }
    } else {
      usable = false;
    }
  }
  std::size_t count = 0;
  {
    std::lock_guard guard(lock_);
    items_.clear();
    byId_.clear();
    for (auto& voice : voices) {
      // A repeated id could never be addressed; the first one wins.
      if (byId_.emplace(toLower(voice.id), items_.size()).second) items_.push_back(std::move(voice));
    }
    count = items_.size();
  }
  if (usable) {
    AppLog::info(kSource, "voice library loaded, " + std::to_string(count) + " voice(s)");
  } else {
    AppLog::warn(kSource, "voice library is not valid JSON, treating it as empty");
  }
}

void VoiceLibrary::save() {
  std::error_code ec;
  {
    std::lock_guard guard(lock_);
    ec = saveLocked();
  }
  logSaveError(ec);
}

std::error_code VoiceLibrary::saveLocked() const {
  Json list = Json::array();
  for (const auto& voice : items_) list.push_back(voiceJson(voice));
  return writeFileAtomic(voicesFile_, jsonData(Json{{"voices", list}}, /*pretty=*/true));
}

void VoiceLibrary::logSaveError(std::error_code ec) {
  if (ec) AppLog::error(kSource, "cannot write the voice library: " + ec.message());
}

void VoiceLibrary::reindexLocked() {
  byId_.clear();
  for (std::size_t i = 0; i < items_.size(); ++i) byId_.emplace(toLower(items_[i].id), i);
}

// ---- Queries ----------------------------------------------------------------------------

std::vector<VoiceInfo> VoiceLibrary::all() const {
  std::lock_guard guard(lock_);
  return items_;
}

std::int64_t VoiceLibrary::count() const {
  std::lock_guard guard(lock_);
  return static_cast<std::int64_t>(items_.size());
}

const VoiceInfo* VoiceLibrary::findLocked(const std::string& lowerId) const {
  auto it = byId_.find(lowerId);
  return it == byId_.end() ? nullptr : &items_[it->second];
}

std::optional<VoiceInfo> VoiceLibrary::find(std::string_view id) const {
  const std::string key = toLower(id);
  std::lock_guard guard(lock_);
  if (const VoiceInfo* voice = findLocked(key)) return *voice;
  return std::nullopt;
}

std::optional<VoiceInfo> VoiceLibrary::findByDisplay(std::string_view name) const {
  const std::string wanted = toLower(name);
  std::lock_guard guard(lock_);
  for (const auto& voice : items_) {
    if (toLower(voice.display) == wanted) return voice;
  }
  return std::nullopt;
}

std::vector<VoiceInfo> VoiceLibrary::forLanguage(std::string_view language) const {
  const std::string code = normLang(language);
  std::vector<VoiceInfo> out;
  std::lock_guard guard(lock_);
  for (const auto& voice : items_) {
    if (voice.language == code) out.push_back(voice);
  }
  return out;
}

void VoiceLibrary::update(const VoiceInfo& voice) {
  VoiceInfo replacement = voice;
  std::erase_if(replacement.clips, [](const VoiceClip& c) { return !isPlainFileName(c.fileName); });
  const std::string key = toLower(voice.id);
  std::error_code ec;
  {
    std::lock_guard guard(lock_);
    auto it = byId_.find(key);
    if (it == byId_.end()) return;
    items_[it->second] = std::move(replacement);
    ec = saveLocked();
  }
  logSaveError(ec);
}

// ---- Adding clips and voices -----------------------------------------------------------

VoiceLibrary::PreparedClip VoiceLibrary::prepareClip(const VoiceClipInput& input, bool alone) {
  if (input.audio.empty()) throw TtsError(TtsErrorCode::badAudio, T("这段音频没有数据"));
  PreparedClip clip{input.audio, sniffExtension(input.audio), trimmed(input.text), 0, {}};
  if (clip.text.empty()) {
    throw TtsError(TtsErrorCode::badAudio, T("参考音频必须附带对应的文字(厂商接口要求 reference_text 必填)"));
  }
  if (clip.extension.empty()) throw TtsError(TtsErrorCode::badAudio, T("这段音频不是 WAV、MP3 或 Ogg"));
  // Each warning goes to the log and back to whoever asked for the clone.
  auto warn = [&](const std::string& logLine, std::string forPeople) {
    AppLog::warn(kSource, logLine);
    clip.warnings.push_back(std::move(forPeople));
  };

  std::optional<PcmBuffer> pcm;
  std::string oggReason;
  if (clip.extension == ".ogg") {
    OggDecode ogg = decodeOgg(clip.audio);
    pcm = std::move(ogg.pcm);
    oggReason = oggResultText(ogg.result);
  } else {
    pcm = decodeReference(clip.audio);
  }
  if (!pcm || pcm->isEmpty()) {
    const std::string format = clip.extension.substr(1);
    // The engine takes no Ogg, and a merge skips what it cannot decode: such a
    // clip would leave a voice that cannot speak.
    if (clip.extension == ".ogg" || !alone) {
      throw TtsError(TtsErrorCode::badAudio, TF("无法解码这段 %s 参考音频,这个声音将无法使用。%s", format, oggReason));
    }
    warn("cannot decode this " + format + " clip; duration unknown and it cannot join a multi-clip merge",
         TF("无法解码这段 %s 音频,时长未知;原样交给引擎,也不能和其他片段合并", format));
    return clip;
  }
  clip.durationMs = pcm->durationMs();
  if (clip.durationMs < 1000) {
    throw TtsError(TtsErrorCode::badAudio,
                   TF("参考音频只有 %d 毫秒,太短了(厂商建议 5-30 秒)", static_cast<int>(clip.durationMs)));
  }
  const double secs = seconds(clip.durationMs);
  if (clip.durationMs < 5000) {
    warn(formatText("reference audio is only %.1f s; 5-30 s is recommended, cloning may be unstable", secs),
         TF("参考音频只有 %.1f 秒;建议 5-30 秒,克隆出来的声音可能不稳定", secs));
  } else if (clip.durationMs > maxReferenceMs) {
    warn(formatText("reference audio is %.0f s, over the 30 s the engine takes; it will be trimmed", secs),
         TF("参考音频有 %.0f 秒,超过了引擎接受的 30 秒;多出的部分会被截掉", secs));
  }
  // Even fast speech has a few characters a second; far fewer means the
  // transcript is not what the clip says, and the voice learns the mismatch.
  const std::int64_t characters = characterCount(clip.text);
  if (clip.durationMs >= 5000 && characters * 1000 < clip.durationMs) {
    warn(formatText("transcript of %d characters for %.1f s of audio; it should be exactly what the clip says",
                    static_cast<int>(characters), secs),
         TF("%.1f 秒的音频只配了 %d 个字的文字;文字应当与片段里说的话一字不差,否则克隆的声音会含糊或漏字", secs,
            static_cast<int>(characters)));
  }
  return clip;
}

std::error_code VoiceLibrary::writeClip(const PreparedClip& clip, const std::string& fileName) const {
  return writeFileAtomic(clipDir_ + fileName, clip.audio);
}

TtsError VoiceLibrary::saveClipError(std::error_code ec) {
  return TtsError(TtsErrorCode::cloneFailed, TF("无法保存参考音频:%s", ec.message()));
}

std::string VoiceLibrary::freeIdLocked(const std::string& base) const {
  if (!findLocked(base)) return base;
  for (std::size_t n = 1;; ++n) {
    std::string candidate = base + "-" + std::to_string(n);
    if (!findLocked(candidate)) return candidate;
  }
}

std::string VoiceLibrary::predictId(const VoiceCloneSpec& spec) const {
  const std::string base = contentId(spec);
  std::lock_guard guard(lock_);
  return freeIdLocked(base);
}

VoiceInfo VoiceLibrary::addClone(const VoiceCloneSpec& spec, std::vector<std::string>* warnings) {
  if (spec.clips.empty()) throw TtsError(TtsErrorCode::badAudio, T("克隆至少需要一段参考音频"));
  std::vector<PreparedClip> prepared;
  for (const auto& input : spec.clips) {
    prepared.push_back(prepareClip(input, spec.clips.size() == 1));
    if (warnings) warnings->insert(warnings->end(), prepared.back().warnings.begin(), prepared.back().warnings.end());
  }
  const std::string base = contentId(spec);

  VoiceInfo voice;
  voice.display = spec.display;
  voice.kind = VoiceKind::cloned;
  voice.language = normLang(spec.language);
  voice.gender = spec.gender;
  voice.style = spec.style;
  voice.note = spec.note;
  voice.createdAt = std::chrono::system_clock::now();
  std::error_code writeError;
  std::error_code saveError;
  {
    std::lock_guard guard(lock_);
    voice.id = freeIdLocked(base);
    voice.seed = seedFrom(voice.id);
    const std::string stem = fileStem(voice.id);
    for (std::size_t i = 0; i < prepared.size() && !writeError; ++i) {
      const std::string name = clipFileName(stem, i, prepared[i].extension);
      writeError = writeClip(prepared[i], name);
      if (!writeError) voice.clips.push_back({name, prepared[i].text, prepared[i].durationMs});
    }
    if (writeError) {
      for (const auto& clip : voice.clips) deleteFile(clipPath(clip));
    } else {
      byId_.emplace(toLower(voice.id), items_.size());
      items_.push_back(voice);
      saveError = saveLocked();
    }
  }
  if (writeError) throw saveClipError(writeError);
  logSaveError(saveError);
  AppLog::info(kSource, formatText("cloned voice %s (%s, %d clip(s), %.1f s total)", voice.display.c_str(),
                                  voice.id.c_str(), static_cast<int>(voice.clips.size()), totalSeconds(voice)));
  return voice;
}

VoiceInfo VoiceLibrary::addClip(std::string_view voiceId, const VoiceClipInput& input) {
  const std::string key = toLower(trimmed(voiceId));
  auto noSuchVoice = [&] { return TtsError(TtsErrorCode::badVoice, TF("没有这个声音:%s", std::string(voiceId))); };
  if (!find(key)) throw noSuchVoice();
  PreparedClip clip = prepareClip(input, false);

  VoiceInfo updated;
  bool found = false;
  std::error_code writeError;
  std::error_code saveError;
  {
    std::lock_guard guard(lock_);
    if (auto it = byId_.find(key); it != byId_.end()) {
      found = true;
      VoiceInfo& voice = items_[it->second];
      // Indexes follow the clip count, skipping any still used by a stored clip
      // or a file on disk, since removals leave gaps and stems may coincide.
      const std::string stem = fileStem(voice.id);
      std::size_t index = voice.clips.size();
      auto taken = [&](std::size_t i) {
        const std::string prefix = stem + "-" + std::to_string(i) + ".";
        for (const auto& c : voice.clips) {
          if (c.fileName.starts_with(prefix)) return true;
        }
        std::error_code ignored;
        for (const char* ext : {".wav", ".mp3", ".ogg"}) {
          if (std::filesystem::exists(clipDir_ + prefix + (ext + 1), ignored)) return true;
        }
        return false;
      };
      while (taken(index)) ++index;
      const std::string name = clipFileName(stem, index, clip.extension);
      writeError = writeClip(clip, name);
      if (!writeError) {
        voice.clips.push_back({name, clip.text, clip.durationMs});
        saveError = saveLocked();
        updated = voice;
      }
    }
  }
  if (!found) throw noSuchVoice();
  if (writeError) throw saveClipError(writeError);
  logSaveError(saveError);
  AppLog::info(kSource, formatText("added a clip to %s (%s), now %d clip(s), %.1f s", updated.display.c_str(),
                                  updated.id.c_str(), static_cast<int>(updated.clips.size()), totalSeconds(updated)));
  return updated;
}

// ---- Removing -----------------------------------------------------------------------------

bool VoiceLibrary::removeClip(std::string_view voiceId, std::int64_t index) {
  const std::string key = toLower(trimmed(voiceId));
  bool lastClip = false;
  std::error_code saveError;
  {
    std::lock_guard guard(lock_);
    auto it = byId_.find(key);
    if (it == byId_.end()) return false;
    VoiceInfo& voice = items_[it->second];
    if (index < 0 || index >= static_cast<std::int64_t>(voice.clips.size())) return false;
    lastClip = voice.clips.size() == 1;
    if (!lastClip) {
      deleteFile(clipPath(voice.clips[static_cast<std::size_t>(index)]));
      voice.clips.erase(voice.clips.begin() + index);
      saveError = saveLocked();
    }
  }
  if (lastClip) throw TtsError(TtsErrorCode::badAudio, T("这是最后一段参考音频 - 请直接删除整个声音"));
  logSaveError(saveError);
  return true;
}

bool VoiceLibrary::remove(std::string_view id) {
  const std::string key = toLower(trimmed(id));
  std::string removedId;
  std::error_code saveError;
  std::shared_ptr<AppConfig> config;
  {
    std::lock_guard guard(lock_);
    auto it = byId_.find(key);
    if (it == byId_.end()) return false;
    const auto position = items_.begin() + static_cast<std::ptrdiff_t>(it->second);
    removedId = position->id;
    for (const auto& clip : position->clips) deleteFile(clipPath(clip));
    items_.erase(position);
    reindexLocked();
    saveError = saveLocked();
    config = config_;
  }
  logSaveError(saveError);
  if (config) {
    config->forgetVoice(removedId);
    config->save();
  }
  AppLog::info(kSource, "deleted " + removedId);
  return true;
}

// ---- Resolution --------------------------------------------------------------------------

namespace {

// The first bound voice id for (airline, language, gender), trying the
// "default" gender after the requested one; "" when nothing is bound.
std::string boundVoiceId(const AppConfig& config, std::string_view airline, std::string_view language,
                         TtsGender gender) {
  std::string id = config.airlineVoice(airline, language, gender);
  if (id.empty() && gender != TtsGender::automatic) id = config.airlineVoice(airline, language, TtsGender::automatic);
  if (!id.empty()) return id;
  if (auto d = config.defaultVoice(language, gender)) return *d;
  if (gender != TtsGender::automatic) {
    if (auto d = config.defaultVoice(language, TtsGender::automatic)) return *d;
  }
  return {};
}

}  // namespace

VoiceLibrary::Resolution VoiceLibrary::resolve(const TtsRequest& request) const {
  const std::string explicitId = trimmed(request.voiceId);
  if (!explicitId.empty()) {
    auto voice = find(explicitId);
    if (!voice) throw TtsError(TtsErrorCode::badVoice, TF("没有这个声音:%s", explicitId));
    return {std::move(voice), true};
  }
  const auto config = configRef();
  if (!config) return {};
  const std::string language = normLang(request.language);
  std::string id = boundVoiceId(*config, request.airline, language, request.gender);
  if (id.empty() && !language.empty()) id = boundVoiceId(*config, request.airline, "", request.gender);
  if (id.empty()) return {};
  auto voice = find(id);
  if (!voice) AppLog::warn(kSource, "the voice a binding points at is gone: " + id);
  return {std::move(voice), false};
}

std::set<TtsGender> VoiceLibrary::availableGenders(std::string_view airline, std::string_view language) const {
  std::set<TtsGender> genders;
  for (TtsGender gender : allGenders) {
    TtsRequest request;
    request.airline = std::string(airline);
    request.language = std::string(language);
    request.gender = gender;
    if (resolve(request).voice) genders.insert(gender);
  }
  return genders;
}

VoiceInfo VoiceLibrary::fallbackVoice(std::string_view language, TtsGender gender) {
  VoiceInfo voice;
  voice.id = "(auto):" + std::string(language) + ":" + std::string(code(gender));
  voice.display = TF("未绑定(%s·%s)", langDisplay(language), display(gender));
  voice.note = T("这个语言/性别还没有绑定声音");
  voice.language = std::string(language);
  voice.gender = gender;
  voice.seed = seedFrom(language);
  voice.createdAt = std::chrono::system_clock::now();
  return voice;
}

bool VoiceLibrary::isFallback(const VoiceInfo& voice) { return voice.id.starts_with("(auto)"); }

// ---- Reference audio and text --------------------------------------------------------------

std::string VoiceLibrary::clipPath(const VoiceClip& clip) const {
  return isPlainFileName(clip.fileName) ? clipDir_ + clip.fileName : std::string();
}

std::string VoiceLibrary::referenceText(const VoiceInfo& voice) {
  std::string text;
  for (const auto& clip : voice.clips) {
    const std::string piece = trimmed(clip.text);
    if (piece.empty()) continue;
    if (!text.empty()) text += ' ';
    text += piece;
  }
  return text;
}

std::optional<Bytes> VoiceLibrary::referenceAudio(const VoiceInfo& voice) const {
  if (voice.clips.empty()) return std::nullopt;
  if (voice.clips.size() == 1) return singleClipAudio(voice);
  return mergedClipAudio(voice);
}

std::optional<Bytes> VoiceLibrary::singleClipAudio(const VoiceInfo& voice) const {
  const std::string path = clipPath(voice.clips.front());
  auto bytes = path.empty() ? std::nullopt : readFile(path);
  if (!bytes) return std::nullopt;
  const auto pcm = decodeReference(*bytes);
  if (!pcm || pcm->isEmpty()) {
    if (!looksLikeOgg(*bytes)) return bytes;  // the engine may still make sense of it
    AppLog::error(kSource, "reference audio for " + voice.display + " is ogg but cannot " +
                               "be decoded; the engine does not accept ogg, so this voice is unusable. " +
                               oggResultText(decodeOgg(*bytes).result));
    return std::nullopt;
  }
  const std::int64_t ms = pcm->durationMs();
  if (ms <= maxReferenceMs) {
    if (engineReadsFormat(*bytes)) return bytes;
    return buildWav(*pcm, 1);
  }
  PcmBuffer head;
  head.sampleRate = pcm->sampleRate;
  const auto keep = static_cast<std::size_t>(pcm->sampleRate * maxReferenceMs / 1000);
  head.data.assign(pcm->data.begin(), pcm->data.begin() + static_cast<std::ptrdiff_t>(std::min(keep, pcm->data.size())));
  AppLog::info(kSource, formatText("reference audio for %s was %.0f s; trimmed to %d s before sending it to the engine",
                                  voice.display.c_str(), seconds(ms), static_cast<int>(maxReferenceMs / 1000)));
  return buildWav(head, 1);
}

std::optional<Bytes> VoiceLibrary::mergedClipAudio(const VoiceInfo& voice) const {
  PcmBuffer merged;
  std::size_t limit = 0;  // samples in 30 s at the output rate
  int used = 0;
  for (const auto& clip : voice.clips) {
    if (used > 0 && merged.data.size() >= limit) {
      AppLog::info(kSource, formatText("merged reference audio already reached %.1f s (the engine takes at most 30 s); "
                                      "skipping the rest",
                                      static_cast<double>(merged.data.size()) / static_cast<double>(merged.sampleRate)));
      break;
    }
    const std::string path = clipPath(clip);
    const auto bytes = path.empty() ? std::nullopt : readFile(path);
    auto pcm = bytes ? decodeReference(*bytes) : std::nullopt;
    if (!pcm || pcm->isEmpty() || pcm->sampleRate < 1) {
      AppLog::warn(kSource, "cannot decode this clip, skipping it in the merge: " + clip.fileName);
      continue;
    }
    if (used == 0) {
      merged.sampleRate = pcm->sampleRate;
      limit = static_cast<std::size_t>(merged.sampleRate * maxReferenceMs / 1000);
    } else {
      // The pause is cut like the clips, so the result never runs past 30 s.
      const auto gap = static_cast<std::size_t>(merged.sampleRate * kMergeGapMs / 1000);
      merged.data.resize(std::min(merged.data.size() + gap, limit), 0.0f);
    }
    const PcmBuffer samples = resample(*pcm, merged.sampleRate);
    const std::size_t room = limit - std::min(limit, merged.data.size());
    const auto take = static_cast<std::ptrdiff_t>(std::min(room, samples.data.size()));
    merged.data.insert(merged.data.end(), samples.data.begin(), samples.data.begin() + take);
    ++used;
  }
  if (used == 0) return std::nullopt;
  AppLog::info(kSource, formatText("merged the %s reference clips into one - %d clip(s), %.1f s", voice.display.c_str(),
                                  used, static_cast<double>(merged.durationMs()) / 1000.0));
  return buildWav(merged, 1);
}

}  // namespace kelvo
