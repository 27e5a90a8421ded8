// Every route of the API as one row: method, pattern, scope, handler and the
// documentation the OpenAPI document is built from. A new endpoint is a new
// row here (and its handler); dispatch, authorisation, metrics and the
// document follow from the row. Scopes: `speak` for what an announcement
// player needs (synthesis, listings, statistics, metrics, self-check),
// `admin` for everything that changes state, `open` only for health, the
// document itself, the browser console's static files (every /v1 call the
// page makes carries the key) and the hub (which has its own delete keys).
#include "KELVOCore/HttpConsole.h"
#include "KELVOCore/HttpOpenAi.h"
#include "KELVOCore/HttpRoutes.h"
#include "KELVOCore/OpenApi.h"

namespace kelvo {

namespace {

// {"type": t} for a plain type name, the schema itself otherwise.
Json typeSchema(const Json& t) { return t.is_string() ? Json{{"type", t}} : t; }

// An object schema whose listed members are all required (more may follow).
Json object(std::initializer_list<std::pair<const char*, Json>> members) {
  Json properties = Json::object();
  Json required = Json::array();
  for (const auto& [key, type] : members) {
    properties[key] = typeSchema(type);
    required.push_back(key);
  }
  return Json{{"type", "object"}, {"required", std::move(required)}, {"properties", std::move(properties)}};
}

// An object schema whose members are all optional (request bodies).
Json optionalObject(std::initializer_list<std::pair<const char*, Json>> members) {
  Json schema = object(members);
  schema.erase("required");
  return schema;
}

Json arrayOf(const Json& items) { return Json{{"type", "array"}, {"items", typeSchema(items)}}; }

Json voiceSchema() {
  return object({{"id", "string"},
                 {"display", "string"},
                 {"kind", Json{{"enum", Json::array({"profile", "cloned"})}}},
                 {"voice_profile", "string"},
                 {"language", "string"},
                 {"gender", Json{{"enum", Json::array({"default", "female", "male"})}}},
                 {"style", "string"},
                 {"note", "string"},
                 {"clip_count", "integer"},
                 {"clips", arrayOf(object({{"file", "string"}, {"text", "string"}, {"duration_ms", "integer"}}))}});
}

Json bindingSchema(bool airline) {
  Json b = object({{"key", "string"}, {"voice", "string"}, {"language", "string"}, {"gender", "string"}});
  if (airline) {
    b["properties"]["airline"] = Json{{"type", "string"}};
    b["required"].push_back("airline");
  }
  return b;
}

Json synthesisRequestSchema() {
  return optionalObject({{"text", "string"},
                         {"voice", "string"},
                         {"reference_id", "string"},
                         {"airline", "string"},
                         {"language", "string"},
                         {"gender", "string"},
                         {"style", "string"},
                         {"speed", "number"},
                         {"sample_rate", "integer"},
                         {"seed", "integer"},
                         {"priority", "string"},
                         {"format", "string"}});
}

std::vector<QueryParam> synthesisQuery() {
  return {{"text", "string", "the text to speak"},
          {"voice", "string", "voice id"},
          {"airline", "string", "ICAO code of the airline whose bound voice speaks"},
          {"language", "string", "language code, default auto"},
          {"gender", "string", "default, female or male"},
          {"style", "string", "style hint"},
          {"speed", "number", "speaking rate 0.5..2.0"},
          {"sample_rate", "integer", "output rate, 0 for the configured one"},
          {"seed", "integer", "sampling seed"},
          {"priority", "string", "high puts the job ahead in the queue"},
          {"format", "string", "wav (default), mp3, opus, flac or pcm"}};
}

Json packSummarySchema() {
  return object({{"voices", "integer"},
                 {"voices_added", "integer"},
                 {"voices_reused", "integer"},
                 {"bindings", "integer"},
                 {"clips", "integer"},
                 {"bytes", "integer"},
                 {"notes", arrayOf("string")},
                 {"summary", "string"}});
}

// The OpenAI error shape: {"error": {"message", "type", "param", "code"}}.
Json openAiErrorSchema(const std::vector<std::string>& codes) {
  return object({{"error", object({{"message", "string"},
                                   {"type", "string"},
                                   {"param", Json{{"type", Json::array({"string", "null"})}}},
                                   {"code", Json{{"enum", codes}}}})}});
}

Json keySchema() {
  return object({{"name", "string"}, {"scope", Json{{"enum", Json::array({"speak", "admin"})}}}, {"created", "string"}, {"last_used", "string"}});
}

}  // namespace

void TtsHttpService::addRoutes() {
  using P = const RouteParams&;
  using R = const HttpRequest&;
  const std::map<int, std::vector<std::string>> synthesisErrors{
      {400, {"bad_json", "empty_text", "bad_speed", "bad_format"}},
      {404, {"bad_voice"}},
      {413, {"text_too_long", "body_too_large"}},
      {500, {"engine_failed"}},
      {503, {"engine_not_connected", "queue_full"}},
      {504, {"timeout"}}};
  const Json healthSchema = object({{"status", Json{{"enum", Json::array({"ready", "degraded"})}}},
                                    {"version", "string"},
                                    {"engine", "string"},
                                    {"engine_detail", "string"},
                                    {"engine_ready", "boolean"},
                                    {"placeholder", "boolean"},
                                    {"engine_exe", "string"},
                                    {"compute", "string"},
                                    {"voices", "integer"},
                                    {"output_sample_rate", "integer"},
                                    {"ui_language", Json{{"enum", Json::array({"zh", "ja", "en"})}}}});
  for (const char* path : {"/v1/health", "/health"}) {
    routes_.add({.method = "GET",
                 .pattern = path,
                 .scope = Scope::open,
                 .handler = [this](R, P) { return health(); },
                 .doc = {.summary = "Whether the service and its engine are ready", .responseSchema = healthSchema},
                 .unthrottled = true});
  }
  routes_.add({.method = "GET",
               .pattern = "/v1/openapi.json",
               .scope = Scope::open,
               .handler = [this](R, P) { return HttpResponse::json(200, openApiDocument(routes_)); },
               .doc = {.summary = "This document",
                       .responseSchema = object({{"openapi", "string"}, {"info", "object"}, {"paths", "object"}})}});
  routes_.add({.method = "*",
               .pattern = "/v1/tts",
               .scope = Scope::speak,
               .handler = [this](R r, P) { return *synthesis(r, false); },
               .doc = {.summary = "Speak one line as WAV",
                       .description = "POST reads a JSON body; GET (and any other method) reads the query string. "
                                      "A repeated request whose If-None-Match is the answer's ETag gets 304.",
                       .query = synthesisQuery(),
                       .requestSchema = synthesisRequestSchema(),
                       .responseType = "audio/wav",
                       .responseHeaders = {"ETag", "X-KELVO-Result", "X-KELVO-Engine", "X-KELVO-Voice",
                                           "X-KELVO-Sample-Rate", "X-KELVO-Duration-Ms", "X-KELVO-Synth-Ms",
                                           "X-KELVO-Cache"},
                       .notModified = true,
                       .errors = synthesisErrors}});
  routes_.add({.method = "POST",
               .pattern = "/v1/audio/speech",
               .scope = Scope::speak,
               .handler = [this](R r, P) { return *speech(r, false); },
               .doc = {.summary = "Speak one line, OpenAI-compatible (audio.speech.create)",
                       .description = "\"voice\" is a voice id, a voice's display name or an airline code; "
                                      "response_format mp3 (default), opus, flac, wav or pcm. KELVO's language, "
                                      "gender, airline, style, seed and priority are read as extensions.",
                       .requestSchema = optionalObject({{"model", "string"},
                                                        {"input", "string"},
                                                        {"voice", Json{{"type", Json::array({"string", "object"})}}},
                                                        {"response_format", "string"},
                                                        {"speed", "number"},
                                                        {"instructions", "string"},
                                                        {"language", "string"},
                                                        {"gender", "string"},
                                                        {"airline", "string"}}),
                       .responseType = "audio/mpeg",
                       .responseHeaders = {"ETag", "X-KELVO-Result", "X-KELVO-Engine", "X-KELVO-Voice", "X-KELVO-Cache"},
                       .notModified = true,
                       .errors = {{400, {"bad_json", "empty_text", "bad_speed", "bad_format"}},
                                  {404, {"bad_voice"}},
                                  {405, {"method_not_allowed"}},
                                  {413, {"text_too_long", "body_too_large"}},
                                  {500, {"engine_failed"}},
                                  {503, {"engine_not_connected", "queue_full"}},
                                  {504, {"timeout"}}},
                       .errorSchema = openAiErrorSchema},
               .errorShape = openAiError});
  routes_.add({.method = "GET",
               .pattern = "/v1/models",
               .scope = Scope::speak,
               .handler = [this](R, P) { return models(); },
               .doc = {.summary = "The models, OpenAI-compatible (models.list)",
                       .responseSchema = object({{"object", "string"},
                                                 {"data", arrayOf(object({{"id", "string"},
                                                                          {"object", "string"},
                                                                          {"created", "integer"},
                                                                          {"owned_by", "string"}}))}}),
                       .errors = {{405, {"method_not_allowed"}}},
                       .errorSchema = openAiErrorSchema},
               .errorShape = openAiError});
  routes_.add({.method = "DELETE",
               .pattern = "/v1/prewarm",
               .scope = Scope::admin,
               .handler = [this](R, P) { return cancelPrewarm(); },
               .doc = {.summary = "Drop every pre-bake entry not yet started",
                       .responseSchema = object({{"dropped", "integer"}, {"pending", "integer"}})}});
  routes_.add({.method = "*",
               .pattern = "/v1/prewarm",
               .scope = Scope::admin,
               .handler = [this](R r, P) { return prewarm(r); },
               .doc = {.summary = "Pre-bake lines into the cache in the background",
                       .description = "A body with \"items\" is a list of synthesis requests that inherit the top "
                                      "level's airline, language, gender and speed; without it the body (or, on GET, "
                                      "the query) is one request. Progress shows as prewarm_pending in /v1/stats.",
                       .query = synthesisQuery(),
                       .requestSchema = optionalObject({{"items", arrayOf(synthesisRequestSchema())},
                                                        {"airline", "string"},
                                                        {"language", "string"},
                                                        {"gender", "string"},
                                                        {"speed", "number"}}),
                       .responseSchema = object({{"queued", "integer"},
                                                 {"cached", "integer"},
                                                 {"skipped_empty", "integer"},
                                                 {"pending", "integer"},
                                                 {"failed", "integer"}}),
                       .errors = {{400, {"bad_json"}}, {413, {"body_too_large"}}}}});
  const Json selfCheckSchema =
      object({{"ok", "boolean"},
              {"checks", arrayOf(object({{"name", "string"}, {"ok", "boolean"}, {"detail", "string"}}))},
              {"verdict", "string"}});
  for (const char* path : {"/v1/selftest", "/selftest"}) {
    routes_.add({.method = "GET",
                 .pattern = path,
                 .scope = Scope::speak,
                 .handler = [this](R r, P) { return selfCheck(r); },
                 .doc = {.summary = "Run the connectivity self-check",
                         .description = "Plain text, one line per check; JSON with format=json.",
                         .query = {{"text", "string", "line to try"},
                                   {"language", "string", "language code"},
                                   {"gender", "string", "default, female or male"},
                                   {"airline", "string", "ICAO airline code"},
                                   {"format", "string", "json for a JSON answer"}},
                         .responseSchema = selfCheckSchema,
                         .responseType = "text/plain; charset=utf-8"}});
  }
  for (const bool airlines : {true, false}) {
    const std::string path = airlines ? "/v1/airlines" : "/v1/defaults";
    const char* listKey = airlines ? "airlines" : "defaults";
    routes_.add({.method = "GET",
                 .pattern = path,
                 .scope = Scope::speak,
                 .handler = [this, airlines](R r, P) { return bindings(r, airlines); },
                 .doc = {.summary = airlines ? "List the airline voice bindings" : "List the default voices",
                         .responseSchema = object({{listKey, arrayOf(bindingSchema(airlines))}})}});
    routes_.add({.method = "PUT",
                 .pattern = path,
                 .scope = Scope::admin,
                 .handler = [this, airlines](R r, P) { return bindings(r, airlines); },
                 .doc = {.summary = airlines ? "Bind a voice to an airline, language and gender"
                                             : "Set the default voice of a language and gender",
                         .description = "An empty voice removes the binding.",
                         .requestSchema = optionalObject({{"airline", "string"},
                                                          {"language", "string"},
                                                          {"gender", "string"},
                                                          {"voice", "string"}}),
                         .responseSchema = object({{"key", "string"},
                                                   {"voice", "string"},
                                                   {listKey, arrayOf(bindingSchema(airlines))}}),
                         .errors = {{400, {"bad_json", "bad_request"}}, {404, {"not_found"}}}}});
  }
  routes_.add({.method = "GET",
               .pattern = "/v1/stats",
               .scope = Scope::speak,
               .handler = [this](R, P) { return stats(); },
               .doc = {.summary = "Synthesis, cache, queue and engine statistics",
                       .responseSchema = object({{"total", "integer"},
                                                 {"failed", "integer"},
                                                 {"cache_hits", "integer"},
                                                 {"cache_hit_rate", "number"},
                                                 {"cache_bytes", "integer"},
                                                 {"cache_count", "integer"},
                                                 {"queue_depth", "integer"},
                                                 {"prewarm_pending", "integer"},
                                                 {"prewarm_failed", "integer"},
                                                 {"prewarm_last_error", "string"},
                                                 {"prewarm_failures", arrayOf(object({{"number", "integer"},
                                                                                      {"text", "string"},
                                                                                      {"reason", "string"}}))},
                                                 {"busy", "boolean"},
                                                 {"p50_ms", "integer"},
                                                 {"p95_ms", "integer"},
                                                 {"rtf", "number"},
                                                 {"engine", "string"},
                                                 {"engine_detail", "string"},
                                                 {"engine_ready", "boolean"},
                                                 {"placeholder", "boolean"},
                                                 {"gpu", "string"}})}});
  routes_.add({.method = "GET",
               .pattern = "/v1/log",
               .scope = Scope::admin,
               .handler = [this](R r, P) { return logLines(r); },
               .doc = {.summary = "The most recent log lines",
                       .query = {{"lines", "integer", "how many, default 200"}},
                       .responseSchema = object({{"lines", arrayOf(object({{"id", "string"},
                                                                           {"level", "string"},
                                                                           {"source", "string"},
                                                                           {"text", "string"},
                                                                           {"line", "string"}}))}})}});
  routes_.add({.method = "DELETE",
               .pattern = "/v1/cache",
               .scope = Scope::admin,
               .handler = [this](R, P) { return clearCache(); },
               .doc = {.summary = "Empty the audio cache", .responseSchema = object({{"cleared", "boolean"}})}});
  routes_.add({.method = "*", .pattern = "/v1/cache"});  // any other method: 404, as for a path nobody serves
  routes_.add({.method = "GET",
               .pattern = "/metrics",
               .scope = Scope::speak,
               .handler = [this](R, P) { return metrics(); },
               .doc = {.summary = "Prometheus metrics (text exposition format 0.0.4)",
                       .responseType = "text/plain; version=0.0.4; charset=utf-8"}});

  routes_.add({.method = "GET",
               .pattern = "/v1/voices",
               .scope = Scope::speak,
               .handler = [this](R, P) { return listVoices(); },
               .doc = {.summary = "List the voice library", .responseSchema = object({{"voices", arrayOf(voiceSchema())}})}});
  routes_.add({.method = "POST", .pattern = "/v1/voices"});  // 404: POST below /v1/voices/ is clone's alone
  routes_.add({.method = "POST",
               .pattern = "/v1/voices/clone",
               .scope = Scope::admin,
               .handler = [this](R r, P) { return cloneVoice(r); },
               .doc = {.summary = "Clone a voice from reference clips",
                       .description = "Reference audio (WAV, MP3 or Ogg Vorbis) as base64: one \"audio\" with "
                                      "\"reference_text\", or \"clips\" of {audio, text}.",
                       .requestSchema = optionalObject({{"display", "string"},
                                                        {"language", "string"},
                                                        {"gender", "string"},
                                                        {"style", "string"},
                                                        {"note", "string"},
                                                        {"audio", "string"},
                                                        {"reference_text", "string"},
                                                        {"clips", arrayOf(optionalObject({{"audio", "string"},
                                                                                          {"text", "string"},
                                                                                          {"reference_text", "string"}}))}}),
                       .responseSchema = voiceSchema(),
                       .errors = {{400, {"bad_json", "bad_audio"}},
                                  {413, {"body_too_large"}},
                                  {500, {"clone_failed"}}}}});
  // Before the {id} rows, whose last parameter would take "ID/clips/N" whole.
  routes_.add({.method = "GET",
               .pattern = "/v1/voices/{id}/clips/{n}",
               .scope = Scope::speak,
               .handler = [this](R, P p) { return voiceClip(p.at("id"), p.at("n")); },
               .doc = {.summary = "One reference clip of a voice, as stored",
                       .description = "n counts from 0 in the order of the voice's \"clips\". The answer is WAV, "
                                      "MP3 or Ogg, with that content type.",
                       .responseType = "audio/wav",
                       .errors = {{404, {"not_found"}}}}});
  routes_.add({.method = "POST", .pattern = "/v1/voices/{id}"});
  routes_.add({.method = "GET",
               .pattern = "/v1/voices/{id}",
               .scope = Scope::speak,
               .handler = [this](R, P p) { return getVoice(p.at("id")); },
               .doc = {.summary = "One voice of the library",
                       .responseSchema = voiceSchema(),
                       .errors = {{404, {"not_found"}}}}});
  routes_.add({.method = "DELETE",
               .pattern = "/v1/voices/{id}",
               .scope = Scope::admin,
               .handler = [this](R, P p) { return removeVoice(p.at("id")); },
               .doc = {.summary = "Remove a voice and its bindings",
                       .responseSchema = object({{"removed", "string"}}),
                       .errors = {{404, {"not_found"}}}}});

  routes_.add({.method = "POST",
               .pattern = "/v1/packs/export",
               .scope = Scope::admin,
               .handler = [this](R r, P) { return exportPack(r); },
               .doc = {.summary = "Export voices and airline bindings as a .cln pack",
                       .requestSchema = optionalObject({{"airlines", arrayOf("string")}, {"voices", arrayOf("string")}}),
                       .responseType = "application/zip",
                       .responseHeaders = {"Content-Disposition", "X-KELVO-Pack"},
                       .errors = {{400, {"bad_json", "bad_request"}}, {404, {"not_found"}}}}});
  routes_.add({.method = "POST",
               .pattern = "/v1/packs/import",
               .scope = Scope::admin,
               .handler = [this](R r, P) { return importPack(r); },
               .doc = {.summary = "Import a .cln pack: its voices and airline bindings",
                       .requestSchema = Json{{"type", "string"}, {"contentMediaType", "application/zip"}},
                       .requestType = "application/zip",
                       .responseSchema = packSummarySchema(),
                       .errors = {{400, {"bad_pack"}}, {413, {"body_too_large"}}, {500, {"clone_failed"}}}},
               .spoolsBody = true});
  routes_.add({.method = "POST",
               .pattern = "/v1/hub/shares",
               .scope = Scope::admin,
               .handler = [this](R r, P) { return shareOnHubRoute(r); },
               .doc = {.summary = "Share voices and airline bindings of this installation on the sharing hub",
                       .description = "\"hub\" names the hub's base address; without it KELVO_HUB_URL. The share's "
                                      "delete key stays in this installation's configuration.",
                       .requestSchema = optionalObject({{"title", "string"},
                                                        {"airlines", arrayOf("string")},
                                                        {"voices", arrayOf("string")},
                                                        {"hub", "string"}}),
                       .responseSchema = object({{"id", "string"}, {"unchanged", "boolean"}, {"pack", packSummarySchema()}}),
                       .errors = {{400, {"bad_json", "bad_request"}}, {404, {"bad_voice", "not_found"}}, {500, {"clone_failed"}}}}});
  routes_.add({.method = "DELETE",
               .pattern = "/v1/hub/shares/{id}",
               .scope = Scope::admin,
               .handler = [this](R r, P p) { return unshareFromHubRoute(r, p.at("id")); },
               .doc = {.summary = "Take one of this installation's shares down from the sharing hub",
                       .query = {{"hub", "string", "the hub's base address; default KELVO_HUB_URL"}},
                       .responseSchema = object({{"id", "string"}, {"removed", "boolean"}}),
                       .errors = {{400, {"bad_request"}}, {404, {"not_found"}}, {500, {"clone_failed"}}}}});

  routes_.add({.method = "GET",
               .pattern = "/v1/keys",
               .scope = Scope::admin,
               .handler = [this](R, P) { return listKeys(); },
               .doc = {.summary = "List the API keys (never the keys themselves)",
                       .responseSchema = object({{"keys", arrayOf(keySchema())}})}});
  routes_.add({.method = "POST",
               .pattern = "/v1/keys",
               .scope = Scope::admin,
               .handler = [this](R r, P) { return addKey(r); },
               .doc = {.summary = "Make a new API key; the answer is the only time it is shown",
                       .requestSchema = object({{"name", "string"}, {"scope", Json{{"enum", Json::array({"speak", "admin"})}}}}),
                       .responseSchema = object({{"name", "string"},
                                                 {"scope", Json{{"enum", Json::array({"speak", "admin"})}}},
                                                 {"key", "string"}}),
                       .errors = {{400, {"bad_json", "bad_request"}}, {409, {"key_exists"}}}}});
  routes_.add({.method = "DELETE",
               .pattern = "/v1/keys/{name}",
               .scope = Scope::admin,
               .handler = [this](R, P p) { return removeKey(p.at("name")); },
               .doc = {.summary = "Revoke an API key at once",
                       .responseSchema = object({{"removed", "string"}}),
                       .errors = {{404, {"not_found"}}}}});

  // The console's own files are constant bytes in memory: a page load (some
  // fifteen of them) must not eat into a rate limit meant for the API calls.
  for (const char* path : {"/", "/console"}) {
    routes_.add({.method = "GET",
                 .pattern = path,
                 .scope = Scope::open,
                 .handler = [](R, P) { return consoleRedirect(); },
                 .doc = {.summary = "Redirect to the browser console",
                         .responseType = "",
                         .status = 302,
                         .responseHeaders = {"Location"}},
                 .unthrottled = true});
  }
  const RouteDoc consoleDoc{.summary = "The browser console: HTML, CSS and ES modules built into the binary",
                            .description = "It calls only the /v1 API, with the key the user gives it.",
                            .responseType = "text/html",
                            .responseHeaders = consoleHeaderNames(),
                            .notModified = true,
                            .errors = {{404, {"not_found"}}}};
  routes_.add({.method = "GET",
               .pattern = "/console/",
               .scope = Scope::open,
               .handler = [](R r, P) { return consoleFile(r, ""); },
               .doc = consoleDoc,
               .unthrottled = true});
  routes_.add({.method = "GET",
               .pattern = "/console/{file}",
               .scope = Scope::open,
               .handler = [](R r, P p) { return consoleFile(r, p.at("file")); },
               .doc = consoleDoc,
               .unthrottled = true});
}

void TtsHttpService::setHubStore(std::shared_ptr<HubStore> hub) {
  hub_ = std::move(hub);
  routes_.add({.method = "*",
               .pattern = "/api/hub.php",
               .scope = Scope::open,
               .handler = [this](const HttpRequest& r, const RouteParams&) { return hub_->handle(r); },
               .doc = {.summary = "The sharing hub: a=list, a=download (GET), a=upload, a=delete (POST)",
                       .description = "Uploads are multipart forms with a \"pack\" file; deleting needs the "
                                      "share's delete key, shown once at upload.",
                       .query = {{"a", "string", "list, download, upload or delete"}, {"id", "string", "share id"}},
                       .requestSchema = Json{{"type", "string"}},
                       .requestType = "multipart/form-data",
                       .responseSchema = Json{{"type", "object"}},
                       .errors = {{400, {"unknown_action", "bad_form", "bad_field", "not_a_pack"}},
                                  {403, {"wrong_delete_key"}},
                                  {404, {"not_found"}},
                                  {405, {"method_not_allowed"}},
                                  {413, {"pack_too_large", "body_too_large"}},
                                  {429, {"too_many_uploads"}},
                                  {500, {"cannot_store"}}}}});
}

}  // namespace kelvo
