#include "KELVOCore/HttpRoutes.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>
#include <thread>

#include "KELVOCore/Base64.h"
#include "KELVOCore/EnginePlaceholder.h"
#include "KELVOCore/Files.h"
#include "KELVOCore/HubStore.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Version.h"
#include "KELVOCore/Wav.h"
#include "tests/TestSupport.h"

namespace kelvo {
namespace {

using namespace std::chrono_literals;

// Sleeps before answering, so the queue's deadline can pass while it works.
class SlowEngine final : public TtsEngine {
 public:
  std::string name() const override { return "slow"; }
  bool ready() const override { return true; }
  void configure(const EngineOptions&) override {}
  EngineOptions options() const override { return {}; }
  EngineHealth checkHealth() override { return {true, "slow", "test", "", {}}; }
  PcmBuffer synthesize(const S2Params&, const VoiceHint&) override {
    std::this_thread::sleep_for(300ms);
    return PcmBuffer::silence(24000, 500);
  }
};

// Five seconds of a tone: long enough to pass the library's clip checks.
std::string toneWavBase64() {
  PcmBuffer pcm;
  pcm.sampleRate = 16000;
  for (int i = 0; i < 16000 * 5; ++i) pcm.data.push_back(0.3f * static_cast<float>((i / 20) % 2 * 2 - 1));
  return base64Encode(buildWav(pcm, 1));
}

class HttpRoutesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setUiLang(UiLang::en);
    makeService(std::make_shared<PlaceholderEngine>());
  }
  void TearDown() override {
    api.reset();
    if (service) service->shutdown();
    setUiLang(UiLang::automatic);
  }

  void makeService(std::shared_ptr<TtsEngine> standIn) {
    api.reset();
    if (service) service->shutdown();
    TtsService::Parts parts;
    parts.config = std::make_shared<AppConfig>(dir.path() + "data/config.json");
    parts.voices = std::make_shared<VoiceLibrary>(dir.path() + "data/voices.json", dir.path() + "clone/");
    parts.voices->setConfig(parts.config);
    parts.cache = std::make_shared<WavCache>(dir.path() + "temp/");
    parts.s2 = std::make_shared<S2LocalEngine>(EngineOptions{}, dir.path());
    parts.placeholder = std::move(standIn);
    parts.config->setAutoCreateDefaultVoice(false);
    parts.config->setRateLimitPerMinute(limit);
    parts.config->setQueueLimit(queueLimit);
    service = TtsService::create(parts);
    api = std::make_unique<TtsHttpService>(service, [this] { return now; });
  }

  HttpResponse call(std::string method, std::string target, std::string body = {},
                    HttpHeaders headers = {}) {
    HttpRequest r;
    r.method = std::move(method);
    const std::size_t q = target.find('?');
    r.path = target.substr(0, q);
    if (q != std::string::npos) r.query = target.substr(q + 1);
    r.body.assign(body.begin(), body.end());
    r.headers = std::move(headers);
    r.peer = peer;
    return api->dispatch(r);
  }

  // The id of a new voice cloned from a tone over the API.
  std::string cloneTone(const std::string& display, const std::string& extra = {}) {
    const HttpResponse r = call("POST", "/v1/voices/clone", R"({"display":")" + display + R"(","audio":")" +
                                                                toneWavBase64() + R"(","reference_text":"welcome aboard")" +
                                                                extra + "}");
    EXPECT_EQ(r.status, 200) << std::string(r.body.begin(), r.body.end());
    return jStr(body(r), "id");
  }

  static Json body(const HttpResponse& r) {
    return parseJsonObject(std::span<const std::uint8_t>(r.body)).value_or(Json());
  }

  test::TempDir dir;
  std::int64_t limit = 0;
  std::int64_t queueLimit = 8;
  std::string peer = "10.0.0.7";
  std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now();
  std::shared_ptr<TtsService> service;
  std::unique_ptr<TtsHttpService> api;
};

