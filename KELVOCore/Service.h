// TtsService: the synthesis pipeline every spoken line goes through. It
// validates a request, resolves its voice (creating a default voice with the
// model on first use), answers from the WAV cache when it can, otherwise sends
// the work through the synthesis queue to the active engine, post-processes
// the audio (rate, peak, local speed change), stores it and counts it. It also
// pre-bakes lists of lines into the cache on a thread of its own.
//
// Thread-safe: `synthesize` and everything else may be called from any number
// of threads. The service lock guards only the counters and is never held
// across a synthesis or another object's lock; the queue serialises the engine.
// Always owned through a shared_ptr: the pre-bake worker and late-result
// handlers hold it weakly and do nothing once it is gone.
//
// Cost: a cache hit is a few hash lookups, two SHA-256 of the key text and one
// open() of the clip (answer) or one file read (synthesize); a fresh line adds
// the engine time and linear-time post-processing, its file write happens on
// the cache's writer thread. Settings are read per request, so a changed speed mode,
// output rate, normalisation, cache switch or timeout applies to the next one.
#pragma once

#include <atomic>
#include <cstdint>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "KELVOCore/AudioFormat.h"
#include "KELVOCore/Cache.h"
#include "KELVOCore/Config.h"
#include "KELVOCore/EngineS2Local.h"
#include "KELVOCore/Prewarm.h"
#include "KELVOCore/Queue.h"
#include "KELVOCore/Voices.h"

namespace kelvo {

// A snapshot of the service's counters for status pages and the API.
struct ServiceStats {
  std::int64_t total = 0;
  std::int64_t failed = 0;
  std::int64_t cacheHits = 0;
  double cacheHitRate = 0;  // hits / (hits + misses); 0 when both are 0
  std::int64_t cacheBytes = 0;
  std::int64_t cacheCount = 0;
  std::int64_t queueDepth = 0;
  std::int64_t prewarmPending = 0;
  PrewarmWorker::Failures prewarmFailures;  // failed pre-bake lines since start
  bool busy = false;
  std::int64_t p50Ms = 0;
  std::int64_t p95Ms = 0;
  std::int64_t totalAudioMs = 0;
  std::int64_t totalSynthMs = 0;
  std::string engineName;
  std::string engineDetail;
  bool engineReady = false;
  bool placeholder = false;
};

// A synthesis answer in the form the HTTP layer sends it.
struct TtsReply {
  // The facts of the line. `wav` holds the audio unless `file` does or the
  // answer is notModified.
  TtsResult result;
  // A 1.0x cache hit: the clip itself, opened by the cache, sent as it is.
  std::shared_ptr<const OpenFile> file;
  bool notModified = false;  // the client already holds `result.etag`; nothing to send
};

class PrewarmWorker;

class TtsService : public std::enable_shared_from_this<TtsService> {
 public:
  // What a service is built from. open() makes these from the data root;
  // tests assemble their own (any TtsEngine may stand in for the placeholder,
  // which answers whenever the real engine is missing).
  struct Parts {
    std::shared_ptr<AppConfig> config;
    std::shared_ptr<VoiceLibrary> voices;
    std::shared_ptr<WavCache> cache;
    std::shared_ptr<S2LocalEngine> s2;
    std::shared_ptr<TtsEngine> placeholder;
  };

  // Builds the queue (limit from the configuration) and the pre-bake worker.
  // Starts no engine. REQUIRES: every part is set.
  static std::shared_ptr<TtsService> create(Parts parts);
  // The host's start, in order: data directories, configuration (written when
  // missing), voice library, cache (budget and on/off applied), queue, orphan
  // sweep, local engine start. Never fails: a part that cannot load starts empty.
  static std::shared_ptr<TtsService> open();
  // The host's stop: waiting jobs fail with the shutdown message (the queue does
  // not interrupt the job in the engine, but stopping the engine child ends a
  // real synthesis with its error), the pre-bake worker takes no further line,
  // the engine child is stopped, the cache index is written. Later requests
  // fail with engineNotConnected. Idempotent; the destructor runs it and then
  // waits for the worker threads.
  void shutdown();
  ~TtsService();

  TtsService(const TtsService&) = delete;
  TtsService& operator=(const TtsService&) = delete;

