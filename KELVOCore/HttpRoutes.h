// TtsHttpService: the /v1 API that announcement players and operators talk to.
// It owns the HttpServer while it runs and answers every request from one
// RouteTable (see RouteTable.h and the rows in HttpRouteTable.cpp): paths are
// matched in lower case, health is answered before anything else (a monitor
// is never throttled), then a fixed-period per-client rate limit applies, then
// the row's scope is checked against the caller's API key (while keys exist),
// then the row's handler runs. Every request is counted for "/metrics" under
// its row's pattern. It also puts this installation's shares on the sharing
// hub and takes them down, since their delete keys live in its configuration.
// With a HubStore attached it also serves the sharing hub's "/API/hub.php"
// (any case), so an airline group can run its own hub on the same port. Every
// refusal is a JSON {"error": code, "message": localised text}.
//
// Thread-safe: `dispatch` runs on the server's worker pool for many
// connections at once. Its own state is the rate-limit tables behind one lock
// and the metrics behind theirs; everything else is delegated to the
// thread-safe service objects. Cost of a request beyond the work it asks for:
// a pass over the route rows, two map probes under the lock, and one SHA-256
// when a key is presented.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "KELVOCore/ApiKeys.h"
#include "KELVOCore/AudioFormat.h"
#include "KELVOCore/HttpServer.h"
#include "KELVOCore/HubStore.h"
#include "KELVOCore/Json.h"
#include "KELVOCore/Metrics.h"
#include "KELVOCore/RouteTable.h"
#include "KELVOCore/Service.h"

namespace kelvo {

// A synthesis request from a JSON body: "text", "voice" (else "reference_id"),
// "airline", "language", "gender", "style", "speed", "sample_rate", "seed",
// "priority" ("high" or normal). Missing or mistyped members take defaults.
TtsRequest requestFromJson(const Json& body);
// The same members from the query string ("reference_id" is not read there).
TtsRequest requestFromQuery(const HttpRequest& request);
// The public form of a voice: id, display, kind, voice_profile, language,
// gender, style, note, clip_count and clips (file, text, duration_ms).
Json voiceToJson(const VoiceInfo& voice);

class TtsHttpService {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  // Peers remembered by the rate limit before stale ones are pruned.
  static constexpr std::size_t rateTablePruneSize = 10000;
  // Requests with a missing or wrong key one peer may make in a minute before
  // it is refused with 429, whether or not a general rate limit is set.
  static constexpr std::int64_t authFailuresPerMinute = 10;

  // `clock` drives the rate-limit periods; steady_clock::now when empty.
  explicit TtsHttpService(std::shared_ptr<TtsService> service, Clock clock = {});
  ~TtsHttpService();  // stop()
  TtsHttpService(const TtsHttpService&) = delete;
  TtsHttpService& operator=(const TtsHttpService&) = delete;

  // Listens on the configuration's address and port, or on the overrides
  // (which are not written to the configuration). Throws TtsError when the
  // port is taken.
  void start(std::optional<std::string> bindAddress = std::nullopt, std::optional<std::int64_t> port = std::nullopt);
  void stop();
  bool isRunning() const;
  // Serves the sharing hub from `hub` too. REQUIRES: called before start().
  void setHubStore(std::shared_ptr<HubStore> hub);
  // Guards the API with `keys` (by default an empty in-memory store: open).
  // start() writes its local admin key. REQUIRES: called before start().
  void setApiKeys(std::shared_ptr<ApiKeys> keys);
  const RouteTable& routes() const { return routes_; }
  std::int64_t boundPort() const;  // 0 when not running
  // Where clients on this machine reach the service, and every reachable address.
  std::string endpoint() const;
  std::vector<std::string> allEndpoints() const;