// Every refusal of the table: status, error code and the words that tell the
// client what was wrong.
TEST_F(HttpRoutesTest, RefusalsNameWhatWasWrong) {
  service->config().setMaxTextLength(10);
  struct Case {
    std::string method, target, body;
    std::int64_t status;
    std::string error, message;
  };
  const std::vector<Case> cases = {
      {"POST", "/v1/tts", "[1,2]", 400, "bad_json", "request body is not valid JSON"},
      {"POST", "/v1/tts", R"({"text":"  "})", 400, "empty_text", "no text to synthesise"},
      {"POST", "/v1/tts", R"({"text":"eleven char"})", 413, "text_too_long", "11 characters, over the 10 limit"},
      {"POST", "/v1/tts", R"({"text":"hi","voice":"nobody"})", 404, "bad_voice", ""},
      {"POST", "/v1/tts", R"({"text":"hi","airline":"UAL"})", 404, "bad_voice", "UAL"},
      {"POST", "/v1/health", "", 405, "method_not_allowed", "POST is not allowed on this path"},
      {"PUT", "/v1/stats", "", 405, "method_not_allowed", "PUT is not allowed on this path"},
      {"GET", "/v1/cache", "", 404, "not_found", "no such path: /v1/cache"},
      {"GET", "/v1/nothing", "", 404, "not_found", "no such path: /v1/nothing"},
      {"PUT", "/v1/airlines", R"({"voice":"x"})", 400, "bad_request", "missing airline (ICAO three-letter code)"},
      {"PUT", "/v1/airlines", R"({"airline":"UAL","voice":"ghost"})", 404, "not_found", "no such voice: ghost"},
      {"PUT", "/v1/defaults", "not json", 400, "bad_json", "not valid JSON"},
      {"DELETE", "/v1/airlines", "", 405, "method_not_allowed", "DELETE is not allowed"},
      {"DELETE", "/v1/voices/ghost", "", 404, "not_found", "no such voice: ghost"},
      {"PUT", "/v1/voices", "", 405, "method_not_allowed", ""},
      {"POST", "/v1/voices/ghost", "{}", 404, "not_found", "no such path"},
      {"POST", "/v1/voices/clone", R"({"display":"x"})", 400, "bad_audio",
       "missing the audio field (base64 reference audio), or use the clips array for several"},
      {"POST", "/v1/voices/clone", R"({"audio":"%%%"})", 400, "bad_audio", "audio is not valid base64"},
      {"POST", "/v1/voices/clone", R"({"clips":[{"audio":"QUJD"},{"audio":"*"}]})", 400, "bad_audio",
       "one entry in clips is not valid base64"},
      {"POST", "/v1/voices/clone", R"({"clips":[{"audio":""}]})", 400, "bad_audio", "clips contains no usable audio"},
      {"POST", "/v1/voices/clone", R"({"audio":"QUJDRA==","reference_text":"x"})", 400, "bad_audio", ""},
      {"POST", "/v1/prewarm", "[]", 400, "bad_json", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.method + " " + c.target + " " + c.body);
    const HttpResponse r = call(c.method, c.target, c.body);
    EXPECT_EQ(r.status, c.status);
    const Json j = body(r);
    EXPECT_EQ(jStr(j, "error"), c.error);
    EXPECT_NE(jStr(j, "message").find(c.message), std::string::npos) << jStr(j, "message");
    EXPECT_EQ(r.headers.at("Content-Type"), "application/json; charset=utf-8");
  }
  EXPECT_EQ(service->voices().count(), 0) << "a refused clone must not leave a voice behind";
}

