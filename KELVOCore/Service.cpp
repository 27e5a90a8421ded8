#include "KELVOCore/Service.h"

#include <algorithm>
#include <cmath>
#include <exception>

#include "KELVOCore/Dsp.h"
#include "KELVOCore/EnginePlaceholder.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Log.h"
#include "KELVOCore/Paths.h"
#include "KELVOCore/Prewarm.h"
#include "KELVOCore/Wav.h"

namespace kelvo {

namespace {

constexpr std::string_view kSource = "service";
constexpr std::size_t kDurationWindow = 200;
constexpr float kNormalizedPeak = 0.95f;
constexpr std::int64_t kExcerpt = 40;

// Within this of 1.0 a speed is served as it is: the difference cannot be heard
// and the clip stays byte-identical to the 1.0 entry (and so keeps its tag).
bool needsRetiming(float speed) { return std::fabs(speed - 1.0f) > 0.01f; }

std::string languageLabel(const std::string& language) { return language.empty() ? "auto" : language; }

// The line a new default voice is made from, and the voice it is asked for.
std::string referenceSentence(const std::string& language) {
  if (language == "zh") return "各位旅客请注意,本次航班即将起飞,请系好安全带,收起小桌板。";
  if (language == "ja") return "ご搭乗のみなさま、まもなく出発いたします。シートベルトをお締めください。";
  return "Ladies and gentlemen, we are now ready for departure. Please fasten your seat belt and stow your tray "
         "table.";
}

std::string voiceDescription(TtsGender gender) {
  switch (gender) {
    case TtsGender::female: return "a calm adult female voice, clear professional broadcast tone";
    case TtsGender::male: return "a calm adult male voice, clear professional broadcast tone";
    case TtsGender::automatic: break;
  }
  return "a calm neutral adult voice, clear professional broadcast tone";
}

// The pipeline's own normalisation: the record's, plus the bare language code.
void normalizeRequest(TtsRequest& request) {
  request.normalize();
  request.language = normLang(request.language);
}


// Rate conversion and peak normalisation of fresh engine audio.
PcmBuffer postProcess(PcmBuffer pcm, std::int64_t targetRate, bool normalize) {
  if (targetRate >= 1 && pcm.sampleRate >= 1 && pcm.sampleRate != targetRate) pcm = resample(pcm, targetRate);
  if (normalize) pcm = peakNormalize(std::move(pcm), kNormalizedPeak);
  return pcm;
}

}  // namespace

// What turns engine audio into the stored result: everything a late result
// needs after its caller has gone, copied at submission.
struct TtsService::Delivery {
  TtsRequest request;
  std::string voiceId;
  std::string engineName;
  std::string key;
  std::int64_t targetRate = 0;
  bool normalize = false;
  bool nativeSpeed = false;

