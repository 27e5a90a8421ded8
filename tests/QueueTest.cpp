#include "KELVOCore/Queue.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "KELVOCore/I18n.h"
#include "KELVOCore/Log.h"

namespace kelvo {
namespace {

using Clock = std::chrono::steady_clock;
using Late = SynthQueue::LateHandler;

constexpr std::int64_t patientMs = 10000;  // long enough never to expire in a passing run
const std::string shutdownMessage = "the service is shutting down; this request was dropped";

// A door that threads wait at until it is opened; opening twice is harmless.
// Notifies under the lock so that a waiter may destroy the gate once it is through.
class Gate {
 public:
  void open() {
    std::lock_guard guard(lock);
    opened = true;
    cv.notify_all();
  }
  void wait() {
    std::unique_lock guard(lock);
    cv.wait(guard, [this] { return opened; });
  }

 private:
  std::mutex lock;
  std::condition_variable cv;
  bool opened = false;
};

// Polls a condition that another thread is about to make true; false only
// when it never happens (the check then fails instead of hanging).
template <typename Pred>
bool eventually(Pred pred) {
  const auto giveUp = Clock::now() + std::chrono::seconds(20);
  while (!pred()) {
    if (Clock::now() > giveUp) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

// Audio that names the text it was made from.
PcmBuffer audioFor(const std::string& text) { return {std::vector<float>(text.begin(), text.end()), 16000}; }

// An engine whose behaviour each test writes; it records the texts in the order
// the engine received them.
class ScriptedEngine : public TtsEngine {
 public:
  explicit ScriptedEngine(std::function<PcmBuffer(const std::string&)> body) : body(std::move(body)) {}
  std::string name() const override { return "scripted"; }
  bool ready() const override { return true; }
  void configure(const EngineOptions&) override {}
  EngineOptions options() const override { return {}; }
  EngineHealth checkHealth() override { return {}; }
  PcmBuffer synthesize(const S2Params& params, const VoiceHint&) override {
    {
      std::lock_guard guard(lock);
      texts.push_back(params.text);
      cv.notify_all();
    }
    return body(params.text);
  }
  bool waitForCalls(std::size_t n) {
    std::unique_lock guard(lock);
    return cv.wait_for(guard, std::chrono::seconds(20), [&] { return texts.size() >= n; });
  }
  std::vector<std::string> calls() {
    std::lock_guard guard(lock);
    return texts;
  }

 private:
  const std::function<PcmBuffer(const std::string&)> body;
  std::mutex lock;
  std::condition_variable cv;
  std::vector<std::string> texts;
};

struct Outcome {
  std::optional<SynthOutput> out;
  std::optional<TtsError> error;
};

Outcome attempt(SynthQueue& q, const std::string& text, TtsPriority priority = TtsPriority::normal,
                std::int64_t timeoutMs = patientMs, Late onLate = {}) {
  S2Params params;
  params.text = text;
  try {
    return {q.submit(params, VoiceHint{}, priority, timeoutMs, std::move(onLate)), std::nullopt};
  } catch (const TtsError& e) {
    return {std::nullopt, e};
  }
}

std::optional<TtsErrorCode> failure(const Outcome& o) {
  if (!o.error) return std::nullopt;
  return o.error->code;
}

std::future<Outcome> attemptAsync(SynthQueue& q, std::string text, TtsPriority priority = TtsPriority::normal,
                                  std::int64_t timeoutMs = patientMs) {
  return std::async(std::launch::async,
                    [&q, text, priority, timeoutMs] { return attempt(q, text, priority, timeoutMs); });
}

// Every late delivery, by the text of its job.
class LateLog {
 public:
  Late handlerFor(const std::string& text) {
    return [this, text](PcmBuffer pcm, std::int64_t) {
      std::lock_guard guard(lock);
      got[text].push_back(std::move(pcm.data));
    };
  }
  std::vector<std::vector<float>> of(const std::string& text) {
    std::lock_guard guard(lock);
    return got[text];
  }

 private:
  std::mutex lock;
  std::map<std::string, std::vector<std::vector<float>>> got;
};

std::vector<std::vector<float>> once(const std::string& text) { return {audioFor(text).data}; }

class EnglishUi {
 public:
  EnglishUi() { setUiLang(UiLang::en); }
  ~EnglishUi() { setUiLang(UiLang::automatic); }
};

bool logged(const std::string& text) {
  for (const auto& e : AppLog::snapshot()) {
    if (e.source == "queue" && e.level == LogLevel::error && e.text == text) return true;
  }
  return false;
}

TEST(SynthQueue, OneNamedWorkerRunsEveryJobAndEngineErrorsPassThrough) {
  EnglishUi en;
  std::mutex seenLock;
  std::set<std::string> threadNames;
  std::set<std::thread::id> threadIds;
  auto engine = std::make_shared<ScriptedEngine>([&](const std::string& text) -> PcmBuffer {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    {
      std::lock_guard guard(seenLock);
      threadNames.insert(name);
      threadIds.insert(std::this_thread::get_id());
    }
    if (text == "slow") std::this_thread::sleep_for(std::chrono::milliseconds(30));
    if (text == "tts-error") throw TtsError(TtsErrorCode::badAudio, "clip unreadable");
    if (text == "std-error") throw std::runtime_error("disk on fire");
    if (text == "odd-error") throw 42;
    return audioFor(text);
  });
  std::atomic<bool> haveEngine = true;
  SynthQueue q(64, [&] { return haveEngine ? engine : nullptr; });

  std::atomic<int> served = 0;
  std::vector<std::thread> callers;
  for (int c = 0; c < 4; ++c) {
    callers.emplace_back([&, c] {
      for (int i = 0; i < 25; ++i) {
        const std::string text = std::to_string(c) + "/" + std::to_string(i);
        auto o = attempt(q, text);
        if (o.out && o.out->pcm.data == audioFor(text).data) ++served;
      }
    });
  }
  for (auto& t : callers) t.join();
  EXPECT_EQ(served, 100);
  EXPECT_EQ(threadNames, std::set<std::string>{"KELVO synth"});
  EXPECT_EQ(threadIds.size(), 1u);
  EXPECT_EQ(threadIds.count(std::this_thread::get_id()), 0u);

  auto slow = attempt(q, "slow");
  ASSERT_TRUE(slow.out);
  EXPECT_GE(slow.out->elapsedMs, 30);

  const struct {
    const char* text;
    TtsErrorCode code;
    const char* message;
  } failures[] = {{"tts-error", TtsErrorCode::badAudio, "clip unreadable"},
                  {"std-error", TtsErrorCode::engineFailed, "disk on fire"},
                  {"odd-error", TtsErrorCode::engineFailed, "unknown exception"}};
  for (const auto& f : failures) {
    auto o = attempt(q, f.text);
    ASSERT_TRUE(o.error) << f.text;
    EXPECT_EQ(o.error->code, f.code) << f.text;
    EXPECT_EQ(o.error->message, f.message);
  }
  EXPECT_TRUE(logged("unexpected exception on the synthesis thread: disk on fire"));
  EXPECT_FALSE(logged("unexpected exception on the synthesis thread: clip unreadable"));

  haveEngine = false;
  auto none = attempt(q, "nobody home");
  ASSERT_TRUE(none.error);
  EXPECT_EQ(none.error->code, TtsErrorCode::engineNotConnected);
  EXPECT_EQ(none.error->message, "no engine available");
  haveEngine = true;
  EXPECT_TRUE(attempt(q, "still serving").out);
}

TEST(SynthQueue, LimitCountsOnlyWaitingJobs) {
  EnglishUi en;
  Gate release;
  auto engine = std::make_shared<ScriptedEngine>([&](const std::string& text) {
    release.wait();
    return audioFor(text);
  });
  SynthQueue q(2, [&] { return engine; });
  EXPECT_FALSE(q.busy());

  auto a = attemptAsync(q, "a");
  EXPECT_TRUE(engine->waitForCalls(1));
  EXPECT_TRUE(q.busy());
  EXPECT_EQ(q.depth(), 0);
  auto b = attemptAsync(q, "b");
  EXPECT_TRUE(eventually([&] { return q.depth() == 1; }));
  auto c = attemptAsync(q, "c");
  EXPECT_TRUE(eventually([&] { return q.depth() == 2; }));

  auto refused = attempt(q, "d", TtsPriority::high);
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.error->code, TtsErrorCode::queueFull);
  EXPECT_EQ(refused.error->message, "the synthesis queue is full (2 waiting); try again later");
  EXPECT_EQ(q.depth(), 2);

  release.open();
  for (auto* f : {&a, &b, &c}) EXPECT_TRUE(f->get().out);
  EXPECT_TRUE(eventually([&] { return !q.busy(); }));
  EXPECT_EQ(q.depth(), 0);
  EXPECT_TRUE(attempt(q, "room again").out);
}

TEST(SynthQueue, HighPriorityOvertakesNormalAndEachLaneIsFifo) {
  Gate release;
  auto engine = std::make_shared<ScriptedEngine>([&](const std::string& text) {
    if (text == "first") release.wait();
    return audioFor(text);
  });
  SynthQueue q(16, [&] { return engine; });
  std::vector<std::future<Outcome>> pending;
  pending.push_back(attemptAsync(q, "first"));
  EXPECT_TRUE(engine->waitForCalls(1));
  const std::pair<std::string, TtsPriority> arrivals[] = {{"n1", TtsPriority::normal},
                                                          {"n2", TtsPriority::normal},
                                                          {"h1", TtsPriority::high},
                                                          {"n3", TtsPriority::normal},
                                                          {"h2", TtsPriority::high}};
  std::int64_t waiting = 0;
  for (const auto& [text, priority] : arrivals) {
    pending.push_back(attemptAsync(q, text, priority));
    ++waiting;
    EXPECT_TRUE(eventually([&] { return q.depth() == waiting; })) << text;
  }
  release.open();
  for (auto& f : pending) EXPECT_TRUE(f.get().out);
  EXPECT_EQ(engine->calls(), (std::vector<std::string>{"first", "h1", "h2", "n1", "n2", "n3"}));
}

TEST(SynthQueue, TimedOutCallerGetsTimeoutAndLateAudioArrivesExactlyOnce) {
  EnglishUi en;
  Gate release;
  auto engine = std::make_shared<ScriptedEngine>([&](const std::string& text) {
    release.wait();
    if (text == "doomed") throw TtsError(TtsErrorCode::engineFailed, "s2 crashed");
    return audioFor(text);
  });
  LateLog late;
  {
    SynthQueue q(8, [&] { return engine; });
    auto running = attempt(q, "running", TtsPriority::normal, 20, late.handlerFor("running"));
    ASSERT_TRUE(running.error);
    EXPECT_EQ(running.error->code, TtsErrorCode::timeout);
    EXPECT_EQ(running.error->message, "the backend produced no audio after 20 ms");
    EXPECT_TRUE(engine->waitForCalls(1));
    // These give up while still in the lane, and stay there.
    for (const char* text : {"queued", "doomed"}) {
      EXPECT_EQ(failure(attempt(q, text, TtsPriority::normal, 5, late.handlerFor(text))), TtsErrorCode::timeout);
    }
    EXPECT_EQ(failure(attempt(q, "unwatched", TtsPriority::normal, 5)), TtsErrorCode::timeout);
    EXPECT_EQ(q.depth(), 3);
    EXPECT_TRUE(late.of("running").empty());

    release.open();
    auto after = attempt(q, "after");
    ASSERT_TRUE(after.out);
    EXPECT_EQ(after.out->pcm.data, audioFor("after").data);
  }  // the worker is joined here: nothing can arrive later
  EXPECT_EQ(late.of("running"), once("running"));
  EXPECT_EQ(late.of("queued"), once("queued"));
  EXPECT_TRUE(late.of("doomed").empty());
  EXPECT_EQ(engine->calls(), (std::vector<std::string>{"running", "queued", "doomed", "unwatched", "after"}));
}

// The engine finishes right at the caller's deadline, so the two race. Each
// result must reach exactly one side: returned to the caller or handed to the
// late handler, never both and never neither.
TEST(SynthQueue, ResultAtTheDeadlineReachesExactlyOneSide) {
  std::atomic<Clock::rep> finishAt = 0;
  auto engine = std::make_shared<ScriptedEngine>([&](const std::string& text) {
    while (Clock::now().time_since_epoch().count() < finishAt) std::this_thread::yield();
    return audioFor(text);
  });
  LateLog late;
  std::set<std::string> returned;
  constexpr int rounds = 150;
  {
    SynthQueue q(rounds, [&] { return engine; });
    for (int i = 0; i < rounds; ++i) {
      const std::string text = "round " + std::to_string(i);
      finishAt = (Clock::now() + std::chrono::milliseconds(2)).time_since_epoch().count();
      auto o = attempt(q, text, TtsPriority::normal, 2, late.handlerFor(text));
      if (o.out) {
        EXPECT_EQ(o.out->pcm.data, audioFor(text).data);
        returned.insert(text);
      } else {
        EXPECT_EQ(failure(o), TtsErrorCode::timeout);
      }
    }
    // Shutting down would drop the abandoned jobs still waiting.
    EXPECT_TRUE(eventually([&] { return q.depth() == 0 && !q.busy(); }));
  }
  int lateOnes = 0;
  for (int i = 0; i < rounds; ++i) {
    const std::string text = "round " + std::to_string(i);
    if (returned.count(text)) {
      EXPECT_TRUE(late.of(text).empty()) << text;
    } else {
      EXPECT_EQ(late.of(text), once(text)) << text;
      ++lateOnes;
    }
  }
  RecordProperty("returned", static_cast<int>(returned.size()));
  RecordProperty("late", lateOnes);
}

TEST(SynthQueue, ShutdownWakesEveryWaiterAtOnceAndRefusesLaterSubmits) {
  EnglishUi en;
  Gate release;
  auto engine = std::make_shared<ScriptedEngine>([&](const std::string& text) {
    if (text == "running") release.wait();
    return audioFor(text);
  });
  SynthQueue q(8, [&] { return engine; });
  auto running = attemptAsync(q, "running");
  EXPECT_TRUE(engine->waitForCalls(1));
  std::vector<std::future<Outcome>> waiting;
  for (const char* text : {"w1", "w2", "w3"}) {
    waiting.push_back(attemptAsync(q, text, waiting.empty() ? TtsPriority::high : TtsPriority::normal));
    EXPECT_TRUE(eventually([&] { return q.depth() == static_cast<std::int64_t>(waiting.size()); }));
  }

  q.shutdown();
  // The engine is still blocked: these callers must not wait for it.
  for (auto& w : waiting) {
    auto o = w.get();
    ASSERT_TRUE(o.error);
    EXPECT_EQ(o.error->code, TtsErrorCode::engineNotConnected);
    EXPECT_EQ(o.error->message, shutdownMessage);
  }
  EXPECT_EQ(q.depth(), 0);
  auto refused = attempt(q, "too late");
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.error->message, shutdownMessage);
  q.shutdown();

  release.open();
  auto r = running.get();
  ASSERT_TRUE(r.out);
  EXPECT_EQ(r.out->pcm.data, audioFor("running").data);
  EXPECT_EQ(engine->calls(), std::vector<std::string>{"running"});
}

TEST(SynthQueue, ShutdownRacingSubmitsLeavesNoCallerBehind) {
  EnglishUi en;
  auto engine = std::make_shared<ScriptedEngine>(audioFor);
  SynthQueue q(2, [&] { return engine; });
  std::atomic<int> served = 0;
  std::mutex endsLock;
  std::vector<TtsError> ends;
  std::vector<std::thread> callers;
  for (int c = 0; c < 4; ++c) {
    callers.emplace_back([&] {
      for (;;) {
        auto o = attempt(q, "x");
        if (o.out) {
          ++served;
        } else if (o.error->code != TtsErrorCode::queueFull) {
          std::lock_guard guard(endsLock);
          ends.push_back(*o.error);
          return;
        }
      }
    });
  }
  EXPECT_TRUE(eventually([&] { return served >= 100; }));
  q.shutdown();
  for (auto& t : callers) t.join();
  ASSERT_EQ(ends.size(), 4u);
  for (const auto& e : ends) {
    EXPECT_EQ(e.code, TtsErrorCode::engineNotConnected);
    EXPECT_EQ(e.message, shutdownMessage);
  }
}

TEST(SynthQueue, LateHandlerMayThrowOrDestroyTheQueue) {
  Gate first;
  Gate second;
  Gate destroyed;
  auto engine = std::make_shared<ScriptedEngine>([&](const std::string& text) {
    if (text == "slow") first.wait();
    if (text == "last") second.wait();
    return audioFor(text);
  });
  auto q = std::make_unique<SynthQueue>(4, [&] { return engine; });
  const Late throwing = [](PcmBuffer, std::int64_t) { throw std::runtime_error("cache disk full"); };
  EXPECT_EQ(failure(attempt(*q, "slow", TtsPriority::normal, 5, throwing)), TtsErrorCode::timeout);
  first.open();
  EXPECT_TRUE(eventually([] { return logged("unexpected exception on the synthesis thread: cache disk full"); }));
  EXPECT_TRUE(attempt(*q, "worker survived").out);

  // The owner lets go of the queue from the worker thread itself.
  const Late dropQueue = [&](PcmBuffer, std::int64_t) {
    q.reset();
    destroyed.open();
  };
  EXPECT_EQ(failure(attempt(*q, "last", TtsPriority::normal, 5, dropQueue)), TtsErrorCode::timeout);
  second.open();
  destroyed.wait();
  EXPECT_EQ(q, nullptr);
}

}  // namespace
}  // namespace kelvo
