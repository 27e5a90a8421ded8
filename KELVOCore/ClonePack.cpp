#include "KELVOCore/ClonePack.h"

#include <chrono>
#include <map>
#include <optional>
#include <set>

#include "KELVOCore/Files.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Log.h"
#include "KELVOCore/Timestamp.h"
#include "KELVOCore/Zip.h"

namespace kelvo {

namespace {

constexpr std::string_view kSource = "clonepack";
constexpr std::string_view kAudioFolder = "audio/";
constexpr std::int64_t kPackVersion = 1;

double megabytes(std::int64_t bytes) { return static_cast<double>(bytes) / (1024.0 * 1024.0); }

// Log lines are English whatever the interface language.
std::string logText(const PackSummary& s) {
  return formatText("%d voice(s) (%d new, %d reused) · %d clip(s) · %d binding(s) · %.1f MB",
                    static_cast<int>(s.voices), static_cast<int>(s.voicesAdded), static_cast<int>(s.voicesReused),
                    static_cast<int>(s.clips), static_cast<int>(s.bindings), megabytes(s.bytes));
}

std::string languageCode(const VoiceInfo& voice) { return voice.language.empty() ? "auto" : voice.language; }

// ---- What an export carries -------------------------------------------------------

struct Selection {
  std::vector<std::pair<std::string, std::string>> bindings;  // binding key -> voice id
  std::vector<VoiceInfo> voices;                              // each once, bindings' voices first
  std::vector<std::string> unknownIds;                        // named voices the library does not have
  std::vector<std::string> notes;
};

Selection select(const std::vector<std::string>& airlineKeys, const std::vector<std::string>& voiceIds,
                 const VoiceLibrary& library, const AppConfig* config) {
  Selection s;
  std::set<std::string> packed;  // lower-cased voice ids
  auto pack = [&](const VoiceInfo& voice) {
    if (packed.insert(toLower(voice.id)).second) s.voices.push_back(voice);
  };
  if (config && !airlineKeys.empty()) {
    const KeyValueList snapshot = config->airlinesSnapshot();
    const std::map<std::string, std::string> bound(snapshot.begin(), snapshot.end());
    std::set<std::string> seen;
    for (const auto& raw : airlineKeys) {
      const std::string key = normalizeAirlineKey(raw);
      if (!seen.insert(key).second) continue;
      const auto it = bound.find(key);
      if (it == bound.end()) {
        s.notes.push_back(TF("没有绑定 %s,已略过", key));
        continue;
      }
      const auto voice = library.find(it->second);
      if (!voice) {
        s.notes.push_back(TF("声音 %s 已不存在(绑定 %s 引用了它),没有放进包里", it->second, key));
        continue;
      }
      s.bindings.emplace_back(key, voice->id);
      pack(*voice);
    }
  }
  for (const auto& id : voiceIds) {
    if (const auto voice = library.find(trimmed(id))) {
      pack(*voice);
    } else {
      s.unknownIds.push_back(id);
    }
  }
  return s;
}

Json voiceToPackJson(const VoiceInfo& voice, Json clips) {
  return Json{{"id", voice.id},
              {"display", voice.display},
              {"language", languageCode(voice)},
              {"gender", code(voice.gender)},
              {"style", voice.style},
              {"note", voice.note},
              {"clips", std::move(clips)}};
}

std::optional<Bytes> readClip(const VoiceLibrary& library, const VoiceClip& clip) {
  const std::string path = library.clipPath(clip);
  return path.empty() ? std::nullopt : readFile(path);
}

TtsError tooLargeError() {
  return TtsError(TtsErrorCode::cloneFailed,
                  T("这个声音包超出了 zip 的限制(单个文件 64 MB、合计 512 MB、65535 个文件),请少选几个声音"));
}

BuiltPack build(const std::vector<std::string>& airlineKeys, const std::vector<std::string>& voiceIds,
                const VoiceLibrary& library, const AppConfig* config) {
  Selection selection = select(airlineKeys, voiceIds, library, config);
  if (!selection.unknownIds.empty()) {
    throw TtsError(TtsErrorCode::notFound, TF("没有这个声音:%s", selection.unknownIds.front()));
  }
  BuiltPack built;
  PackSummary& summary = built.summary;
  summary.notes = std::move(selection.notes);
  ZipWriter writer;
  Json voices = Json::array();
  for (const VoiceInfo& voice : selection.voices) {
    Json clips = Json::array();
    for (const VoiceClip& clip : voice.clips) {
      auto bytes = readClip(library, clip);
      if (!bytes) {
        summary.notes.push_back(TF("%s 缺少一段参考音频(%s),没有放进包里", voice.display, clip.fileName));
        continue;
      }
      if (!writer.add({std::string(kAudioFolder) + clip.fileName, std::move(*bytes)})) throw tooLargeError();
      clips.push_back({{"file", clip.fileName}, {"text", clip.text}, {"durationMs", clip.durationMs}});
      ++summary.clips;
    }
    voices.push_back(voiceToPackJson(voice, std::move(clips)));
  }
  Json airlines = Json::object();
  for (const auto& [key, id] : selection.bindings) airlines[key] = id;
  const Json manifest{{"format", packFormat},
                      {"version", kPackVersion},
                      {"exportedAt", isoUtc(std::chrono::system_clock::now())},
                      {"voices", std::move(voices)},
                      {"airlines", std::move(airlines)}};
  if (!writer.add({std::string(packManifest), jsonData(manifest, /*pretty=*/true)})) throw tooLargeError();
  built.archive = writer.finish();
  summary.voices = static_cast<std::int64_t>(selection.voices.size());
  summary.bindings = static_cast<std::int64_t>(selection.bindings.size());
  summary.bytes = static_cast<std::int64_t>(built.archive.size());
  return built;
}

PackSummary writePack(const std::string& path, BuiltPack built) {
  if (const std::error_code ec = writeFileAtomic(path, built.archive)) {
    throw TtsError(TtsErrorCode::cloneFailed, TF("无法写入声音包:%s", ec.message()));
  }
  return std::move(built.summary);
}

// ---- Import ---------------------------------------------------------------------------

TtsError refusal(std::string message) { return TtsError(TtsErrorCode::badPack, std::move(message)); }

TtsError cannotOpen(const ZipError& error) {
  return refusal(TF("无法打开这个文件(%s)。.cln 是一个 zip 包 - 是不是选错了文件?", error.description()));
}

std::string corruptEntry(std::string_view name) { return TF("包里的 %s 已损坏,无法读取。", std::string(name)); }

// The manifest, or the refusal that ends the import before anything changed.
Json readManifest(ZipReader& reader) {
  if (!reader.contains(packManifest)) {
    throw refusal(TF("包里没有 %s - 这不是 KELVO 克隆包。", std::string(packManifest)));
  }
  auto bytes = reader.read(packManifest);
  std::optional<Json> manifest;
  if (bytes.ok() && bytes.value()) manifest = parseJsonObject(*bytes.value());
  if (!manifest) throw refusal(corruptEntry(packManifest));
  if (jStr(*manifest, "format") != packFormat) throw refusal(T("这不是 KELVO 克隆包(格式不符)。"));
  const auto voices = manifest->find("voices");
  const auto airlines = manifest->find("airlines");
  if (voices == manifest->end() || !voices->is_array() || (airlines != manifest->end() && !airlines->is_object())) {
    throw refusal(corruptEntry(packManifest));
  }
  return std::move(*manifest);
}

struct Importer {
  ZipReader& reader;
  VoiceLibrary& library;
  AppConfig& config;
  PackSummary summary;
  std::map<std::string, std::string> idFor;  // lower-cased pack voice id -> library voice id