  // Post-processes `pcm` in place and hands the result (at speed 1.0 unless
  // the engine applied the speed itself) to the cache's writer under `key`.
  TtsResult store(WavCache& cache, PcmBuffer& pcm, std::int64_t synthMs) const {
    pcm = postProcess(std::move(pcm), targetRate, normalize);
    TtsResult result;
    result.wav = buildWav(pcm, 1);
    result.sampleRate = pcm.sampleRate;
    result.channels = 1;
    result.durationMs = pcm.durationMs();
    result.synthMs = synthMs;
    result.voiceId = voiceId;
    result.language = request.language;
    result.gender = request.gender;
    result.speed = nativeSpeed ? request.speed : 1.0f;
    result.engine = engineName;
    result.etag = key;
    cache.putLater(key, result, request.effectiveText());
    return result;
  }
};

// ---- Life cycle ----------------------------------------------------------------------------

TtsService::TtsService(Parts parts) : parts_(std::move(parts)) {
  // The queue dies in our destructor, before any member it could reach through `this`.
  queue_ = std::make_unique<SynthQueue>(parts_.config->queueLimit(), [this] { return activeEngine(); });
}

std::shared_ptr<TtsService> TtsService::create(Parts parts) {
  std::shared_ptr<TtsService> service(new TtsService(std::move(parts)));
  service->prewarm_ = std::make_unique<PrewarmWorker>(service);
  return service;
}

std::shared_ptr<TtsService> TtsService::open() {
  KELVOPaths::ensureDirectories();
  auto config = std::make_shared<AppConfig>();
  config->load();
  auto voices = std::make_shared<VoiceLibrary>();
  voices->setConfig(config);
  voices->load();
  auto cache = std::make_shared<WavCache>(KELVOPaths::cacheDir(), config->cacheBudgetMB() * 1024 * 1024);
  cache->setEnabled(config->cacheEnabled());
  const std::string root = KELVOPaths::dataRoot();
  auto s2 = std::make_shared<S2LocalEngine>(config->engine(), root);
  auto placeholder = std::make_shared<PlaceholderEngine>(config->engine());
  auto service = create({config, voices, cache, s2, placeholder});
  S2LocalEngine::sweepOrphans(root);
  s2->start();
  return service;
}

void TtsService::shutdown() {
  std::call_once(shutdownOnce_, [this] {
    queue_->shutdown();
    prewarm_->stop();
    parts_.s2->stop();
    parts_.cache->flush();
    parts_.cache->saveIndex(true);
  });
}

TtsService::~TtsService() {
  shutdown();
  // Joins (unless we are on that thread): the worker may still be asking activeEngine().
  prewarm_.reset();
  queue_.reset();
}

// ---- The pipeline --------------------------------------------------------------------------

TtsResult TtsService::synthesize(TtsRequest request, AudioFormat format) {
  TtsReply reply = answer(std::move(request), {}, format);
  if (reply.file) {
    std::optional<Bytes> wav = reply.file->readAll();
    // Only a hand can shorten a clip that is open; the caller gets an error, never half a line.
    if (!wav) throw TtsError(TtsErrorCode::engineFailed, T("缓存文件读不出来"));
    reply.result.wav = std::move(*wav);
  }
  return std::move(reply.result);
}

TtsReply TtsService::answer(TtsRequest request, std::string_view clientTag, AudioFormat format) {
  checkText(request);
  const VoiceInfo voice = requireVoice(request);
  if (request.style.empty()) request.style = voice.style;
  const Plan route = plan(request, voice);
  if (auto reply = fromCache(request, route, clientTag, format)) return std::move(*reply);
  // An unloaded model turns the service into a cache-only server on purpose.
  if (s2().currentState() == S2EngineState::unloaded) {
    countRequest(true);
    throw TtsError(TtsErrorCode::engineNotConnected,
                   T("模型已卸载,这一句缓存里没有。\n要现合成的话,先在「模型」页点「载入模型」。"));
  }
  TtsReply reply;
  reply.result = synthesizeFresh(request, voice, route);
  const bool retimed = !route.nativeSpeed && needsRetiming(request.speed);
  deliverAs(reply.result, format, retimed ? std::string() : route.key);
  return reply;
}

std::optional<TtsReply> TtsService::answerFromCache(TtsRequest request, std::string_view clientTag,
                                                    AudioFormat format) {
  std::optional<VoiceInfo> voice;
  try {
    checkText(request);
    voice = voices().resolve(request).voice;
  } catch (const TtsError&) {
    return std::nullopt;
  }
  if (!voice) return std::nullopt;
  if (request.style.empty()) request.style = voice->style;
  const Plan route = plan(request, *voice);
  // Retiming is real work; a line not cached at all is counted by the full path.
  if ((!route.nativeSpeed && needsRetiming(request.speed)) || !cache().contains(route.key)) return std::nullopt;
  // So is encoding: only a stored variant (or the client's copy of it) is answered here.
  const std::string tag = variantTag(route.key, format);
  if (format != AudioFormat::wav && clientTag != tag && !cache().hasVariant(route.key, tag)) return std::nullopt;
  return fromCache(request, route, clientTag, format);
}

void TtsService::checkText(TtsRequest& request) const {
  normalizeRequest(request);
  if (request.text.empty()) throw TtsError(TtsErrorCode::emptyText, T("没有要合成的文字"));
  const std::int64_t length = characterCount(request.text);
  const std::int64_t limit = config().maxTextLength();
  if (length > limit) {
    throw TtsError(TtsErrorCode::textTooLong,
                   TF("文字有 %d 个字,超过了 %d 字的上限", static_cast<int>(length), static_cast<int>(limit)));
  }
}

std::optional<TtsReply> TtsService::fromCache(const TtsRequest& request, const Plan& route,
                                              std::string_view clientTag, AudioFormat format) {
  const bool retime = !route.nativeSpeed && needsRetiming(request.speed);
  // The tag the answer will carry is known before the clip is touched.
  const std::string tag = variantTag(retime ? route.etag : route.key, format);
  const bool tagMatches = !clientTag.empty() && clientTag == tag;
  std::optional<CacheHit> hit;
  if (format != AudioFormat::wav && !retime && !tagMatches) hit = cache().lookupVariant(route.key, tag);
  const bool variantHit = hit.has_value();
  if (!hit) hit = cache().lookup(route.key, !tagMatches);
  if (!hit) return std::nullopt;
  TtsReply reply;
  reply.result = std::move(hit->result);
  countRequest(false);
  if (tagMatches) {
    reply.result.etag = tag;
    reply.result.format = format;
    reply.notModified = true;
  } else if (variantHit || (!retime && format == AudioFormat::wav && hit->file)) {
    reply.result.etag = tag;
    reply.result.format = format;
    reply.file = std::move(hit->file);
  } else {
    // A retimed or newly encoded hit reads the 1.0 clip (a line still on its way
    // to the disk is in memory).
    if (hit->file) {
      std::optional<Bytes> wav = hit->file->readAll();
      if (!wav) throw TtsError(TtsErrorCode::engineFailed, T("缓存文件读不出来"));
      reply.result.wav = std::move(*wav);
    }
    if (retime && retimeFromCache(reply.result, request.speed)) reply.result.etag = route.etag;
    deliverAs(reply.result, format, retime ? std::string() : route.key);
  }
  return reply;
}

void TtsService::deliverAs(TtsResult& result, AudioFormat format, const std::string& variantOwner) const {
  if (format == AudioFormat::wav) return;
  const std::optional<PcmBuffer> pcm = parseWav(result.wav);
  std::optional<Bytes> encoded = pcm ? encodeAudio(format, *pcm) : std::nullopt;
  if (!encoded) throw TtsError(TtsErrorCode::engineFailed, TF("无法把音频编码为 %s", std::string(code(format))));
  result.wav = std::move(*encoded);
  result.format = format;
  result.etag = variantTag(result.etag, format);
  if (!variantOwner.empty()) cache().putVariant(variantOwner, result.etag, result.wav);
}

VoiceInfo TtsService::requireVoice(const TtsRequest& request) {
  std::optional<VoiceInfo> voice = voices().resolve(request).voice;
  // An airline request never makes a voice of its own: its binding is the operator's call.
  if (!voice && request.airline.empty() && config().autoCreateDefaultVoice()) {
    try {
      voice = defaultVoiceOnce(request);
    } catch (const std::exception& e) {
      AppLog::warn(kSource, std::string("could not create the default voice: ") + e.what());
    }
  }
  if (!voice) throw TtsError(TtsErrorCode::badVoice, noVoiceMessage(request));
  return std::move(*voice);
}

VoiceInfo TtsService::defaultVoiceOnce(const TtsRequest& request) {
  const std::string key = defaultKey(request.language, request.gender);
  std::promise<VoiceInfo> made;
  std::shared_future<VoiceInfo> result;
  bool creator = false;
  {
    std::lock_guard guard(creatingLock_);
    auto [it, first] = creating_.try_emplace(key);
    if (first) it->second = made.get_future().share();
    result = it->second;
    creator = first;
  }
  if (!creator) return result.get();  // the other caller's voice, or its error

  try {
    // A creation that ended between our caller's lookup and here has bound its voice already.
    std::optional<VoiceInfo> bound = voices().resolve(request).voice;
    made.set_value(bound ? std::move(*bound) : bootstrapDefaultVoice(request.language, request.gender));
  } catch (...) {
    made.set_exception(std::current_exception());
  }
  {
    std::lock_guard guard(creatingLock_);
    creating_.erase(key);
  }
  return result.get();
}

TtsService::Plan TtsService::plan(const TtsRequest& request, const VoiceInfo& voice) {
  // The cache follows a switch of the setting from the next request on.
  cache().setEnabled(config().cacheEnabled());
  Plan p;
  p.engine = activeEngine();
  p.mode = config().speedMode();
  p.targetRate = request.sampleRate >= 1 ? request.sampleRate : config().outputSampleRate();
  p.nativeSpeed = p.mode == TtsSpeedMode::engine && p.engine->supportsNativeSpeed();
  std::tie(p.key, p.etag) = keysFor(request, voice, p.engine->name(), p.mode, p.targetRate, p.nativeSpeed);
  return p;
}

TtsResult TtsService::synthesizeFresh(const TtsRequest& request, const VoiceInfo& voice, const Plan& route) {
  auto delivery = std::make_shared<Delivery>(Delivery{request, voice.id, route.engine->name(), route.key,
                                                      route.targetRate, config().normalizeOutput(),
                                                      route.nativeSpeed});
  // A result that arrives after its caller gave up still goes into the cache,
  // so that the client's retry is a hit.
  auto onLate = [weak = weak_from_this(), delivery](PcmBuffer pcm, std::int64_t elapsedMs) {
    const auto self = weak.lock();
    if (!self || pcm.isEmpty()) return;
    delivery->store(self->cache(), pcm, elapsedMs);
    AppLog::info(kSource, formatText("a synthesis we had given up on finished after %.0f s and went into the cache "
                                     "anyway: %s",
                                     static_cast<double>(elapsedMs) / 1000.0,
                                     firstCharacters(delivery->request.effectiveText(), kExcerpt)));
  };
  SynthOutput out = queue_->submit(buildParams(request, voice), VoiceHint(voice), request.priority,
                                   config().requestTimeoutMs(), std::move(onLate));
  if (out.pcm.isEmpty()) {
    countRequest(true);
    throw TtsError(TtsErrorCode::engineFailed, T("引擎返回了空音频"));
  }
  TtsResult result = delivery->store(cache(), out.pcm, out.elapsedMs);
  if (!route.nativeSpeed && needsRetiming(request.speed)) {
    const PcmBuffer retimed = changeSpeed(out.pcm, route.mode, request.speed);
    result.wav = buildWav(retimed, 1);
    result.durationMs = retimed.durationMs();
    // The 1.0 clip carries the key; a client holding it must not get a 304 for this one.
    result.etag = route.etag;
  }
  recordDuration(out.elapsedMs);
  {
    std::lock_guard guard(lock_);
    ++totalCount_;
    totalAudioMs_ += result.durationMs;
    totalSynthMs_ += out.elapsedMs;
  }
  return result;
}

std::shared_ptr<TtsEngine> TtsService::activeEngine() {
  // Only a missing engine gives way: a loading or failed one is waited for or
  // fails in the queue, never silently replaced by placeholder audio.
  const bool missing = s2().currentState() == S2EngineState::missing;
  // Written only on a change: every request passes here, from every I/O
  // thread, and a store each time would bounce the line between the cores.
  if (usingPlaceholder_.load(std::memory_order_relaxed) != missing) {
    usingPlaceholder_.store(missing, std::memory_order_relaxed);
  }
  if (missing) return parts_.placeholder;
  return parts_.s2;
}

std::pair<std::string, std::string> TtsService::cacheKeys(const TtsRequest& request, const VoiceInfo& voice,
                                                          const TtsEngine& engine, std::int64_t targetRate,
                                                          bool nativeSpeed) const {
  return keysFor(request, voice, engine.name(), config().speedMode(), targetRate, nativeSpeed);
}

std::pair<std::string, std::string> TtsService::keysFor(const TtsRequest& request, const VoiceInfo& voice,
                                                        const std::string& engineName, TtsSpeedMode mode,
                                                        std::int64_t targetRate, bool nativeSpeed) const {
  const std::string tag = engineName + "/" + std::string(code(mode));
  std::string etag = makeCacheKey(request, voice, tag, targetRate, nativeSpeed);
  if (nativeSpeed || request.speed == 1.0f) return {etag, etag};
  // Locally retimed speeds all come from the one entry at 1.0.
  TtsRequest atNormalSpeed = request;
  atNormalSpeed.speed = 1.0f;
  return {makeCacheKey(atNormalSpeed, voice, tag, targetRate, false), std::move(etag)};
}

S2Params TtsService::buildParams(const TtsRequest& request, const VoiceInfo& voice) const {
  S2Params params = config().engine().samplingParams();
  params.text = request.effectiveText();
  params.seed = request.seed != 0 ? request.seed : voice.seed;
  if (voice.kind == VoiceKind::profile) {
    params.voiceProfile = voice.profileFile;
    return params;
  }
  std::optional<Bytes> reference = voices().referenceAudio(voice);
  if (!reference || reference->empty()) {
    AppLog::warn(kSource, "reference audio for voice " + voice.id + " is missing; " +
                              "this request has nothing to clone from");
    return params;
  }
  params.referenceAudio = std::move(*reference);
  params.referenceText = VoiceLibrary::referenceText(voice);
  return params;
}

bool TtsService::retimeFromCache(TtsResult& result, float speed) const {
  if (!needsRetiming(speed)) return false;
  const std::optional<PcmBuffer> pcm = parseWav(result.wav);
  if (!pcm) {
    AppLog::warn(kSource, "cached clip could not be parsed for retiming, serving it as-is");
    return false;
  }
  const PcmBuffer retimed = changeSpeed(*pcm, config().speedMode(), speed);
  result.wav = buildWav(retimed, 1);
  result.sampleRate = retimed.sampleRate;
  result.durationMs = retimed.durationMs();
  return true;
}

// ---- Voices of their own -------------------------------------------------------------------

VoiceInfo TtsService::bootstrapDefaultVoice(const std::string& languageCode, TtsGender gender) {
  const std::string language = normLang(languageCode);
  const std::string sentence = referenceSentence(language);
  const std::string description = voiceDescription(gender);
  const std::string display = T("默认") + " " + languageLabel(language) + " · " + kelvo::display(gender);

  S2Params params = config().engine().samplingParams();
  params.text = "[" + description + "] " + sentence;
  params.repetitionPenalty = 1.1f;
  // The same language and gender always ask for the same voice; 31 bits, as
  // every other seed, so that any engine takes it.
  params.seed = static_cast<std::int64_t>(stableHash(language + ":" + std::string(code(gender))) & 0x7FFFFFFF);
  VoiceHint hint;
  hint.language = language;
  hint.gender = gender;
  hint.seed = params.seed;
  hint.display = display;

  AppLog::info(kSource, "no voice for " + languageLabel(language) + "/" + std::string(code(gender)) + " yet; " +
                            "asking the model to speak one line as the reference...");
  const SynthOutput out = queue_->submit(std::move(params), std::move(hint), TtsPriority::high,
                                         config().requestTimeoutMs());
  if (out.pcm.isEmpty()) {
    throw TtsError(TtsErrorCode::engineFailed, T("创建默认声音时引擎没有产出音频"));
  }
  VoiceCloneSpec spec;
  spec.display = display;
  spec.language = language;
  spec.gender = gender;
  spec.clips.push_back({buildWav(out.pcm, 1), sentence});
  spec.style = description;
  spec.note = T("模型首次使用时为自己生成的默认声音");
  VoiceInfo voice = voices().addClone(spec);
  config().setDefaultVoice(language, gender, voice.id);
  config().save();
  AppLog::info(kSource, "default voice generated and bound: " + voice.id + " (" +
                            std::to_string(out.pcm.durationMs()) + " ms of reference)");
  return voice;
}

std::string TtsService::noVoiceMessage(const TtsRequest& request) const {
  const std::string airline = normAirline(request.airline);
  const std::string language = langDisplay(request.language);
  const std::string gender = display(request.gender);
  const std::string bound =
      airline.empty() ? language + " · " + gender : TF("航空公司 %s · %s · %s", airline, language, gender);
  std::string text = TF("没有可用的声音:%s 没有绑定任何声音", bound);
  if (!airline.empty() && config().airlineVoice(airline, "", request.gender).empty() &&
      config().airlineVoice(airline, "", TtsGender::automatic).empty()) {
    text += TF(";%s 也没有 language=Auto 的兜底", airline);
  }
  return text + T("。请在「播报」页绑定一个 - 想让这家航空公司用任何语言播报,就把它的语言设为「自动」。");
}

// ---- Statistics and pre-bake ---------------------------------------------------------------

void TtsService::countRequest(bool failed) {
  std::lock_guard guard(lock_);
  ++totalCount_;
  if (failed) ++failedCount_;
}

void TtsService::recordDuration(std::int64_t ms) {
  std::lock_guard guard(lock_);
  durations_.push_back(ms);
  if (durations_.size() > kDurationWindow) {
    durations_.erase(durations_.begin(), durations_.end() - static_cast<std::ptrdiff_t>(kDurationWindow));
  }
}

std::int64_t TtsService::percentile(double p) const {
  std::vector<std::int64_t> sorted;
  {
    std::lock_guard guard(lock_);
    sorted = durations_;
  }
  if (sorted.empty()) return 0;
  std::sort(sorted.begin(), sorted.end());
  const auto last = static_cast<std::int64_t>(sorted.size()) - 1;
  // std::llround rounds halves away from zero, as the rank rule wants.
  const std::int64_t rank = std::clamp<std::int64_t>(std::llround(p * static_cast<double>(last)), 0, last);
  return sorted[static_cast<std::size_t>(rank)];
}

ServiceStats TtsService::stats() {
  ServiceStats s;
  const CacheStats cached = cache().stats();
  s.cacheHits = cached.hits;
  const std::int64_t lookups = cached.hits + cached.misses;
  s.cacheHitRate = lookups > 0 ? static_cast<double>(cached.hits) / static_cast<double>(lookups) : 0.0;
  s.cacheBytes = cached.bytes;
  s.cacheCount = cached.count;
  const EngineHealth health = activeEngine()->checkHealth();
  s.engineName = health.backend;
  s.engineDetail = health.detail;
  s.engineReady = health.ready;
  {
    std::lock_guard guard(lock_);
    s.total = totalCount_;
    s.failed = failedCount_;
    s.totalAudioMs = totalAudioMs_;
    s.totalSynthMs = totalSynthMs_;
  }
  s.placeholder = usingPlaceholder_.load(std::memory_order_relaxed);
  s.queueDepth = queue_->depth();
  s.busy = queue_->busy();
  s.prewarmPending = prewarmPending();
  s.prewarmFailures = prewarmFailures();
  s.p50Ms = percentile(0.5);
  s.p95Ms = percentile(0.95);
  return s;
}

std::int64_t TtsService::prewarmRequests(const std::vector<TtsRequest>& requests) { return prewarm_->add(requests); }

std::int64_t TtsService::prewarmPending() const { return prewarm_->pending(); }

PrewarmWorker::Failures TtsService::prewarmFailures() const { return prewarm_->failures(); }

std::int64_t TtsService::cancelPrewarm() { return prewarm_->cancel(); }

bool TtsService::isCached(const TtsRequest& original) {
  TtsRequest request = original;
  normalizeRequest(request);
  if (request.text.empty()) return false;
  std::optional<VoiceInfo> voice;
  try {
    voice = voices().resolve(request).voice;
  } catch (const TtsError&) {
    return false;
  }
  if (!voice) return false;
  if (request.style.empty()) request.style = voice->style;
  return cache().contains(plan(request, *voice).key);
}

bool TtsService::usingPlaceholder() const { return usingPlaceholder_.load(std::memory_order_relaxed); }

}  // namespace kelvo
