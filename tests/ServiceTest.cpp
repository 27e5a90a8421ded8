#include "KELVOCore/Service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <thread>
#include <utility>

#include "KELVOCore/I18n.h"
#include "KELVOCore/Wav.h"
#include "tests/TestSupport.h"

namespace kelvo {
namespace {

using test::eventually;
using test::loggedLine;
using namespace std::chrono_literals;

// An in-process engine: instant 1.5 s of 24 kHz audio (a tone, silence or
// nothing), or an error; while held, every call waits (a slow engine on cue).
class TestEngine final : public TtsEngine {
 public:
  enum class Output { tone, silence, empty, fail };
  std::atomic<Output> output{Output::tone};
  std::atomic<bool> native{false};

  std::string name() const override { return "test"; }
  bool ready() const override { return true; }
  bool supportsNativeSpeed() const override { return native; }
  void configure(const EngineOptions&) override {}
  EngineOptions options() const override { return {}; }
  EngineHealth checkHealth() override { return {true, "test backend", "instant", {}, {}}; }
  PcmBuffer synthesize(const S2Params& params, const VoiceHint&) override {
    std::unique_lock guard(lock);
    calls.push_back(params);
    changed.notify_all();
    changed.wait(guard, [this] { return !held; });
    if (output == Output::fail) throw TtsError(TtsErrorCode::engineFailed, "boom");
    PcmBuffer pcm{std::vector<float>(output == Output::empty ? 0 : 36000), 24000};
    for (std::size_t i = 0; output == Output::tone && i < pcm.data.size(); ++i) pcm.data[i] = 0.3f * std::sin(i / 20.f);
    return pcm;
  }
  void hold(bool on) {
    std::lock_guard g(lock);
    held = on;
    changed.notify_all();
  }
  S2Params awaitCall(std::size_t n) {  // the n-th call (from 1), once it has begun
    std::unique_lock guard(lock);
    EXPECT_TRUE(changed.wait_for(guard, 5s, [&] { return calls.size() >= n; }));
    return calls.size() >= n ? calls[n - 1] : S2Params{};
  }
  std::vector<std::string> texts() {
    std::lock_guard g(lock);
    std::vector<std::string> out;
    for (const auto& c : calls) out.push_back(c.text);
    return out;
  }

 private:
  std::mutex lock;
  std::condition_variable changed;
  std::vector<S2Params> calls;
  bool held = false;
};

float peakOf(const Bytes& wav) {
  const PcmBuffer pcm = parseWav(wav).value_or(PcmBuffer{});
  float peak = 0;
  for (float s : pcm.data) peak = std::max(peak, std::fabs(s));
  return peak;
}

class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    AppLog::clear();
    voices->setConfig(config);
    s2->start();  // nothing installed under the temporary root: missing, so the test engine answers
    voice = voices->addClone(
        {"Anna", "en", TtsGender::female, {{test::levelWav(1500, 0.2f), "reference words"}}, "", ""});
    config->setDefaultVoice("en", TtsGender::female, voice.id);
    service = TtsService::create({config, voices, cache, s2, engine});
  }
  static TtsRequest req(std::string text, float speed = 1.0f, std::string language = "en",
                        TtsGender gender = TtsGender::female) {
    return TtsRequest::make(std::move(text), std::move(language), gender, speed);
  }
  TtsError failure(const TtsRequest& request) {
    return test::thrown([&] { service->synthesize(request); });
  }

  test::ScopedUiLang ui{UiLang::en};
  test::TempDir dir;
  std::shared_ptr<AppConfig> config = std::make_shared<AppConfig>(dir.path() + "data/config.json");
  std::shared_ptr<VoiceLibrary> voices =
      std::make_shared<VoiceLibrary>(dir.path() + "data/voices.json", dir.path() + "clone/");
  std::shared_ptr<WavCache> cache = std::make_shared<WavCache>(dir.path() + "temp/");
  std::shared_ptr<S2LocalEngine> s2 = std::make_shared<S2LocalEngine>(EngineOptions{}, dir.path());
  std::shared_ptr<TestEngine> engine = std::make_shared<TestEngine>();
  VoiceInfo voice;
  std::shared_ptr<TtsService> service;
};