  // The request spoken, from the cache or fresh. `etag` is the cache key, except
  // for audio retimed here (speed more than 0.01 from 1 without native speed),
  // which carries the tag of its own speed. Throws TtsError; errors of the voice
  // resolver and the queue pass unchanged.
  // In another `format` than WAV, `wav` holds the encoded audio and `etag` its
  // variantTag. The encoding is stored beside the cached line and served from
  // there next time, so a repeat costs no encoding; retimed audio is encoded
  // afresh each time (it is made afresh each time anyway).
  TtsResult synthesize(TtsRequest request, AudioFormat format = AudioFormat::wav);
  // The same for a client that may hold a tag already (`clientTag`, bare, ""
  // for none): a hit whose tag matches is answered from the index alone, a 1.0x
  // hit hands out its open clip (or its stored variant) instead of its bytes,
  // and a fresh line is stored in the background after the answer is made.
  // Throws TtsError.
  TtsReply answer(TtsRequest request, std::string_view clientTag, AudioFormat format = AudioFormat::wav);
  // The same answer when it is a plain cache hit that needs no retiming, no
  // encoding and no new voice; nullopt otherwise (a miss is not counted:
  // answer() follows). Never waits for the engine or an encoder, so an I/O
  // thread may call it.
  std::optional<TtsReply> answerFromCache(TtsRequest request, std::string_view clientTag,
                                          AudioFormat format = AudioFormat::wav);
  // The placeholder while the real engine is missing, else the real engine.
  std::shared_ptr<TtsEngine> activeEngine();
  // (key, etag): the cache entry and the client-visible tag; equal with native speed.
  std::pair<std::string, std::string> cacheKeys(const TtsRequest& request, const VoiceInfo& voice,
                                                const TtsEngine& engine, std::int64_t targetRate,
                                                bool nativeSpeed) const;
  S2Params buildParams(const TtsRequest& request, const VoiceInfo& voice) const;
  // Changes a cached result's speed in place (by the configured speed mode);
  // nothing within 0.01 of 1. False when the audio was left as it was: no
  // change needed, or a clip that does not parse (logged).
  bool retimeFromCache(TtsResult& result, float speed) const;
  // Asks the model for a reference line (seeded from stableHash of
  // "language:gender code", 31 bits), stores it as a voice, binds it as the
  // default of (language, gender) and saves the configuration. Throws TtsError.
  // Unconditional: synthesize() goes through a single-flight guard instead.
  VoiceInfo bootstrapDefaultVoice(const std::string& language, TtsGender gender);
  // Why no voice was found and how to bind one, localised.
  std::string noVoiceMessage(const TtsRequest& request) const;

  void recordDuration(std::int64_t ms);  // keeps the last 200
  // The recent synthesis time at rank round(p × (n − 1)), p in 0..1; 0 when none.
  std::int64_t percentile(double p) const;
  ServiceStats stats();
  // Hands the non-empty requests to the pre-bake worker; returns how many.
  std::int64_t prewarmRequests(const std::vector<TtsRequest>& requests);
  std::int64_t prewarmPending() const;
  PrewarmWorker::Failures prewarmFailures() const;
  // Drops the pre-bake lines still waiting; returns how many.
  std::int64_t cancelPrewarm();
  // Whether synthesize(request) would be a cache hit right now: the same
  // voice resolution (never creating a voice) and key. Counts nothing.
  bool isCached(const TtsRequest& request);

  AppConfig& config() const { return *parts_.config; }
  VoiceLibrary& voices() const { return *parts_.voices; }
  WavCache& cache() const { return *parts_.cache; }
  S2LocalEngine& s2() const { return *parts_.s2; }
  bool usingPlaceholder() const;

 private:
  // What the cache lookup and a synthesis of one request depend on, settled once.
  struct Plan {
    std::shared_ptr<TtsEngine> engine;
    TtsSpeedMode mode = TtsSpeedMode::engine;
    std::int64_t targetRate = 0;  // 0: keep the engine's rate
    bool nativeSpeed = false;
    std::string key;
    std::string etag;
  };
  struct Delivery;

  explicit TtsService(Parts parts);

  // The request's voice, created as the default of its language and gender
  // when nothing is bound and the configuration allows it. Throws TtsError.
  VoiceInfo requireVoice(const TtsRequest& request);
  // The default voice the request resolves to, created once per (language,
  // gender): a caller that comes while another creates it waits for that
  // voice (or that error) instead of making a second one. Throws TtsError.
  VoiceInfo defaultVoiceOnce(const TtsRequest& request);
  // Normalises `request` and refuses an empty or too long text (TtsError).
  void checkText(TtsRequest& request) const;
  // REQUIRES: `request` is normalised and carries the voice's style.
  Plan plan(const TtsRequest& request, const VoiceInfo& voice);
  // The answer from the cache, counted; nullopt on a miss.
  std::optional<TtsReply> fromCache(const TtsRequest& request, const Plan& route, std::string_view clientTag,
                                    AudioFormat format);
  std::pair<std::string, std::string> keysFor(const TtsRequest& request, const VoiceInfo& voice,
                                              const std::string& engineName, TtsSpeedMode mode,
                                              std::int64_t targetRate, bool nativeSpeed) const;
  TtsResult synthesizeFresh(const TtsRequest& request, const VoiceInfo& voice, const Plan& plan);
  // Encodes `result` (a WAV) into `format` in place and, with a `variantOwner`
  // key, stores the encoding beside that entry. Throws TtsError(engineFailed)
  // when the audio cannot be encoded.
  void deliverAs(TtsResult& result, AudioFormat format, const std::string& variantOwner) const;
  void countRequest(bool failed);

  Parts parts_;
  std::unique_ptr<SynthQueue> queue_;
  std::unique_ptr<PrewarmWorker> prewarm_;
  std::once_flag shutdownOnce_;

  std::mutex creatingLock_;  // guards creating_; never held across a creation
  std::map<std::string, std::shared_future<VoiceInfo>> creating_;  // by default-voice key

  std::atomic<bool> usingPlaceholder_{false};  // the last request fell back to the placeholder; read without a lock
  mutable std::mutex lock_;  // guards the fields below
  std::vector<std::int64_t> durations_;
  std::int64_t totalCount_ = 0;
  std::int64_t failedCount_ = 0;
  std::int64_t totalAudioMs_ = 0;
  std::int64_t totalSynthMs_ = 0;
};

}  // namespace kelvo