  // The answer to one request. Never throws.
  HttpResponse dispatch(const HttpRequest& request);
  // The same answer for what never waits: health, the console's files, and
  // without a rate limit a /v1/tts or /v1/audio/speech line that is a plain
  // cache hit (in WAV or a stored variant). nullopt for everything else.
  std::optional<HttpResponse> quickDispatch(const HttpRequest& request);

 private:
  struct Period {
    std::chrono::steady_clock::time_point start;
    std::int64_t count = 0;
  };

  static HttpResponse badJson();
  static HttpResponse methodNotAllowed(const std::string& method);
  static HttpResponse noSuchPath(const std::string& path);

  // The rows of every route, in match order (HttpRouteTable.cpp).
  void addRoutes();
  HttpResponse answer(const HttpRequest& request, const RouteMatch& match);
  // A refusal when the caller's key does not reach `scope`; counts failures.
  std::optional<HttpResponse> refuseCaller(const HttpRequest& request, Scope scope);
  // Counts one request for `peer` in `table`; true when that peer is already
  // at `limit` for its current minute. REQUIRES: lock_ held.
  bool overLimit(std::unordered_map<std::string, Period>& table, const std::string& peer, std::int64_t limit);
  // The address listened on while running (an override wins), else the configuration's.
  std::string listenAddress() const;
  bool rateLimited(const std::string& peer);
  // True while `peer` has used up its failed keys for the current minute.
  bool lockedOut(const std::string& peer);

  HttpResponse health();
  // With `cachedOnly`, nullopt unless the answer is a plain cache hit (nothing logged then).
  std::optional<HttpResponse> synthesis(const HttpRequest& request, bool cachedOnly);
  // One line spoken and answered in `format`: 200 with the audio and the
  // X-KELVO- headers, 304 when the client holds its tag, or the native error;
  // logged as one RequestLog entry under `route`. `cachedOnly` as above.
  std::optional<HttpResponse> speak(const HttpRequest& request, TtsRequest tts, AudioFormat format,
                                    std::string_view route, bool cachedOnly);
  // Logs a synthesis request refused before the pipeline; returns `refusal`.
  static HttpResponse refuseSpeech(const HttpRequest& request, std::string_view route, HttpResponse refusal);
  // The OpenAI-compatible routes (HttpOpenAi.h); `cachedOnly` as above.
  std::optional<HttpResponse> speech(const HttpRequest& request, bool cachedOnly);
  HttpResponse models();
  HttpResponse prewarm(const HttpRequest& request);
  HttpResponse cancelPrewarm();
  HttpResponse stats();
  HttpResponse selfCheck(const HttpRequest& request);
  HttpResponse logLines(const HttpRequest& request);
  HttpResponse clearCache();
  HttpResponse metrics();
  HttpResponse bindings(const HttpRequest& request, bool airlines);
  HttpResponse listVoices();
  HttpResponse getVoice(const std::string& id);
  HttpResponse voiceClip(const std::string& id, const std::string& index);
  HttpResponse cloneVoice(const HttpRequest& request);
  HttpResponse removeVoice(const std::string& id);
  HttpResponse exportPack(const HttpRequest& request);
  HttpResponse importPack(const HttpRequest& request);
  HttpResponse listKeys();
  HttpResponse addKey(const HttpRequest& request);
  HttpResponse removeKey(const std::string& name);
  HttpResponse shareOnHubRoute(const HttpRequest& request);
  HttpResponse unshareFromHubRoute(const HttpRequest& request, const std::string& id);

  std::shared_ptr<TtsService> service_;
  Clock clock_;
  std::shared_ptr<HubStore> hub_;  // null: no hub served
  std::shared_ptr<ApiKeys> keys_;
  RouteTable routes_;
  Metrics metrics_;
  std::unique_ptr<HttpServer> server_;
  std::string bindAddress_;  // what server_ listens on
  std::mutex lock_;  // guards hits_ and failures_
  std::unordered_map<std::string, Period> hits_;
  std::unordered_map<std::string, Period> failures_;  // requests refused for their key
};

}  // namespace kelvo
