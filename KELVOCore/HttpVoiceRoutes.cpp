// The routes that change what the service speaks with: the voice library
// (list, clone, remove) and the airline and default-voice bindings.
#include <algorithm>
#include <memory>

#include "KELVOCore/AudioDecode.h"
#include "KELVOCore/Base64.h"
#include "KELVOCore/Files.h"
#include "KELVOCore/HttpRoutes.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Log.h"

namespace kelvo {

namespace {

HttpResponse noSuchVoice(const std::string& id) {
  return HttpResponse::error(404, "not_found", T("没有这个音色:") + id);
}

HttpResponse badAudio(std::string_view zhMessage) {
  return HttpResponse::error(400, errorName(TtsErrorCode::badAudio), T(zhMessage));
}

// One binding as the API shows it: the stored key and its parts.
Json bindingJson(const std::string& key, const std::string& voice, bool airline) {
  std::vector<std::string> parts;
  std::size_t from = 0;
  for (std::size_t colon; (colon = key.find(':', from)) != std::string::npos; from = colon + 1) {
    parts.push_back(key.substr(from, colon - from));
  }
  parts.push_back(key.substr(from));
  Json j{{"key", key}, {"voice", voice}};
  const std::size_t offset = airline ? 1 : 0;
  if (airline && !parts.empty()) j["airline"] = parts[0];
  j["language"] = parts.size() > offset && !parts[offset].empty() ? parts[offset] : "auto";
  j["gender"] = parts.size() > offset + 1 ? parts[offset + 1] : "default";
  return j;
}

Json bindingsJson(const KeyValueList& list, bool airline) {
  Json out = Json::array();
  for (const auto& [key, voice] : list) out.push_back(bindingJson(key, voice, airline));
  return out;
}

}  // namespace

Json voiceToJson(const VoiceInfo& voice) {
  Json clips = Json::array();
  for (const VoiceClip& c : voice.clips) {
    clips.push_back(Json{{"file", c.fileName}, {"text", c.text}, {"duration_ms", c.durationMs}});
  }
  return Json{{"id", voice.id},
              {"display", voice.display},
              {"kind", voice.kind == VoiceKind::profile ? "profile" : "cloned"},
              {"voice_profile", voice.profileFile},
              {"language", voice.language},
              {"gender", std::string(code(voice.gender))},
              {"style", voice.style},
              {"note", voice.note},
              {"clip_count", voice.clips.size()},
              {"clips", std::move(clips)}};
}

HttpResponse TtsHttpService::bindings(const HttpRequest& request, bool airlines) {
  AppConfig& config = service_->config();
  const char* listKey = airlines ? "airlines" : "defaults";
  if (request.method == "GET") {
    return HttpResponse::json(
        200, Json{{listKey, bindingsJson(airlines ? config.airlinesSnapshot() : config.defaultsSnapshot(), airlines)}});
  }
  if (request.method != "PUT") return methodNotAllowed(request.method);

  const std::optional<Json> body = parseJsonObject(request.body);
  if (!body) return badJson();
  const std::string airline = normAirline(jStr(*body, "airline"));
  const std::string language = jStr(*body, "language", "auto");
  const TtsGender gender = parseGender(jStr(*body, "gender", "default"));
  std::string voiceId = trimmed(jStr(*body, "voice"));
  if (airlines && airline.empty()) {
    return HttpResponse::error(400, "bad_request", T("缺少航司(ICAO 三字码)"));
  }
  if (!voiceId.empty()) {
    const std::optional<VoiceInfo> voice = service_->voices().find(voiceId);
    if (!voice) return noSuchVoice(voiceId);
    voiceId = voice->id;
  }
  // An empty voice removes the binding: that is how a client unbinds.
  if (airlines) config.setAirlineVoice(airline, language, gender, voiceId);
  else config.setDefaultVoice(language, gender, voiceId);
  config.save();

  const std::string key = airlines ? airlineKey(airline, language, gender) : defaultKey(language, gender);
  AppLog::info("http", std::string(voiceId.empty() ? "unbound " : "bound ") + key + (voiceId.empty() ? "" : " to " + voiceId));
  return HttpResponse::json(
      200, Json{{"key", key},
                {"voice", voiceId},
                {listKey, bindingsJson(airlines ? config.airlinesSnapshot() : config.defaultsSnapshot(), airlines)}});
}

HttpResponse TtsHttpService::listVoices() {
  Json list = Json::array();
  for (const VoiceInfo& v : service_->voices().all()) list.push_back(voiceToJson(v));
  return HttpResponse::json(200, Json{{"voices", std::move(list)}});
}

HttpResponse TtsHttpService::getVoice(const std::string& id) {
  const std::optional<VoiceInfo> voice = service_->voices().find(id);
  return voice ? HttpResponse::json(200, voiceToJson(*voice)) : noSuchVoice(id);
}

HttpResponse TtsHttpService::voiceClip(const std::string& id, const std::string& index) {
  const std::optional<VoiceInfo> voice = service_->voices().find(id);
  if (!voice) return noSuchVoice(id);
  const bool digits = !index.empty() && index.size() < 6 &&
                      std::all_of(index.begin(), index.end(), [](char c) { return c >= '0' && c <= '9'; });
  const std::size_t n = digits ? std::stoul(index) : voice->clips.size();
  const std::string path = n < voice->clips.size() ? service_->voices().clipPath(voice->clips[n]) : "";
  std::optional<OpenFile> file = path.empty() ? std::nullopt : OpenFile::open(path);
  // Only the start is read to name the type; the server sends the rest from the file.
  Bytes start(file ? std::min<std::uint64_t>(file->size(), kSniffBytes) : 0);
  if (!file || !file->readAt(0, start)) {
    return HttpResponse::error(404, "not_found", T("这个音色没有这段参考音频:") + index);
  }
  const std::string extension = sniffExtension(start);
  HttpResponse r;
  r.headers["Content-Type"] = extension == ".mp3"   ? "audio/mpeg"
                              : extension == ".ogg" ? "audio/ogg"
                              : extension == ".wav" ? "audio/wav"
                                                    : "application/octet-stream";
  r.bodyFile = std::make_shared<const OpenFile>(std::move(*file));
  return r;
}

HttpResponse TtsHttpService::removeVoice(const std::string& id) {
  if (!service_->voices().remove(id)) return noSuchVoice(id);
  AppLog::info("http", "voice removed over the API: " + id);
  return HttpResponse::json(200, Json{{"removed", id}});
}

HttpResponse TtsHttpService::cloneVoice(const HttpRequest& request) {
  const std::optional<Json> body = parseJsonObject(request.body);
  if (!body) return badJson();

  VoiceCloneSpec spec;
  spec.display = jStr(*body, "display");
  spec.language = normLang(jStr(*body, "language", "auto"));
  spec.gender = parseGender(jStr(*body, "gender", "default"));
  spec.style = jStr(*body, "style");
  spec.note = jStr(*body, "note");
  if (const std::optional<Json> clips = jArr(*body, "clips")) {
    for (const Json& clip : *clips) {
      const std::optional<Bytes> audio = base64Decode(jStr(clip, "audio"));
      if (!audio) return badAudio("clips 里有一段不是合法的 base64");
      if (audio->empty()) continue;
      std::string text = jStr(clip, "text");
      if (trimmed(text).empty()) text = jStr(clip, "reference_text");
      spec.clips.push_back(VoiceClipInput{*audio, std::move(text)});
    }
    if (spec.clips.empty()) return badAudio("clips 里没有可用的音频");
  } else if (body->contains("audio")) {
    const std::optional<Bytes> audio = base64Decode(jStr(*body, "audio"));
    if (!audio) return badAudio("audio 不是合法的 base64");
    spec.clips.push_back(VoiceClipInput{*audio, jStr(*body, "reference_text")});
  } else {
    return badAudio("缺少 audio 字段(base64 参考音频),多段请用 clips 数组");
  }

  try {
    std::vector<std::string> warnings;
    VoiceInfo voice = service_->voices().addClone(spec, &warnings);
    // An engine that keeps its own copy of the voice hands back a profile to use instead.
    const std::string reference = service_->activeEngine()->registerReference(spec);
    if (!reference.empty()) {
      voice.profileFile = reference;
      service_->voices().update(voice);
    }
    AppLog::info("http", "voice cloned over the API: " + voice.id + " (" + std::to_string(voice.clips.size()) + " clip(s))");
    Json answer = voiceToJson(voice);
    answer["warnings"] = warnings;
    return HttpResponse::json(200, answer);
  } catch (const TtsError& e) {
    return HttpResponse::error(e.httpStatus(), errorName(e.code), e.message);
  } catch (const std::exception& e) {
    return HttpResponse::error(500, "internal", e.what());
  }
}

}  // namespace kelvo
