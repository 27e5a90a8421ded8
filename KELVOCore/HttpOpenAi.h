// The OpenAI-compatible face of the API: what `POST /v1/audio/speech` and
// `GET /v1/models` read and answer, so that clients built on the OpenAI SDKs
// (and the tools that embed them) reach KELVO by changing their base URL.
//
// The speech body {"model", "input", "voice", "response_format", "speed",
// "instructions"} becomes an ordinary synthesis request: "model" is accepted
// whatever it says, "instructions" is the style, and KELVO's own "language",
// "gender", "airline", "style", "seed" and "priority" are read as extensions.
// Errors take the OpenAI shape {"error": {"message", "type", "param", "code"}}
// with the statuses of the native API.
//
// Thread-safe: the functions are pure apart from reading the voice library
// and configuration, which guard themselves. Cost: a few hash lookups.
#pragma once

#include <string>

#include "KELVOCore/AudioFormat.h"
#include "KELVOCore/Config.h"
#include "KELVOCore/HttpServer.h"
#include "KELVOCore/Voices.h"

namespace kelvo {

// The speeds the OpenAI API accepts; KELVO then clamps to its own 0.5..2.
inline constexpr double openAiSpeedMin = 0.25;
inline constexpr double openAiSpeedMax = 4.0;

struct SpeechCall {
  TtsRequest tts;
  AudioFormat format = AudioFormat::mp3;
  // Set when the body is refused before synthesis: a 400 in the OpenAI shape.
  std::optional<HttpResponse> refusal;
};

// Reads a speech body. "voice" (a string, or an object with "id") is matched
// in this order: a voice id, a voice's display name ignoring case, an airline
// code with bindings (which then route by "language" and "gender"); anything
// else stays a voice id and is refused by the pipeline as an unknown voice.
// No voice at all means the default voice of language and gender.
SpeechCall speechCallFromJson(const Json& body, const VoiceLibrary& voices, const AppConfig& config);

// Whether a lower-cased path is one of the OpenAI-compatible routes, whose
// refusals (rate limit included) take the OpenAI shape.
bool isOpenAiPath(std::string_view path);

// The native 400 for an audio format that does not exist, naming those that do.
HttpResponse unknownAudioFormat(std::string_view name);

// The OpenAI shape of a native error answer {"error": code, "message": text}:
// type "invalid_request_error" for 4xx ("rate_limit_error" for 429),
// "server_error" for 5xx; "param" names the request member at fault when the
// code tells it (input, voice, speed, response_format), else null; status
// and headers are kept. Any other answer comes back unchanged.
HttpResponse openAiError(HttpResponse native);

// The /v1/models list: "kelvo", "tts-1" and "tts-1-hd", all this engine,
// each naming the engine that speaks now.
Json openAiModels(const std::string& engineName);

}  // namespace kelvo