  void addVoice(const Json& v) {
    VoiceCloneSpec spec;
    spec.display = jStr(v, "display");
    spec.language = normLang(jStr(v, "language"));
    spec.gender = parseGender(jStr(v, "gender", "default"));
    spec.style = jStr(v, "style");
    spec.note = jStr(v, "note");
    for (const Json& clip : jArr(v, "clips").value_or(Json::array())) {
      const std::string file = jStr(clip, "file");
      const std::string entry = std::string(kAudioFolder) + file;
      auto bytes = reader.read(entry);
      if (!bytes.ok()) {
        summary.notes.push_back(corruptEntry(entry));
      } else if (!bytes.value()) {
        summary.notes.push_back(TF("“%s”缺少一段音频(%s),已跳过这一段", spec.display, file));
      } else {
        spec.clips.push_back({*std::move(bytes).value(), jStr(clip, "text")});
      }
    }
    if (spec.clips.empty()) {
      summary.notes.push_back(TF("“%s”完全没有音频,无法导入", spec.display));
      return;
    }
    const std::string packId = toLower(trimmed(jStr(v, "id")));
    // The id rule picks the first free id, so this finds a voice only when
    // another import added the same one in the meantime.
    if (const auto existing = library.find(library.predictId(spec))) {
      ++summary.voicesReused;
      summary.notes.push_back(TF("“%s”已经存在,没有重复导入", spec.display));
      if (!packId.empty()) idFor[packId] = existing->id;
      return;
    }
    try {
      const VoiceInfo added = library.addClone(spec);
      ++summary.voicesAdded;
      summary.clips += static_cast<std::int64_t>(added.clips.size());
      if (!packId.empty()) idFor[packId] = added.id;
    } catch (const TtsError& e) {
      summary.notes.push_back(TF("导入“%s”失败:%s", spec.display, e.message));
    }
  }