TEST_F(ServiceTest, LocalSpeedsShareOneEntryWithTheirOwnTags) {
  for (TtsSpeedMode mode : {TtsSpeedMode::localStretch, TtsSpeedMode::localResample}) {
    config->setSpeedMode(mode);
    const std::string text = "Boarding " + std::string(code(mode));
    const TtsResult fast = service->synthesize(req(text, 1.5f));
    const TtsResult normal = service->synthesize(req(text));
    const TtsResult nearly = service->synthesize(req(text, 1.005f));
    EXPECT_TRUE(!fast.fromCache && normal.fromCache && nearly.fromCache);
    EXPECT_NEAR(fast.durationMs, normal.durationMs / 1.5, 40);
    EXPECT_NE(fast.etag, normal.etag);
    EXPECT_TRUE(nearly.wav == normal.wav && nearly.etag == normal.etag);  // within 0.01 of 1: untouched
    EXPECT_EQ(normal.etag, service->cacheKeys(req(text), voice, *engine, 0, false).first);
    EXPECT_EQ(service->synthesize(req(text, 1.5f)).etag, fast.etag);  // a retimed hit carries the speed's tag
  }
  cache->flush();  // fresh lines reach the disk after their answer
  EXPECT_EQ(std::tuple(engine->texts().size(), cache->stats().count), std::tuple(2u, 2));

  config->setSpeedMode(TtsSpeedMode::engine);  // the engine speaks the speed itself: one entry per speed
  engine->native = true;
  const TtsResult native = service->synthesize(req("Native", 1.5f));
  EXPECT_EQ(native.speed, 1.5f);
  EXPECT_EQ(service->synthesize(req("Native")).fromCache, false);
  EXPECT_EQ(service->synthesize(req("Native", 1.5f)).etag, native.etag);
  EXPECT_EQ(engine->texts().size(), 4u);
}

TEST_F(ServiceTest, PostProcessingRateAndPeak) {
  struct Row { TestEngine::Output output; bool normalize; std::int64_t requestRate, configRate, rate; float peak; };
  const Row rows[] = {{TestEngine::Output::tone, false, 0, 0, 24000, 0.3f},
              {TestEngine::Output::tone, true, 0, 44100, 44100, 0.95f},
              {TestEngine::Output::tone, true, 16000, 44100, 16000, 0.95f},
              {TestEngine::Output::silence, true, 0, 0, 24000, 0.0f}};
  int n = 0;
  for (const Row& row : rows) {
    engine->output = row.output;
    config->setNormalizeOutput(row.normalize);
    config->setOutputSampleRate(row.configRate);
    TtsRequest r = req("Line " + std::to_string(n++));
    r.sampleRate = row.requestRate;
    const TtsResult result = service->synthesize(r);
    EXPECT_EQ(std::tuple(result.sampleRate, result.durationMs), std::tuple(row.rate, 1500));
    EXPECT_NEAR(peakOf(result.wav), row.peak, 0.001f);
  }
  config->setCacheEnabled(false);  // like every setting above, from the next request on
  EXPECT_FALSE(service->synthesize(req("Line 0")).fromCache);
}

TEST_F(ServiceTest, UnloadedModelServesOnlyTheCache) {
  TtsResult stored = service->synthesize(req("placeholder line"));
  cache->put(service->cacheKeys(req("Cached"), voice, *s2, 0, false).first, stored, "Cached");
  s2->unload();
  EXPECT_TRUE(service->synthesize(req("Cached")).fromCache);
  EXPECT_NEAR(service->synthesize(req("Cached", 2.0f)).durationMs, 750, 30);
  const TtsError miss = failure(req("placeholder line"));  // the placeholder's entry is not the model's
  EXPECT_TRUE(miss.code == TtsErrorCode::engineNotConnected && miss.message.starts_with("The model is unloaded"));
  const ServiceStats stats = service->stats();
  EXPECT_EQ(std::tuple(stats.total, stats.failed, stats.placeholder), std::tuple(4, 1, false));
  EXPECT_EQ(engine->texts().size(), 1u);
}

TEST_F(ServiceTest, NoVoiceMessagesAndAirlinesNeverBootstrap) {
  TtsRequest ual = req("Hello", 1.0f, "fr");
  ual.airline = "ual";
  EXPECT_EQ(failure(ual).message,
            "no voice available: nothing is bound for airline UAL · Français · Female; UAL has no language=Auto "
            "fallback either. Bind one with `kelvo bind` - to let this airline speak in any language, bind it with the "
            "language auto.");
  EXPECT_TRUE(engine->texts().empty() && voices->count() == 1);

  config->setAirlineVoice("UAL", "", TtsGender::automatic, "v-gone");
  setUiLang(UiLang::zh);
  EXPECT_EQ(service->noVoiceMessage(ual),
            "没有可用的声音:航空公司 UAL · Français · 女声 没有绑定任何声音。用 `kelvo bind` 绑定一个 - "
            "想让这家航空公司用任何语言播报,就用语言 auto 绑定。");
  setUiLang(UiLang::ja);
  EXPECT_EQ(service->noVoiceMessage(req("x", 1.0f, "de", TtsGender::male)),
            "使える音声がありません: Deutsch · 男性の声 に音声が割り当てられていません。`kelvo bind` で割り当ててください - "
            "この航空会社をどの言語でも放送させるには、言語 auto で割り当ててください。");
}

