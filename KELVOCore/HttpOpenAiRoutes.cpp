// The OpenAI-compatible routes: POST /v1/audio/speech runs the same pipeline
// as /v1/tts (routing, cache, queue, deadlines, statistics, tags and 304) and
// GET /v1/models lists this engine under the names clients send.
#include <algorithm>

#include "KELVOCore/HttpOpenAi.h"
#include "KELVOCore/HttpRoutes.h"
#include "KELVOCore/I18n.h"

namespace kelvo {

namespace {

constexpr std::string_view kSpeechRoute = "/v1/audio/speech";

// The request member a native error code is about, as the OpenAI body names it.
Json paramFor(std::string_view code) {
  if (code == errorName(TtsErrorCode::emptyText) || code == errorName(TtsErrorCode::textTooLong)) return "input";
  if (code == errorName(TtsErrorCode::badVoice)) return "voice";
  if (code == errorName(TtsErrorCode::badSpeed)) return "speed";
  if (code == "bad_format") return "response_format";
  return nullptr;
}

std::string errorType(std::int64_t status) {
  if (status == 429) return "rate_limit_error";
  return status >= 500 ? "server_error" : "invalid_request_error";
}

// The voice member: a plain string, or {"id": ...} as newer SDKs send custom voices.
std::string voiceName(const Json& body) {
  const auto it = body.find("voice");
  if (it != body.end() && it->is_object()) return trimmed(jStr(*it, "id"));
  return trimmed(jStr(body, "voice"));
}

}  // namespace

bool isOpenAiPath(std::string_view path) { return path.starts_with("/v1/audio/") || path == "/v1/models"; }

HttpResponse unknownAudioFormat(std::string_view name) {
  return HttpResponse::error(400, "bad_format",
                             TF("没有这种音频格式:%s。可用的格式:%s", std::string(name), audioFormatList()));
}

SpeechCall speechCallFromJson(const Json& body, const VoiceLibrary& voices, const AppConfig& config) {
  // The native reader takes the extensions; only the OpenAI names are mapped.
  Json native = body;
  native["text"] = body.contains("input") ? body["input"] : Json("");
  native.erase("voice");
  native.erase("reference_id");
  if (trimmed(jStr(body, "style")).empty()) native["style"] = jStr(body, "instructions");
  SpeechCall call;
  call.tts = requestFromJson(native);

  const double speed = jFloat(body, "speed", 1.0);
  if (!(speed >= openAiSpeedMin && speed <= openAiSpeedMax)) {
    call.refusal = HttpResponse::error(400, errorName(TtsErrorCode::badSpeed),
                                       TF("speed 必须在 %.2f 到 %.1f 之间", openAiSpeedMin, openAiSpeedMax));
    return call;
  }
  const std::string formatName = jStr(body, "response_format");
  const std::optional<AudioFormat> format =
      trimmed(formatName).empty() ? AudioFormat::mp3 : parseAudioFormat(formatName);
  if (!format) {
    call.refusal = unknownAudioFormat(formatName);
    return call;
  }
  call.format = *format;

  const std::string voice = voiceName(body);
  if (voice.empty()) return call;
  if (voices.find(voice)) {
    call.tts.voiceId = voice;
  } else if (const std::optional<VoiceInfo> named = voices.findByDisplay(voice)) {
    call.tts.voiceId = named->id;
  } else if (const std::vector<std::string> airlines = config.knownAirlines();
             std::find(airlines.begin(), airlines.end(), normAirline(voice)) != airlines.end()) {
    call.tts.airline = normAirline(voice);
  } else {
    call.tts.voiceId = voice;  // the pipeline refuses it as an unknown voice
  }
  return call;
}

HttpResponse openAiError(HttpResponse native) {
  if (native.status < 400) return native;
  const std::optional<Json> body = parseJsonObject(native.body);
  if (!body || !body->contains("message")) return native;
  const std::string code = jStr(*body, "error");
  HttpResponse shaped = HttpResponse::json(
      native.status,
      Json{{"error",
            {{"message", jStr(*body, "message")}, {"type", errorType(native.status)}, {"param", paramFor(code)},
             {"code", code}}}});
  for (auto& [name, value] : native.headers) shaped.headers.try_emplace(name, std::move(value));
  return shaped;
}

Json openAiModels(const std::string& engineName) {
  Json data = Json::array();
  for (const char* id : {"kelvo", "tts-1", "tts-1-hd"}) {
    data.push_back(Json{{"id", id}, {"object", "model"}, {"created", 0}, {"owned_by", "kelvo"}, {"engine", engineName}});
  }
  return Json{{"object", "list"}, {"data", std::move(data)}};
}

std::optional<HttpResponse> TtsHttpService::speech(const HttpRequest& request, bool cachedOnly) {
  // The quick path answers cache hits only; every refusal is the full path's.
  const auto refuse = [&](HttpResponse refusal) -> std::optional<HttpResponse> {
    if (cachedOnly) return std::nullopt;
    return openAiError(refuseSpeech(request, kSpeechRoute, std::move(refusal)));
  };
  if (request.method != "POST") return cachedOnly ? std::nullopt : std::optional(openAiError(methodNotAllowed(request.method)));
  const std::optional<Json> body = parseJsonObject(request.body);
  if (!body) return refuse(badJson());
  SpeechCall call = speechCallFromJson(*body, service_->voices(), service_->config());
  if (call.refusal) return refuse(std::move(*call.refusal));
  std::optional<HttpResponse> answer = speak(request, std::move(call.tts), call.format, kSpeechRoute, cachedOnly);
  if (answer) answer = openAiError(std::move(*answer));
  return answer;
}

HttpResponse TtsHttpService::models() {
  return HttpResponse::json(200, openAiModels(service_->activeEngine()->name()));
}

}  // namespace kelvo