TEST_F(HttpRoutesTest, SynthesisHitsAndNotModified) {
  const std::string id = cloneTone("Anna", R"(,"language":"en","gender":"female")");
  EXPECT_EQ(service->voices().find(id)->clips.size(), 1u);
  ASSERT_EQ(call("PUT", "/v1/defaults", R"({"language":"en","gender":"female","voice":")" + id + "\"}").status, 200);

  const std::string line = R"({"text":"Flight 12 is boarding","language":"en","gender":"female"})";
  const HttpResponse first = call("POST", "/v1/tts", line);
  ASSERT_EQ(first.status, 200);
  EXPECT_EQ(first.headers.at("Content-Type"), "audio/wav");
  EXPECT_EQ(first.headers.at("X-KELVO-Cache"), "miss");
  EXPECT_EQ(first.headers.at("X-KELVO-Voice"), id);
  EXPECT_EQ(first.headers.at("X-KELVO-Engine"), "placeholder");
  EXPECT_EQ(std::to_string(wavDurationMs(first.body)), first.headers.at("X-KELVO-Duration-Ms"));

  // The same line by GET with an upper-case path is the same cache entry,
  // handed out as the open clip (sent with sendfile), on the quick path too.
  service->cache().flush();
  for (const bool quick : {false, true}) {
    HttpRequest get;
    get.method = "GET";
    get.path = "/V1/TTS";
    get.query = "text=Flight+12+is+boarding&language=en&gender=female";
    const HttpResponse again = quick ? api->quickDispatch(get).value_or(HttpResponse{}) : api->dispatch(get);
    EXPECT_EQ(again.headers.at("X-KELVO-Cache"), "hit");
    ASSERT_TRUE(again.bodyFile && again.body.empty());
    EXPECT_EQ(again.bodyFile->readAll(), first.body);
  }
  // A 304 comes from the index alone: the clip is not even opened.
  const std::string clip = dir.path() + "temp/" + first.headers.at("ETag") + ".wav";
  const Bytes wav = readFile(clip).value_or(Bytes{});
  std::filesystem::remove(clip);
  const std::string etag = first.headers.at("ETag");
  // Bare, quoted, and weak as browsers send it back (with stray blanks).
  for (const std::string& tag : {etag, "\"" + etag + "\"", " W/\"" + etag + "\""}) {
    const HttpResponse cached = call("POST", "/v1/tts", line, {{"If-None-Match", tag}});
    EXPECT_EQ(cached.status, 304);
    EXPECT_TRUE(cached.body.empty() && !cached.bodyFile);
    EXPECT_EQ(cached.headers.at("X-KELVO-Result"), "ok");
  }
  // Without the tag the missing clip is found out and the line made again, whole.
  const HttpResponse remade = call("POST", "/v1/tts", line);
  EXPECT_EQ(remade.headers.at("X-KELVO-Cache"), "miss");
  EXPECT_EQ(remade.body, wav);

  const Json stats = body(call("GET", "/v1/stats"));
  EXPECT_EQ(jInt(stats, "total", -1), 7);
  EXPECT_EQ(jInt(stats, "cache_hits", -1), 5);
  EXPECT_TRUE(jBool(stats, "placeholder", false));

  // Each outcome left one request record.
  const std::vector<RequestLog> requests = AppLog::requestSnapshot();
  ASSERT_GE(requests.size(), 5u);
  const RequestLog& notModified = requests[requests.size() - 2];
  EXPECT_EQ(notModified.status, 304);
  EXPECT_TRUE(notModified.cacheHit);
  EXPECT_EQ(notModified.voice, id);

  // Removing the voice drops its binding too.
  EXPECT_EQ(call("DELETE", "/v1/voices/" + id).status, 200);
  EXPECT_TRUE(jArr(body(call("GET", "/v1/defaults")), "defaults")->empty());
}

TEST_F(HttpRoutesTest, BindingsAreSavedAndRemovedByEmptyVoice) {
  const HttpResponse cloned = call(
      "POST", "/v1/voices/clone",
      R"({"display":"Ken","clips":[{"audio":")" + toneWavBase64() + R"(","text":"welcome aboard"}]})");
  ASSERT_EQ(cloned.status, 200);
  const std::string id = jStr(body(cloned), "id");
  EXPECT_EQ(jInt(body(cloned), "clip_count", 0), 1);

  ASSERT_EQ(call("PUT", "/v1/airlines", R"({"airline":" ual ","language":"en","voice":")" + id + "\"}").status, 200);
  const Json listed = body(call("GET", "/v1/airlines"));
  ASSERT_EQ(jArr(listed, "airlines")->size(), 1u);
  const Json binding = (*jArr(listed, "airlines"))[0];
  EXPECT_EQ(jStr(binding, "airline"), "UAL");
  EXPECT_EQ(jStr(binding, "voice"), id);
  EXPECT_NE(test::readTextFile(service->config().path()).find(id), std::string::npos) << "binding not saved";

  const HttpResponse spoken = call("POST", "/v1/tts", R"({"text":"welcome","airline":"ual","language":"en"})");
  ASSERT_EQ(spoken.status, 200);
  EXPECT_EQ(spoken.headers.at("X-KELVO-Voice"), id);

  ASSERT_EQ(call("PUT", "/v1/airlines", R"({"airline":"UAL","language":"en","voice":""})").status, 200);
  EXPECT_TRUE(jArr(body(call("GET", "/v1/airlines")), "airlines")->empty());
  EXPECT_EQ(test::readTextFile(service->config().path()).find(id), std::string::npos) << "unbinding not saved";
  EXPECT_EQ(jArr(body(call("GET", "/v1/voices")), "voices")->size(), 1u);
}