TEST_F(ServiceTest, DefaultVoiceIsGeneratedBoundAndSaved) {
  const TtsResult result = service->synthesize(req("Welcome", 1.0f, "ja", TtsGender::male));
  const S2Params asked = engine->awaitCall(1);
  EXPECT_EQ(asked.text, "[a calm adult male voice, clear professional broadcast tone] "
                        "ご搭乗のみなさま、まもなく出発いたします。シートベルトをお締めください。");
  EXPECT_EQ(std::tuple(asked.seed, asked.repetitionPenalty, asked.referenceAudio.empty()),
            std::tuple(static_cast<std::int64_t>(stableHash("ja:male") & 0x7FFFFFFF), 1.1f, true));
  const std::optional<VoiceInfo> made = voices->find(result.voiceId);
  ASSERT_TRUE(made);
  EXPECT_EQ(std::tuple(made->display, made->note),
            std::tuple("Default ja · Male", "default voice the model generated for itself on first use"));
  AppConfig saved(config->path());
  saved.load();
  EXPECT_EQ(saved.defaultVoice("ja", TtsGender::male), made->id);
  EXPECT_EQ(loggedLine("service", LogLevel::info, "default voice generated"),
            "default voice generated and bound: " + made->id + " (1500 ms of reference)");
  const S2Params spoken = engine->awaitCall(2);  // the new voice is cloned from the line, and lends its style
  EXPECT_EQ(std::tuple(spoken.text, spoken.referenceText, spoken.referenceAudio.empty()),
            std::tuple("[" + made->style + "] Welcome", VoiceLibrary::referenceText(*made), false));
  EXPECT_TRUE(service->synthesize(req("Welcome", 1.0f, "ja", TtsGender::male)).fromCache);

  engine->output = TestEngine::Output::empty;  // failure is only logged; the request fails for want of a voice
  EXPECT_EQ(failure(req("Hi", 1.0f, "ko")).code, TtsErrorCode::badVoice);
  EXPECT_EQ(loggedLine("service", LogLevel::warn, "could not"),
            "could not create the default voice: the engine produced no audio while creating the default voice");
  config->setAutoCreateDefaultVoice(false);
  EXPECT_EQ(failure(req("Hi", 1.0f, "ko")).code, TtsErrorCode::badVoice);
  EXPECT_TRUE(engine->texts().size() == 3 && voices->count() == 2);
}

TEST_F(ServiceTest, GivenUpResultStillLandsInTheCache) {
  config->setRequestTimeoutMs(30);
  engine->hold(true);
  EXPECT_EQ(failure(req("Late")).code, TtsErrorCode::timeout);
  engine->hold(false);
  std::optional<std::string> line;
  EXPECT_TRUE(eventually([&] { return line = loggedLine("service", LogLevel::info, "a synthesis we had given up"); }));
  EXPECT_TRUE(line && line->ends_with(" s and went into the cache anyway: Late"));
  EXPECT_TRUE(service->synthesize(req("Late")).fromCache && engine->texts().size() == 1);
}

TEST_F(ServiceTest, StatsAfterAKnownSequence) {
  auto percentiles = [&] { return formatText("%d/%d", int(service->stats().p50Ms), int(service->stats().p95Ms)); };
  EXPECT_EQ(percentiles(), "0/0");
  service->recordDuration(7);
  EXPECT_EQ(percentiles(), "7/7");
  for (int ms = 1; ms <= 250; ++ms) service->recordDuration(ms);  // the window keeps 51..250
  EXPECT_EQ(percentiles(), "151/240");

  config->setMaxTextLength(40);  // counted in characters
  std::string forty;
  for (int i = 0; i < 40; ++i) forty += "请";
  service->synthesize(req(forty));
  service->synthesize(req(forty));
  const TtsError tooLong = failure(req(forty + "请"));  // refusals count nothing
  EXPECT_EQ(std::tuple(tooLong.code, tooLong.message),
            std::tuple(TtsErrorCode::textTooLong, "text is 41 characters, over the 40 limit"));
  EXPECT_EQ(failure(req(" \n ")).message, "no text to synthesise");
  TtsRequest unknown = req("B");
  unknown.voiceId = "v-unknown";
  EXPECT_EQ(failure(unknown).message, "no such voice: v-unknown");
  engine->output = TestEngine::Output::fail;  // engine errors pass through unchanged and uncounted
  EXPECT_EQ(failure(req("C")).message, "boom");
  engine->output = TestEngine::Output::empty;
  EXPECT_EQ(failure(req("C")).message, "the engine returned empty audio");
  cache->flush();
  const ServiceStats s = service->stats();
  EXPECT_EQ(std::tuple(s.total, s.failed, s.cacheHits, s.cacheCount, s.queueDepth, s.busy, s.placeholder),
            std::tuple(3, 1, 1, 1, 0, false, true));
  EXPECT_EQ(std::tuple(s.cacheHitRate, s.totalAudioMs, s.engineName, s.engineReady),
            std::tuple(1.0 / 4.0, 1500, "test backend", true));
}