  void bind(const std::string& key, const Json& value) {
    std::vector<std::string> parts;
    for (std::size_t from = 0;;) {
      const std::size_t colon = key.find(':', from);
      parts.push_back(key.substr(from, colon == std::string::npos ? colon : colon - from));
      if (colon == std::string::npos) break;
      from = colon + 1;
    }
    if (parts.size() < 3 || trimmed(parts[0]).empty()) {
      summary.notes.push_back(TF("“%s”不是有效的绑定键,已略过", key));
      return;
    }
    const auto target = value.is_string() ? idFor.find(toLower(trimmed(value.get<std::string>()))) : idFor.end();
    if (target == idFor.end()) {
      summary.notes.push_back(TF("绑定 %s 指向的声音没有导入,已略过这个绑定", key));
      return;
    }
    config.setAirlineVoice(parts[0], parts[1], parseGender(parts[2]), target->second);
    ++summary.bindings;
  }
};

PackSummary importOpened(ZipResult<ZipReader> opened, VoiceLibrary& library, AppConfig& config) {
  if (!opened.ok()) throw cannotOpen(opened.error());
  ZipReader reader = std::move(opened).value();
  const Json manifest = readManifest(reader);
  Importer importer{reader, library, config, {}, {}};
  for (const Json& voice : manifest.at("voices")) importer.addVoice(voice);
  if (const auto airlines = jObj(manifest, "airlines")) {
    for (const auto& [key, value] : airlines->items()) importer.bind(key, value);
  }
  PackSummary& summary = importer.summary;
  summary.voices = summary.voicesAdded + summary.voicesReused;
  summary.bytes = static_cast<std::int64_t>(reader.size());
  config.save();
  library.save();
  AppLog::info(kSource, "imported " + logText(summary));
  return std::move(summary);
}

}  // namespace

std::string PackSummary::describe() const {
  return TF("%d 个声音(%d 个新增,%d 个复用)· %d 段音频 · %d 个绑定 · %.1f MB", static_cast<int>(voices),
            static_cast<int>(voicesAdded), static_cast<int>(voicesReused), static_cast<int>(clips),
            static_cast<int>(bindings), megabytes(bytes));
}

Json packSummaryJson(const PackSummary& s) {
  return Json{{"voices", s.voices},
              {"voices_added", s.voicesAdded},
              {"voices_reused", s.voicesReused},
              {"bindings", s.bindings},
              {"clips", s.clips},
              {"bytes", s.bytes},
              {"notes", s.notes},
              {"summary", s.describe()}};
}

BuiltPack buildPack(const std::vector<std::string>& airlineKeys, const std::vector<std::string>& voiceIds,
                    const VoiceLibrary& voices, const AppConfig& config) {
  return build(airlineKeys, voiceIds, voices, &config);
}

PackSummary exportPack(const std::string& path, const std::vector<std::string>& airlineKeys, const VoiceLibrary& voices,
                       const AppConfig& config) {
  PackSummary summary = writePack(path, build(airlineKeys, {}, voices, &config));
  AppLog::info(kSource, "exported pack " + path + ": " + logText(summary));
  return summary;
}

PackSummary exportVoicePack(const std::string& path, const std::vector<std::string>& voiceIds,
                            const VoiceLibrary& voices) {
  PackSummary summary = writePack(path, build({}, voiceIds, voices, nullptr));
  AppLog::info(kSource, "exported voices-only pack " + path + ": " + logText(summary));
  return summary;
}

PackSummary importPack(std::span<const std::uint8_t> archive, VoiceLibrary& voices, AppConfig& config) {
  return importOpened(ZipReader::openView(archive), voices, config);
}

PackSummary importPack(const std::string& path, VoiceLibrary& voices, AppConfig& config) {
  return importOpened(ZipReader::openFile(path), voices, config);
}

std::string packFingerprint(const std::vector<std::string>& voiceIds, const std::vector<std::string>& airlineKeys,
                            const VoiceLibrary& voices, const AppConfig& config) {
  const Selection selection = select(airlineKeys, voiceIds, voices, &config);
  // Each entry's fields as a JSON array, so no text inside a field can make
  // two different contents read alike.
  std::string text;
  auto entry = [&](std::string_view tag, const Json& fields) {
    text += std::string(tag) + jsonString(fields, false) + "\n";
  };
  for (const auto& [key, id] : selection.bindings) entry("B|", Json::array({key, id}));
  for (const VoiceInfo& v : selection.voices) {
    entry("V|", Json::array({v.id, v.display, languageCode(v), code(v.gender), v.style, v.note}));
    for (const VoiceClip& clip : v.clips) {
      const auto bytes = readClip(voices, clip);
      entry("C|",
            Json::array({v.id, clip.fileName, clip.text, clip.durationMs, bytes ? sha256Bytes(*bytes) : "missing"}));
    }
  }
  for (const auto& id : selection.unknownIds) entry("V|", Json::array({id, "missing"}));
  return sha256Utf8(text);
}

}  // namespace kelvo