TEST_F(HttpRoutesTest, RateLimitIsAFixedPeriodPerPeer) {
  limit = 2;
  makeService(std::make_shared<PlaceholderEngine>());
  EXPECT_EQ(call("GET", "/v1/stats").status, 200);
  EXPECT_EQ(call("GET", "/v1/stats").status, 200);
  const HttpResponse limited = call("GET", "/v1/stats");
  EXPECT_EQ(limited.status, 429);
  EXPECT_EQ(limited.headers.at("Retry-After"), "60");
  EXPECT_EQ(jStr(body(limited), "message"), "over the limit of 2 requests per minute");
  EXPECT_EQ(call("GET", "/v1/health").status, 200) << "health is never throttled";
  EXPECT_EQ(call("GET", "/console/main.js").status, 200) << "nor are the console's files";
  peer = "10.0.0.8";
  EXPECT_EQ(call("GET", "/v1/stats").status, 200) << "another client has its own period";
  peer = "10.0.0.7";
  now += 59s;
  EXPECT_EQ(call("GET", "/v1/stats").status, 429);
  now += 1s;
  EXPECT_EQ(call("GET", "/v1/stats").status, 200) << "a new period starts after 60 s";
}

// The console's files: the tag a browser holds, in any of its spellings or
// among others, gets 304; every answer carries the page's policy; only the
// embedded names exist.
TEST_F(HttpRoutesTest, ConsoleFilesRevalidateByTag) {
  const HttpResponse page = call("GET", "/console/");
  ASSERT_EQ(page.status, 200);
  const std::string tag = page.headers.at("ETag");
  const std::string bare = tag.substr(1, tag.size() - 2);
  const std::vector<std::pair<std::string, std::int64_t>> cases{
      {tag, 304}, {"W/" + tag, 304}, {bare, 304}, {"\"old\" , " + tag, 304}, {"*", 304},
      {"\"old\"", 200}, {"", 200}, {"\"" + bare.substr(1) + "\"", 200}};
  for (const auto& [held, status] : cases) {
    const HttpResponse r = call("GET", "/console/index.html", {}, {{"If-None-Match", held}});
    EXPECT_EQ(r.status, status) << held;
    EXPECT_EQ(r.headers.at("ETag"), tag) << held;
    EXPECT_EQ(r.body.empty(), status == 304) << held;
    EXPECT_NE(r.headers.at("Content-Security-Policy").find("frame-ancestors 'none'"), std::string::npos);
  }
  for (const char* missing : {"/console/../README.md", "/console/INDEX.html", "/console/views/", "/console/x.js"}) {
    const HttpResponse r = call("GET", missing);
    EXPECT_EQ(r.status, 404) << missing;
    EXPECT_EQ(r.headers.at("X-Content-Type-Options"), "nosniff") << missing;
  }
}

// The hub's path exists only with a store attached, in any case, and counts
// against the same rate limit as every other route.
TEST_F(HttpRoutesTest, HubPathServedOnlyWithAStoreAndRateLimited) {
  limit = 2;
  makeService(std::make_shared<PlaceholderEngine>());
  EXPECT_EQ(call("GET", "/API/hub.php?a=list").status, 404);
  api->setHubStore(std::make_shared<HubStore>(dir.path() + "hub/"));
  const HttpResponse listed = call("GET", "/Api/Hub.PHP?a=list");
  ASSERT_EQ(listed.status, 200);
  EXPECT_TRUE(body(listed)["shares"].is_array());
  EXPECT_EQ(call("GET", "/api/hub.php?a=list").status, 429) << "the third request of the period";
  peer = "10.0.0.9";
  EXPECT_EQ(call("GET", "/API/hub.php?a=nothing").status, 400);
}

TEST_F(HttpRoutesTest, QueueFullAndTimeoutMapTo503And504) {
  struct Case {
    std::int64_t queueLimit;
    std::int64_t status;
    std::string error;
  };
  for (const Case& c : {Case{0, 503, "queue_full"}, Case{8, 504, "timeout"}}) {
    queueLimit = c.queueLimit;
    makeService(std::make_shared<SlowEngine>());
    service->config().setRequestTimeoutMs(50);
    const HttpResponse r = call("POST", "/v1/tts", R"({"text":"slow line","voice":")" + cloneTone("Slow") + "\"}");
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(jStr(body(r), "error"), c.error);
  }
}

