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

#include "tests/TestSupport.h"

namespace kelvo {
namespace {

using Clock = std::chrono::steady_clock;
using Late = SynthQueue::LateHandler;
using test::eventually;

constexpr std::int64_t patientMs = 10000;  // long enough never to expire in a passing run
const std::string shutdownError = "engine_not_connected: the service is shutting down; this request was dropped";

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
    }
    return body(params.text);
  }
  bool waitForCalls(std::size_t n) {
    return eventually([&] { return calls().size() >= n; });
  }
  std::vector<std::string> calls() {
    std::lock_guard guard(lock);
    return texts;
  }

 private:
  const std::function<PcmBuffer(const std::string&)> body;
  std::mutex lock;
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

// How the call failed, as "error_name: message"; "" when it returned audio.
std::string failure(const Outcome& o) {
  return o.error ? std::string(errorName(o.error->code)) + ": " + o.error->message : std::string();
}

std::string timedOut(std::int64_t ms) {
  return "timeout: the backend produced no audio after " + std::to_string(ms) + " ms";
}

std::future<Outcome> attemptAsync(SynthQueue& q, std::string text, TtsPriority priority = TtsPriority::normal) {
  return std::async(std::launch::async, [&q, text, priority] { return attempt(q, text, priority); });
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

bool logged(const std::string& text) { return test::loggedLine("queue", LogLevel::error, text) == text; }

TEST(SynthQueue, OneNamedWorkerRunsEveryJobAndEngineErrorsPassThrough) {
  test::ScopedUiLang en(UiLang::en);
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

  EXPECT_EQ(failure(attempt(q, "tts-error")), "bad_audio: clip unreadable");
  EXPECT_EQ(failure(attempt(q, "std-error")), "engine_failed: disk on fire");
  EXPECT_EQ(failure(attempt(q, "odd-error")), "engine_failed: unknown exception");
  EXPECT_TRUE(logged("unexpected exception on the synthesis thread: disk on fire"));
  EXPECT_FALSE(logged("unexpected exception on the synthesis thread: clip unreadable"));

  haveEngine = false;
  EXPECT_EQ(failure(attempt(q, "nobody home")), "engine_not_connected: no engine available");
  haveEngine = true;
  EXPECT_TRUE(attempt(q, "still serving").out);
}

TEST(SynthQueue, LimitCountsOnlyWaitingJobs) {
  test::ScopedUiLang en(UiLang::en);
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

  EXPECT_EQ(failure(attempt(q, "d", TtsPriority::high)),
            "queue_full: the synthesis queue is full (2 waiting); try again later");
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
  test::ScopedUiLang en(UiLang::en);
  Gate release;
  auto engine = std::make_shared<ScriptedEngine>([&](const std::string& text) {
    release.wait();
    if (text == "doomed") throw TtsError(TtsErrorCode::engineFailed, "s2 crashed");
    return audioFor(text);
  });
  LateLog late;
  {
    SynthQueue q(8, [&] { return engine; });
    EXPECT_EQ(failure(attempt(q, "running", TtsPriority::normal, 20, late.handlerFor("running"))), timedOut(20));
    EXPECT_TRUE(engine->waitForCalls(1));
    // These give up while still in the lane, and stay there.
    for (const char* text : {"queued", "doomed"}) {
      EXPECT_EQ(failure(attempt(q, text, TtsPriority::normal, 5, late.handlerFor(text))), timedOut(5));
    }
    EXPECT_EQ(failure(attempt(q, "unwatched", TtsPriority::normal, 5)), timedOut(5));
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
  test::ScopedUiLang en(UiLang::en);
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
        EXPECT_EQ(failure(o), timedOut(2));
      }
    }
    // Shutting down would drop the abandoned jobs still waiting.
    EXPECT_TRUE(eventually([&] { return q.depth() == 0 && !q.busy(); }));
  }
  for (int i = 0; i < rounds; ++i) {
    const std::string text = "round " + std::to_string(i);
    EXPECT_EQ(late.of(text), returned.count(text) ? std::vector<std::vector<float>>{} : once(text)) << text;
  }
}

TEST(SynthQueue, ShutdownWakesEveryWaiterAtOnceAndRefusesLaterSubmits) {
  test::ScopedUiLang en(UiLang::en);
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
  for (auto& w : waiting) EXPECT_EQ(failure(w.get()), shutdownError);
  EXPECT_EQ(q.depth(), 0);
  EXPECT_EQ(failure(attempt(q, "too late")), shutdownError);
  q.shutdown();

  release.open();
  auto r = running.get();
  ASSERT_TRUE(r.out);
  EXPECT_EQ(r.out->pcm.data, audioFor("running").data);
  EXPECT_EQ(engine->calls(), std::vector<std::string>{"running"});
}

TEST(SynthQueue, ShutdownRacingSubmitsLeavesNoCallerBehind) {
  test::ScopedUiLang en(UiLang::en);
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
  for (const auto& e : ends) EXPECT_EQ(failure({std::nullopt, e}), shutdownError);
}

TEST(SynthQueue, LateHandlerMayThrowOrDestroyTheQueue) {
  test::ScopedUiLang en(UiLang::en);
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
  EXPECT_EQ(failure(attempt(*q, "slow", TtsPriority::normal, 5, throwing)), timedOut(5));
  first.open();
  EXPECT_TRUE(eventually([] { return logged("unexpected exception on the synthesis thread: cache disk full"); }));
  EXPECT_TRUE(attempt(*q, "worker survived").out);

  // The owner lets go of the queue from the worker thread itself.
  const Late dropQueue = [&](PcmBuffer, std::int64_t) {
    q.reset();
    destroyed.open();
  };
  EXPECT_EQ(failure(attempt(*q, "last", TtsPriority::normal, 5, dropQueue)), timedOut(5));
  second.open();
  destroyed.wait();
  EXPECT_EQ(q, nullptr);
}

}  // namespace
}  // namespace kelvo