TEST_F(ServiceTest, PrebakeSkipsWhatIsCachedAndYieldsToLiveRequests) {
  service->synthesize(req("cached"));
  engine->hold(true);
  EXPECT_EQ(service->prewarmRequests({req("cached"), req("  "), req("one"), req("two"), req("three")}), 4);
  EXPECT_EQ(loggedLine("service", LogLevel::info, "queued"), "queued 4 entries to pre-bake, 4 in the queue now");
  engine->awaitCall(2);
  TtsRequest live = req("live");
  live.priority = TtsPriority::high;
  std::thread caller([&] { EXPECT_FALSE(service->synthesize(live).fromCache); });
  EXPECT_TRUE(eventually([&] { return service->stats().queueDepth == 1; }));
  EXPECT_EQ(service->prewarmPending(), 3);  // "two" and "three" wait, "one" is in the engine
  engine->hold(false);
  caller.join();
  EXPECT_TRUE(eventually([&] { return service->isCached(req("three")); }));
  EXPECT_EQ(loggedLine("service", LogLevel::info, "pre-baked"), "pre-baked one entry (1.5 s of audio), 2 left: one");
  EXPECT_EQ(engine->texts(), (std::vector<std::string>{"cached", "one", "live", "two", "three"}));
}

TEST_F(ServiceTest, DestroyedMidWorkWithoutACrash) {
  engine->hold(true);
  service->prewarmRequests({req("p1"), req("p2"), req("p3")});
  // The caller lets go of the service when its call returns, not when the future goes.
  auto caller = std::async(std::launch::async, [keep = service]() mutable {
    return std::exchange(keep, nullptr)->synthesize(req("live"));
  });
  engine->awaitCall(1);
  std::weak_ptr<TtsService> weak = service;
  service.reset();
  engine->hold(false);
  caller.wait();
  EXPECT_TRUE(eventually([&] {  // the last owner may be either thread; both of the service's threads end
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      const std::string name = test::readTextFile(task.path().string() + "/comm");
      if (name == "KELVO prewarm\n" || name == "KELVO synth\n") return false;
    }
    return weak.expired();
  }));
}

TEST_F(ServiceTest, ShutdownDropsWaitingJobsAndLetsTheRunningOneFinish) {
  engine->hold(true);
  std::thread running([&] { EXPECT_FALSE(service->synthesize(req("running")).isEmpty()); });
  engine->awaitCall(1);
  std::thread waiting([&] {
    EXPECT_EQ(failure(req("waiting")).message, "the service is shutting down; this request was dropped");
  });
  EXPECT_TRUE(eventually([&] { return service->stats().queueDepth == 1; }));
  service->shutdown();
  waiting.join();  // before the engine lets go: dropped jobs do not wait for it
  engine->hold(false);
  running.join();
  EXPECT_TRUE(std::filesystem::exists(dir.path() + "temp/index.json"));
  EXPECT_EQ(failure(req("after")).code, TtsErrorCode::engineNotConnected);
}

// open() settles the data root for the whole process, so it runs in a fresh one.
TEST(ServiceOpen, BringsUpAnEmptyDataRootAndStopsCleanly) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto openAndStop = [] {
    test::TempDir root;
    test::ScopedEnv home("KELVO_HOME", root.path().c_str());
    test::writeTextFile(root.path() + "data/config.json", R"({"cache": {"enabled": false}})");
    auto service = TtsService::open();
    const bool disabled = !service->cache().isEnabled();
    const std::string engineName = service->activeEngine()->name();
    const TtsResult result = service->synthesize(TtsRequest::make("Gate five", "en", TtsGender::female, 1.0f));
    service->shutdown();  // also writes the cache index
    return formatText("disabled=%d %s voices=%d audio=%d index=%d", disabled, engineName,
                      static_cast<int>(service->voices().count()), !result.isEmpty(),
                      std::filesystem::exists(root.path() + "temp/index.json"));
  };
  EXPECT_EXIT((std::fprintf(stderr, "%s\n", openAndStop().c_str()), std::exit(0)), ::testing::ExitedWithCode(0),
              "disabled=1 placeholder voices=1 audio=1 index=1");
}

}  // namespace
}  // namespace kelvo