TEST_F(HttpRoutesTest, PrewarmSortsItemsAndStatusRoutesAnswer) {
  service->config().setAutoCreateDefaultVoice(true);
  ASSERT_EQ(call("POST", "/v1/tts", R"({"text":"gate B12","language":"en"})").status, 200);
  const HttpResponse pre = call("POST", "/v1/prewarm",
                                R"({"language":"en","items":[{"text":"gate B12"},{"text":""},{"text":"gate C3"},7]})");
  ASSERT_EQ(pre.status, 200);
  const Json j = body(pre);
  EXPECT_EQ(jInt(j, "cached", -1), 1);
  EXPECT_EQ(jInt(j, "skipped_empty", -1), 2);
  EXPECT_EQ(jInt(j, "queued", -1), 1);

  const Json health = body(call("GET", "/health"));
  EXPECT_EQ(jStr(health, "status"), "ready");
  EXPECT_EQ(jStr(health, "version"), std::string(KELVO::version));
  EXPECT_EQ(jInt(health, "voices", -1), service->voices().count());

  const HttpResponse text = call("GET", "/v1/selftest?text=hello&language=en");
  const std::string report(text.body.begin(), text.body.end());
  EXPECT_NE(report.find("All checks passed - the client can connect."), std::string::npos) << report;
  const Json json = body(call("GET", "/selftest?format=json&airline=XYZ"));
  EXPECT_FALSE(jBool(json, "ok", true)) << "an airline with nothing bound cannot pass";
  EXPECT_EQ(jArr(json, "checks")->size(), 5u);

  // Pending counts the line being baked, so 0 means it is in the cache.
  for (int i = 0; i < 500 && service->prewarmPending() > 0; ++i) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(jInt(body(call("GET", "/v1/stats")), "prewarm_pending", -1), 0);
  EXPECT_TRUE(service->isCached(requestFromJson(Json{{"text", "gate C3"}, {"language", "en"}})));

  EXPECT_EQ(jArr(body(call("GET", "/v1/log?lines=2")), "lines")->size(), 2u);
  EXPECT_TRUE(jBool(body(call("DELETE", "/v1/cache")), "cleared", false));
  EXPECT_EQ(service->cache().stats().count, 0);
}

// The document and the table list the same operations, each documented with
// the scope it is guarded by, and no row is shadowed by one before it.
TEST_F(HttpRoutesTest, DocumentAndTableListTheSameOperations) {
  api->setHubStore(std::make_shared<HubStore>(dir.path() + "hub/"));
  const Json doc = body(call("GET", "/v1/openapi.json"));
  ASSERT_EQ(jStr(doc, "openapi"), "3.1.0");
  std::set<std::pair<std::string, std::string>> documented;
  for (const auto& [path, item] : doc["paths"].items()) {
    for (const auto& [method, op] : item.items()) {
      const std::string upper = toUpper(method);
      documented.emplace(upper, path);
      const RouteMatch match = api->routes().match(upper, std::regex_replace(path, std::regex("\\{[a-z]+\\}"), "Some.Id"));
      ASSERT_NE(match.route, nullptr) << method << " " << path;
      EXPECT_EQ(match.route->pattern, path) << "shadowed by an earlier row";
      const std::string scope(name(match.route->scope));
      EXPECT_EQ(jStr(op, "x-kelvo-scope"), scope) << path;
      EXPECT_EQ(op["security"].empty(), scope == "open") << path;
      EXPECT_FALSE(jStr(op, "summary").empty()) << path;
      EXPECT_EQ(op["responses"].contains("401"), scope != "open") << path;
    }
  }
  const std::vector<std::pair<std::string, std::string>> ops = api->routes().operations();
  const std::set<std::pair<std::string, std::string>> table(ops.begin(), ops.end());
  EXPECT_EQ(documented, table);
  EXPECT_EQ(documented.size(), ops.size()) << "an operation listed twice";
}

