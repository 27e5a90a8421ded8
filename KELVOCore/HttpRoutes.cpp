#include "KELVOCore/HttpRoutes.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "KELVOCore/Gpu.h"
#include "KELVOCore/HttpOpenAi.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Log.h"
#include "KELVOCore/SelfCheck.h"
#include "KELVOCore/StringMemo.h"
#include "KELVOCore/Version.h"

namespace kelvo {

namespace {

using SteadyClock = std::chrono::steady_clock;

// What a POST /v1/tts body says, and how many of them each thread remembers.
struct SpeechBody {
  TtsRequest tts;
  std::string format;
};
constexpr std::size_t kBodyMemoEntries = 256;
constexpr std::size_t kBodyMemoBytes = 2048;

TtsPriority priorityFromCode(const std::string& code) {
  return toLower(trimmed(code)) == "high" ? TtsPriority::high : TtsPriority::normal;
}

// Query numbers are text; anything that is not a whole number keeps `def`.
std::int64_t queryInt(const HttpRequest& request, std::string_view name, std::int64_t def) {
  const std::string raw = request.queryValue(name);
  if (raw.empty()) return def;
  char* end = nullptr;
  const long long v = std::strtoll(raw.c_str(), &end, 10);
  return end != nullptr && *end == '\0' ? static_cast<std::int64_t>(v) : def;
}

float queryFloat(const HttpRequest& request, std::string_view name, float def) {
  const std::string raw = request.queryValue(name);
  if (raw.empty()) return def;
  char* end = nullptr;
  const float v = std::strtof(raw.c_str(), &end);
  return end != nullptr && *end == '\0' ? v : def;
}

std::int64_t millisSince(SteadyClock::time_point start) {
  const double ms = std::chrono::duration<double, std::milli>(SteadyClock::now() - start).count();
  // A clock that went wrong must not poison the request log with garbage.
  if (!std::isfinite(ms) || ms < 0 || ms > static_cast<double>(std::numeric_limits<std::int64_t>::max())) return 0;
  return static_cast<std::int64_t>(ms);
}

HttpResponse errorFor(const TtsError& e) {
  return HttpResponse::error(e.httpStatus(), errorName(e.code), e.message);
}

// The key of "Authorization: Bearer KEY" (scheme in any case); "" otherwise.
std::string bearerToken(const std::string& header) {
  const std::string value = trimmed(header);
  if (value.size() < 7 || toLower(value.substr(0, 7)) != "bearer ") return {};
  return trimmed(value.substr(7));
}

bool isLoopback(const std::string& address) {
  return address == "localhost" || address == "::1" || address.rfind("127.", 0) == 0;
}

}  // namespace

// ---- Request parsing ------------------------------------------------------------

TtsRequest requestFromJson(const Json& body) {
  TtsRequest r;
  r.text = jStr(body, "text");
  r.voiceId = jStr(body, "voice");
  if (trimmed(r.voiceId).empty()) r.voiceId = jStr(body, "reference_id");
  r.airline = jStr(body, "airline");
  r.language = jStr(body, "language", "auto");
  r.gender = parseGender(jStr(body, "gender", "default"));
  r.style = jStr(body, "style");
  r.speed = static_cast<float>(jFloat(body, "speed", 1.0));
  r.sampleRate = jInt(body, "sample_rate", 0);
  r.seed = jInt(body, "seed", 0);
  r.priority = priorityFromCode(jStr(body, "priority", "normal"));
  return r;
}

TtsRequest requestFromQuery(const HttpRequest& request) {
  TtsRequest r;
  r.text = request.queryValue("text");
  r.voiceId = request.queryValue("voice");
  r.airline = request.queryValue("airline");
  r.language = request.queryValue("language", "auto");
  r.gender = parseGender(request.queryValue("gender", "default"));
  r.style = request.queryValue("style");
  r.speed = queryFloat(request, "speed", 1.0f);
  r.sampleRate = queryInt(request, "sample_rate", 0);
  r.seed = queryInt(request, "seed", 0);
  r.priority = priorityFromCode(request.queryValue("priority", "normal"));
  return r;
}

// ---- Life cycle -------------------------------------------------------------------

TtsHttpService::TtsHttpService(std::shared_ptr<TtsService> service, Clock clock)
    : service_(std::move(service)),
      clock_(clock ? std::move(clock) : Clock(&SteadyClock::now)),
      keys_(std::make_shared<ApiKeys>()) {
  addRoutes();
}

TtsHttpService::~TtsHttpService() { stop(); }

void TtsHttpService::start(std::optional<std::string> bindAddress, std::optional<std::int64_t> port) {
  stop();
  // A clone pack may be far larger than any other body, so the rows that take
  // one have it received into a file beside the cache instead of into memory;
  // only for a caller whose key already allows the route, so nobody without
  // one can fill the disk with uploads that end in a 401.
  HttpServer::Options options;
  options.spoolsBody = [this](std::string_view method, std::string_view path, std::string_view authorization) {
    // Every request asks, and few rows spool: most paths are settled without a full match.
    const std::string target(path);
    if (!routes_.flaggedPath(target, &Route::spoolsBody)) return false;
    const RouteMatch match = routes_.match(std::string(method), target);
    if (match.route == nullptr || !match.route->spoolsBody) return false;
    if (match.route->scope == Scope::open || !keys_->enforced()) return true;
    const std::optional<Scope> granted = keys_->check(bearerToken(std::string(authorization)));
    return granted && (match.route->scope != Scope::admin || *granted == Scope::admin);
  };
  options.spoolBase = service_->cache().directory() + "pack-upload";
  std::string address = bindAddress.value_or(service_->config().bindAddress());
  auto server = std::make_unique<HttpServer>(address, port.value_or(service_->config().port()),
                                             [this](const HttpRequest& r) { return dispatch(r); }, options);
  server->setQuickHandler([this](const HttpRequest& r) { return quickDispatch(r); });
  server->start();
  server_ = std::move(server);
  bindAddress_ = std::move(address);
  keys_->writeLocalKey();
  if (!keys_->enforced() && !isLoopback(bindAddress_)) {
    AppLog::warn("http", "no API keys: anyone who can reach port " + std::to_string(boundPort()) +
                             " can change voices and bindings, clear the cache and import packs; add a key with "
                             "`kelvo keys add NAME --scope admin`");
  }
}

void TtsHttpService::stop() {
  if (server_) {
    server_->stop();
    server_.reset();
  }
}

bool TtsHttpService::isRunning() const { return server_ && server_->isRunning(); }

std::int64_t TtsHttpService::boundPort() const { return server_ ? server_->boundPort() : 0; }

std::string TtsHttpService::listenAddress() const { return server_ ? bindAddress_ : service_->config().bindAddress(); }

std::string TtsHttpService::endpoint() const {
  const std::int64_t port = boundPort() > 0 ? boundPort() : service_->config().port();
  std::string host = listenAddress();
  // The command line finds the service at this URL: a wildcard is reached on loopback.
  if (host.empty() || host == "0.0.0.0") host = "127.0.0.1";
  if (host == "::") host = "::1";
  if (host.find(':') != std::string::npos) host = "[" + host + "]";
  return "http://" + host + ":" + std::to_string(port);
}

std::vector<std::string> TtsHttpService::allEndpoints() const {
  const std::int64_t port = boundPort() > 0 ? boundPort() : service_->config().port();
  std::vector<std::string> urls{endpoint()};
  for (std::string& url : reachableUrls(listenAddress(), port)) {
    if (std::find(urls.begin(), urls.end(), url) == urls.end()) urls.push_back(std::move(url));
  }
  return urls;
}

// ---- Dispatch ------------------------------------------------------------------------

HttpResponse TtsHttpService::badJson() { return HttpResponse::error(400, "bad_json", T("请求体不是合法的 JSON")); }

HttpResponse TtsHttpService::methodNotAllowed(const std::string& method) {
  return HttpResponse::error(405, "method_not_allowed", TF("%s 不能用在这个路径上", method));
}

HttpResponse TtsHttpService::noSuchPath(const std::string& path) {
  return HttpResponse::error(404, "not_found", T("没有这个路径:") + path);
}

void TtsHttpService::setApiKeys(std::shared_ptr<ApiKeys> keys) { keys_ = std::move(keys); }

HttpResponse TtsHttpService::dispatch(const HttpRequest& request) {
  const auto started = SteadyClock::now();
  const RouteMatch match = routes_.match(request.method, request.path);
  HttpResponse response = answer(request, match);
  const Route* row = match.route ? match.route : match.pathRoute;
  if (row != nullptr && row->errorShape && response.status >= 400) response = row->errorShape(std::move(response));
  metrics_.countRequest(match.route ? match.route->pattern : "unmatched", methodLabel(match.route, request.method),
                        response.status, std::chrono::duration<double>(SteadyClock::now() - started).count());
  return response;
}

HttpResponse TtsHttpService::answer(const HttpRequest& request, const RouteMatch& match) {
  if (!routes_.flaggedPath(request.path, &Route::unthrottled)) {
    std::optional<std::string> refusal;
    if (lockedOut(request.peer)) refusal = T("密钥错误的请求太多了,请一分钟后再试");
    else if (rateLimited(request.peer)) {
      refusal = TF("超过了每分钟 %d 次请求的上限", static_cast<int>(service_->config().rateLimitPerMinute()));
    }
    if (refusal) {
      HttpResponse r = HttpResponse::error(429, "rate_limited", *refusal);
      r.headers["Retry-After"] = "60";
      return r;
    }
  }
  if (!match.route) return match.pathKnown ? methodNotAllowed(request.method) : noSuchPath(request.path);
  if (std::optional<HttpResponse> refusal = refuseCaller(request, match.route->scope)) return *refusal;
  try {
    return match.route->handler(request, match.params);
  } catch (const TtsError& e) {
    return errorFor(e);
  } catch (const std::exception& e) {
    return HttpResponse::error(500, "internal", e.what());
  }
}

std::optional<HttpResponse> TtsHttpService::refuseCaller(const HttpRequest& request, Scope scope) {
  if (scope == Scope::open || !keys_->enforced()) return std::nullopt;
  const std::string presented = bearerToken(request.header("authorization"));
  const std::optional<Scope> granted = keys_->check(presented);
  if (!granted) {
    {
      std::lock_guard<std::mutex> guard(lock_);
      overLimit(failures_, request.peer, authFailuresPerMinute);
    }
    HttpResponse r = HttpResponse::error(
        401, "unauthorized",
        presented.empty() ? T("需要 API 密钥:请加上 Authorization: Bearer 密钥") : T("这个 API 密钥不对或已被撤销"));
    r.headers["WWW-Authenticate"] = "Bearer";
    return r;
  }
  if (scope == Scope::admin && *granted != Scope::admin) {
    return HttpResponse::error(403, "forbidden", T("这个 API 密钥只能合成和查看;这个操作需要 admin 密钥"));
  }
  return std::nullopt;
}

bool TtsHttpService::lockedOut(const std::string& peer) {
  std::lock_guard<std::mutex> guard(lock_);
  const auto it = failures_.find(peer);
  return it != failures_.end() && clock_() - it->second.start < std::chrono::seconds(60) &&
         it->second.count >= authFailuresPerMinute;
}

bool TtsHttpService::rateLimited(const std::string& peer) {
  const std::int64_t limit = service_->config().rateLimitPerMinute();
  if (limit < 1) return false;
  std::lock_guard<std::mutex> guard(lock_);
  return overLimit(hits_, peer, limit);
}

bool TtsHttpService::overLimit(std::unordered_map<std::string, Period>& table, const std::string& peer,
                               std::int64_t limit) {
  const auto now = clock_();
  constexpr auto period = std::chrono::seconds(60);
  auto it = table.find(peer);
  if (it != table.end() && now - it->second.start < period) {
    if (it->second.count >= limit) return true;
    ++it->second.count;
    return false;
  }
  // A scan from many addresses must not grow the table for ever: once it is
  // large, forget every peer whose period is over before adding one.
  if (it == table.end() && table.size() >= rateTablePruneSize) {
    std::erase_if(table, [&](const auto& entry) { return now - entry.second.start >= period; });
  }
  table[peer] = Period{now, 1};
  return false;
}

// ---- Health, statistics, log, cache --------------------------------------------------

HttpResponse TtsHttpService::health() {
  const EngineHealth h = service_->activeEngine()->checkHealth();
  const AppConfig& config = service_->config();
  return HttpResponse::json(200, Json{{"status", h.ready ? "ready" : "degraded"},
                                      {"version", std::string(KELVO::version)},
                                      {"engine", h.backend},
                                      {"engine_detail", h.detail},
                                      {"engine_ready", h.ready},
                                      {"placeholder", service_->usingPlaceholder()},
                                      {"engine_exe", h.exePath},
                                      {"compute", std::string(code(config.engine().compute))},
                                      {"voices", service_->voices().count()},
                                      {"output_sample_rate", config.outputSampleRate()},
                                      {"ui_language", std::string(code(uiLang()))}});
}

HttpResponse TtsHttpService::stats() {
  const ServiceStats s = service_->stats();
  Json failures = Json::array();
  for (const PrewarmWorker::Failure& f : s.prewarmFailures.recent) {
    failures.push_back(Json{{"number", f.number}, {"text", f.text}, {"reason", f.reason}});
  }
  const std::string lastError = s.prewarmFailures.recent.empty() ? "" : s.prewarmFailures.recent.back().reason;
  const double rtf = s.totalAudioMs < 1 ? 0.0 : static_cast<double>(s.totalSynthMs) / static_cast<double>(s.totalAudioMs);
  return HttpResponse::json(200, Json{{"total", s.total},
                                      {"failed", s.failed},
                                      {"cache_hits", s.cacheHits},
                                      {"cache_hit_rate", s.cacheHitRate},
                                      {"cache_bytes", s.cacheBytes},
                                      {"cache_count", s.cacheCount},
                                      {"queue_depth", s.queueDepth},
                                      {"prewarm_pending", s.prewarmPending},
                                      {"prewarm_failed", s.prewarmFailures.count},
                                      {"prewarm_last_error", lastError},
                                      {"prewarm_failures", std::move(failures)},
                                      {"busy", s.busy},
                                      {"p50_ms", s.p50Ms},
                                      {"p95_ms", s.p95Ms},
                                      {"rtf", rtf},
                                      {"engine", s.engineName},
                                      {"engine_detail", s.engineDetail},
                                      {"engine_ready", s.engineReady},
                                      {"placeholder", s.placeholder},
                                      {"gpu", gpuInfo().display()}});
}

HttpResponse TtsHttpService::metrics() {
  const ServiceStats s = service_->stats();
  MetricsSnapshot now;
  now.cacheHits = s.cacheHits;
  now.cacheMisses = service_->cache().stats().misses;
  now.cacheEntries = s.cacheCount;
  now.cacheBytes = s.cacheBytes;
  now.queueDepth = s.queueDepth;
  now.prewarmPending = s.prewarmPending;
  now.engine = s.engineName;
  now.engineReady = s.engineReady;
  now.placeholder = s.placeholder;
  now.engineRestarts = service_->s2().restarts();
  HttpResponse r = HttpResponse::text(200, metrics_.render(now));
  r.headers["Content-Type"] = "text/plain; version=0.0.4; charset=utf-8";
  return r;
}

HttpResponse TtsHttpService::logLines(const HttpRequest& request) {
  const std::int64_t wanted = std::clamp<std::int64_t>(queryInt(request, "lines", 200), 1, AppLog::maxLines());
  const std::vector<LogEntry> all = AppLog::snapshot();
  const std::size_t from = all.size() > static_cast<std::size_t>(wanted) ? all.size() - static_cast<std::size_t>(wanted) : 0;
  Json lines = Json::array();
  for (std::size_t i = from; i < all.size(); ++i) {
    const LogEntry& e = all[i];
    lines.push_back(Json{{"id", e.id},
                         {"level", std::string(name(e.level))},
                         {"source", e.source},
                         {"text", e.text},
                         {"line", e.formatted()}});
  }
  return HttpResponse::json(200, Json{{"lines", std::move(lines)}});
}

HttpResponse TtsHttpService::clearCache() {
  service_->cache().clear();
  AppLog::info("http", "cache cleared over the API");
  return HttpResponse::json(200, Json{{"cleared", true}});
}

// ---- Synthesis and pre-bake ----------------------------------------------------------

std::optional<HttpResponse> TtsHttpService::quickDispatch(const HttpRequest& request) {
  const auto started = SteadyClock::now();
  const RouteMatch match = routes_.match(request.method, request.path);
  if (match.route == nullptr) return std::nullopt;
  if (match.route->unthrottled) return dispatch(request);
  // With a rate limit each request must be counted once, and dispatch() does
  // that; a caller locked out or without a key that may speak is answered (and
  // its failure counted) there too.
  const bool tts = match.route->pattern == "/v1/tts";
  if ((!tts && match.route->pattern != "/v1/audio/speech") || service_->config().rateLimitPerMinute() >= 1 ||
      lockedOut(request.peer)) {
    return std::nullopt;
  }
  if (keys_->enforced() && !keys_->check(bearerToken(request.header("authorization")))) return std::nullopt;
  std::optional<HttpResponse> response = tts ? synthesis(request, true) : speech(request, true);
  if (response) {
    metrics_.countRequest(match.route->pattern, methodLabel(match.route, request.method), response->status,
                          std::chrono::duration<double>(SteadyClock::now() - started).count());
  }
  return response;
}

std::optional<HttpResponse> TtsHttpService::synthesis(const HttpRequest& request, bool cachedOnly) {
  constexpr std::string_view kRoute = "/v1/tts";
  TtsRequest tts;
  std::string formatName;
  if (request.method == "POST") {
    // A PA system sends the same bodies over and over; each is parsed once per thread.
    thread_local StringMemo<std::optional<SpeechBody>> parsed(kBodyMemoEntries, kBodyMemoBytes);
    const std::string_view text(reinterpret_cast<const char*>(request.body.data()), request.body.size());
    std::optional<SpeechBody> body = parsed.get(text, [&]() -> std::optional<SpeechBody> {
      const std::optional<Json> json = parseJsonObject(request.body);
      if (!json) return std::nullopt;
      return SpeechBody{requestFromJson(*json), jStr(*json, "format")};
    });
    if (!body) return cachedOnly ? std::nullopt : std::optional(refuseSpeech(request, kRoute, badJson()));
    tts = std::move(body->tts);
    formatName = std::move(body->format);
  } else {
    tts = requestFromQuery(request);
    formatName = request.queryValue("format");
  }
  // The native API answers WAV unless a player asks for something else.
  const std::optional<AudioFormat> format =
      trimmed(formatName).empty() ? AudioFormat::wav : parseAudioFormat(formatName);
  if (!format) return cachedOnly ? std::nullopt : std::optional(refuseSpeech(request, kRoute, unknownAudioFormat(formatName)));
  return speak(request, std::move(tts), *format, kRoute, cachedOnly);
}

HttpResponse TtsHttpService::refuseSpeech(const HttpRequest& request, std::string_view route, HttpResponse refusal) {
  RequestLog log;
  log.peer = request.peer;
  log.route = std::string(route);
  log.status = refusal.status;
  if (const std::optional<Json> body = parseJsonObject(refusal.body)) log.note = jStr(*body, "message");
  AppLog::request(std::move(log));
  return refusal;
}

std::optional<HttpResponse> TtsHttpService::speak(const HttpRequest& request, TtsRequest tts,
                                                  AudioFormat format, std::string_view route, bool cachedOnly) {
  const auto started = SteadyClock::now();
  RequestLog log;
  log.peer = request.peer;
  log.route = std::string(route);
  log.language = normLang(tts.language);
  log.voice = trimmed(tts.voiceId);
  log.speed = clampSpeed(tts.speed);

  HttpResponse response;
  try {
    const std::string clientTag = request.header("if-none-match");
    std::optional<TtsReply> answer;
    if (cachedOnly) {
      answer = service_->answerFromCache(std::move(tts), bareTag(clientTag), format);
      if (!answer) return std::nullopt;
    } else {
      answer = service_->answer(std::move(tts), bareTag(clientTag), format);
    }
    TtsReply& reply = *answer;
    const TtsResult& result = reply.result;
    if (!result.fromCache) metrics_.observeSynthesis(result.engine, static_cast<double>(result.synthMs) / 1000.0);
    log.voice = result.voiceId;
    log.audioMs = result.durationMs;
    log.cacheHit = result.fromCache;
    if (reply.notModified) {
      response.status = 304;
      response.headers = {{"ETag", result.etag}, {"X-KELVO-Result", "ok"}};
    } else {
      // In name order, each built in its place: nothing moves, and nothing is
      // copied once more as a braced list would, on every cached line.
      auto& h = response.headers;
      h.reserve(9);
      h.try_emplace("Content-Type", std::string(contentType(result.format)));
      h.try_emplace("ETag", result.etag);
      h.try_emplace("X-KELVO-Cache", result.fromCache ? "hit" : "miss");
      h.try_emplace("X-KELVO-Duration-Ms", std::to_string(result.durationMs));
      h.try_emplace("X-KELVO-Engine", result.engine);
      h.try_emplace("X-KELVO-Result", "ok");
      h.try_emplace("X-KELVO-Sample-Rate", std::to_string(deliveredSampleRate(result.format, result.sampleRate)));
      h.try_emplace("X-KELVO-Synth-Ms", std::to_string(result.synthMs));
      h.try_emplace("X-KELVO-Voice", result.voiceId);
      response.body = std::move(reply.result.wav);
      response.bodyFile = std::move(reply.file);
    }
  } catch (const TtsError& e) {
    response = errorFor(e);
    log.note = e.message;
  } catch (const std::exception& e) {
    response = HttpResponse::error(500, "internal", e.what());
    log.note = e.what();
  }
  log.status = response.status;
  log.elapsedMs = millisSince(started);
  AppLog::request(std::move(log));
  return response;
}

HttpResponse TtsHttpService::prewarm(const HttpRequest& request) {
  std::vector<TtsRequest> candidates;
  if (request.method == "POST") {
    const std::optional<Json> body = parseJsonObject(request.body);
    if (!body) return badJson();
    if (const std::optional<Json> items = jArr(*body, "items")) {
      // Items inherit the list's airline, language, gender and speed unless they set their own.
      for (const Json& item : *items) {
        Json merged = item.is_object() ? item : Json::object();
        for (const char* key : {"airline", "language", "gender", "speed"}) {
          if (!merged.contains(key) && body->contains(key)) merged[key] = (*body)[key];
        }
        candidates.push_back(requestFromJson(merged));
      }
    } else {
      candidates.push_back(requestFromJson(*body));
    }
  } else {
    candidates.push_back(requestFromQuery(request));
  }

  std::int64_t skipped = 0;
  std::int64_t cached = 0;
  std::vector<TtsRequest> queued;
  for (TtsRequest& r : candidates) {
    if (trimmed(r.text).empty()) ++skipped;
    else if (service_->isCached(r)) ++cached;
    else queued.push_back(std::move(r));
  }
  const std::int64_t handed = queued.empty() ? 0 : service_->prewarmRequests(queued);
  AppLog::info("http", "pre-bake request from " + request.peer + ": queued " + std::to_string(handed) + ", " +
                           std::to_string(cached) + " already cached");
  return HttpResponse::json(200, Json{{"queued", handed},
                                      {"cached", cached},
                                      {"skipped_empty", skipped},
                                      {"pending", service_->prewarmPending()},
                                      {"failed", service_->prewarmFailures().count}});
}

HttpResponse TtsHttpService::cancelPrewarm() {
  const std::int64_t dropped = service_->cancelPrewarm();
  return HttpResponse::json(200, Json{{"dropped", dropped}, {"pending", service_->prewarmPending()}});
}

// ---- Self-check -------------------------------------------------------------------------

HttpResponse TtsHttpService::selfCheck(const HttpRequest& request) {
  TtsRequest probe = requestFromQuery(request);
  const std::vector<CheckResult> checks = runSelfChecks(*service_, probe);
  const bool allOk = std::all_of(checks.begin(), checks.end(), [](const CheckResult& c) { return c.ok; });
  const std::string verdict = allOk ? T("全部通过 - 客户端可以连接。") : T("有检查没通过 - 请按上面标出的项目修正。");
  if (toLower(request.queryValue("format")) == "json") {
    Json list = Json::array();
    for (const CheckResult& c : checks) list.push_back(Json{{"name", c.name}, {"ok", c.ok}, {"detail", c.detail}});
    return HttpResponse::json(200, Json{{"ok", allOk}, {"checks", std::move(list)}, {"verdict", verdict}});
  }
  std::string text;
  for (const CheckResult& c : checks) {
    text += (c.ok ? "✓ " : "✗ ") + c.name + (c.detail.empty() ? "" : "  " + c.detail) + "\n";
  }
  return HttpResponse::text(200, text + verdict + "\n");
}

}  // namespace kelvo