// The OpenAI-compatible route reads the OpenAI body (and KELVO's extensions)
// into the native pipeline and answers refusals in the OpenAI error shape.
TEST_F(HttpRoutesTest, SpeechRouteSpeaksTheOpenAiDialect) {
  const std::string id = cloneTone("Gate Anna");
  service->config().setAirlineVoice("KVO", "", TtsGender::automatic, id);
  std::string upperId = id;
  for (char& c : upperId) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  struct Case {
    std::string path, body;
    std::int64_t status;
    std::string contentTypeOrCode;  // content type of a 200, the error code otherwise
    std::string param;              // the OpenAI "param" of a refusal ("" for null)
  };
  const std::vector<Case> cases = {
      {"/v1/audio/speech", R"({"model":"tts-1","input":"Boarding","voice":"GATE ANNA"})", 200, "audio/mpeg", ""},
      {"/v1/audio/speech", R"({"input":"Boarding","voice":{"id":")" + upperId + R"("},"response_format":"FLAC"})",
       200, "audio/flac", ""},
      {"/v1/audio/speech", R"({"input":"Boarding","voice":" kvo ","language":"en","response_format":"opus"})", 200,
       "audio/ogg", ""},
      {"/v1/audio/speech", R"({"input":"Boarding","voice":"Gate Anna","speed":0.25,"response_format":"pcm"})", 200,
       "audio/pcm", ""},
      {"/v1/audio/speech", R"({"input":"Boarding","voice":"alloy"})", 404, "bad_voice", "voice"},
      {"/v1/audio/speech", R"({"input":" ","voice":"Gate Anna"})", 400, "empty_text", "input"},
      {"/v1/audio/speech", R"({"input":"Boarding","voice":"Gate Anna","speed":4.01})", 400, "bad_speed", "speed"},
      {"/v1/audio/speech", R"({"input":"Boarding","response_format":"aac"})", 400, "bad_format", "response_format"},
      {"/v1/audio/speech", "[1]", 400, "bad_json", ""},
      {"/v1/tts", R"({"text":"Boarding","voice":"GATE ANNA","format":"Opus"})", 404, "bad_voice", ""},
      {"/v1/tts", R"({"text":"Boarding","voice":")" + id + R"(","format":"Opus"})", 200, "audio/ogg", ""},
      {"/v1/tts", R"({"text":"Boarding","voice":")" + id + R"(","format":"aac"})", 400, "bad_format", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path + " " + c.body);
    const HttpResponse r = call("POST", c.path, c.body);
    EXPECT_EQ(r.status, c.status);
    if (r.status == 200) {
      EXPECT_EQ(r.headers.at("Content-Type"), c.contentTypeOrCode);
      EXPECT_EQ(r.headers.at("X-KELVO-Voice"), id);
      EXPECT_GT(r.bodyFile ? r.bodyFile->size() : r.body.size(), 1000u);  // a stored variant goes out as its file
    } else if (c.path == "/v1/tts") {
      EXPECT_EQ(jStr(body(r), "error"), c.contentTypeOrCode);
    } else {
      const Json error = body(r)["error"];
      EXPECT_EQ(jStr(error, "code"), c.contentTypeOrCode);
      EXPECT_EQ(error["param"], c.param.empty() ? Json() : Json(c.param));
      EXPECT_EQ(jStr(error, "type"), "invalid_request_error");
      EXPECT_FALSE(jStr(error, "message").empty());
    }
  }
  EXPECT_EQ(jStr(body(call("POST", "/v1/audio/speech", R"({"input":"x","response_format":"aac"})"))["error"], "message"),
            "no audio format \"aac\"; the formats are mp3, opus, flac, wav, pcm");

  // "instructions" is the style: the same line and tag as "style", another than none.
  const auto tagOf = [&](const std::string& extra) {
    return call("POST", "/v1/audio/speech", R"({"input":"Gate C3","voice":"Gate Anna")" + extra + "}").headers["ETag"];
  };
  EXPECT_EQ(tagOf(R"(,"instructions":"calm")"), tagOf(R"(,"style":"calm")"));
  EXPECT_NE(tagOf(R"(,"instructions":"calm")"), tagOf(""));

  const Json models = body(call("GET", "/v1/models"));
  EXPECT_EQ(jStr(models, "object"), "list");
  EXPECT_EQ(models["data"][1]["id"], "tts-1");
  EXPECT_EQ(jStr(body(call("DELETE", "/v1/models"))["error"], "code"), "method_not_allowed");

  // The rate limit answers the OpenAI routes in their shape, Retry-After kept.
  service->config().setRateLimitPerMinute(1);
  call("GET", "/v1/models");
  const HttpResponse limited = call("POST", "/v1/audio/speech", R"({"input":"x"})");
  EXPECT_EQ(limited.status, 429);
  EXPECT_EQ(limited.headers.at("Retry-After"), "60");
  EXPECT_EQ(jStr(body(limited)["error"], "type"), "rate_limit_error");
}

}  // namespace
}  // namespace kelvo
