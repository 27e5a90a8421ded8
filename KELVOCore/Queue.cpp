#include "KELVOCore/Queue.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "KELVOCore/I18n.h"
#include "KELVOCore/Log.h"

namespace kelvo {

namespace {

using Clock = std::chrono::steady_clock;

// No request waits longer than a day; the cap also keeps the deadline
// arithmetic far from overflow whatever a caller passes.
constexpr std::int64_t longestWaitMs = 24LL * 60 * 60 * 1000;

// Both sides of a hand-over look for the other briefly before they sleep: on a
// virtual machine an idle core takes tens of microseconds to wake, longer than
// a whole cache-sized job. The lock-protected state stays the source of truth;
// the spin only decides when it is worth going to sleep.
constexpr auto spinBeforeSleep = std::chrono::microseconds(50);

template <typename StillWaiting>
void spinWhile(StillWaiting stillWaiting) {
  const auto until = Clock::now() + spinBeforeSleep;
  while (stillWaiting() && Clock::now() < until) std::this_thread::yield();
}

std::int64_t millisSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

TtsError shuttingDown() { return TtsError(TtsErrorCode::engineNotConnected, T("服务正在关闭,这条请求被丢弃了")); }

std::string describe(std::exception_ptr error) {
  try {
    std::rethrow_exception(error);
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "unknown exception";
  }
}

// The audio of a job whose caller gave up, on its way to the late handler.
struct LateDelivery {
  SynthQueue::LateHandler handler;
  PcmBuffer pcm;
  std::int64_t elapsedMs = 0;
};

}  // namespace

// One submitted request. The caller and the worker meet only through `lock`:
// the worker settles the job exactly once, the caller either reads the result
// or marks the job abandoned, and whichever comes second sees what the first
// did. That is what makes a result at the very deadline arrive exactly once,
// either to the caller or to the late handler.
class SynthJob {
 public:
  SynthJob(S2Params params, VoiceHint hint, TtsPriority priority, SynthQueue::LateHandler onLate)
      : params(std::move(params)), hint(std::move(hint)), priority(priority), _onLate(std::move(onLate)) {}
  SynthJob(const SynthJob&) = delete;
  SynthJob& operator=(const SynthJob&) = delete;

  const S2Params params;
  const VoiceHint hint;
  const TtsPriority priority;

  // Caller side: the result, or the job's error, or timeout at `deadline`.
  SynthOutput await(Clock::time_point deadline, std::int64_t timeoutMs) {
    spinWhile([this] { return !_settledHint.load(std::memory_order_acquire); });
    std::unique_lock guard(lock);
    if (!done.wait_until(guard, deadline, [this] { return _settled; })) {
      _abandoned = true;
      guard.unlock();
      throw TtsError(TtsErrorCode::timeout, TF("后端等了 %d ms 仍没有产出音频", static_cast<int>(timeoutMs)));
    }
    if (_error) throw *_error;
    return {std::move(_pcm), _elapsedMs};
  }

  // Worker side. Returns the late handler with the audio when the caller has
  // already given up; the handler must then be called outside every lock.
  std::optional<LateDelivery> succeed(PcmBuffer pcm, std::int64_t elapsedMs) {
    std::optional<LateDelivery> late;
    {
      std::lock_guard guard(lock);
      _elapsedMs = elapsedMs;
      _settled = true;
      _settledHint.store(true, std::memory_order_release);
      // Nobody reads `_pcm` of an abandoned job; the audio moves on instead.
      if (_abandoned && _onLate) {
        late = LateDelivery{std::move(_onLate), std::move(pcm), elapsedMs};
      } else {
        _pcm = std::move(pcm);
      }
      _onLate = nullptr;
    }
    done.notify_all();
    return late;
  }

  // Worker side. An abandoned job that fails is dropped without a word.
  void fail(TtsError error, std::int64_t elapsedMs) {
    {
      std::lock_guard guard(lock);
      _error = std::move(error);
      _elapsedMs = elapsedMs;
      _settled = true;
      _settledHint.store(true, std::memory_order_release);
      _onLate = nullptr;
    }
    done.notify_all();
  }

 private:
  std::condition_variable done;  // notified once, when `_settled` turns true
  std::mutex lock;
  PcmBuffer _pcm;
  std::optional<TtsError> _error;
  std::int64_t _elapsedMs = 0;
  bool _settled = false;
  std::atomic<bool> _settledHint{false};  // mirrors `_settled` for the spin before sleeping
  bool _abandoned = false;
  SynthQueue::LateHandler _onLate;
};

struct SynthQueue::Core {
  Core(std::int64_t limit, EngineSource getEngine) : getEngine(std::move(getEngine)), limit(limit) {}

  // Under `lock`: the next job, high lane first.
  std::shared_ptr<SynthJob> pop() {
    auto& lane = high.empty() ? normal : high;
    if (lane.empty()) return nullptr;
    auto job = std::move(lane.front());
    lane.pop_front();
    --depthValue;
    return job;
  }

  // Under `lock`: takes every waiting job out of the lanes.
  std::deque<std::shared_ptr<SynthJob>> drain() {
    std::deque<std::shared_ptr<SynthJob>> all;
    while (auto job = pop()) all.push_back(std::move(job));
    return all;
  }

  void run() {
    pthread_setname_np(pthread_self(), "KELVO synth");
    for (;;) {
      std::shared_ptr<SynthJob> job;
      {
        std::unique_lock guard(lock);
        if (!terminated && depthValue == 0) {
          const unsigned seen = submits.load(std::memory_order_acquire);
          guard.unlock();
          spinWhile([&] { return submits.load(std::memory_order_acquire) == seen; });
          guard.lock();
        }
        signal.wait(guard, [this] { return terminated || depthValue > 0; });
        if (terminated) return;
        job = pop();
        busyValue = true;
      }
      execute(*job);
      std::lock_guard guard(lock);
      busyValue = false;
    }
  }

  void execute(SynthJob& job) {
    const auto start = Clock::now();
    std::optional<LateDelivery> late;
    try {
      const std::shared_ptr<TtsEngine> engine = getEngine ? getEngine() : nullptr;
      if (!engine) {
        job.fail(TtsError(TtsErrorCode::engineNotConnected, T("没有可用的引擎")), millisSince(start));
        return;
      }
      PcmBuffer pcm = engine->synthesize(job.params, job.hint);
      late = job.succeed(std::move(pcm), millisSince(start));
    } catch (const TtsError& e) {
      job.fail(e, millisSince(start));
      return;
    } catch (...) {
      const std::string what = describe(std::current_exception());
      logUnexpected(what);
      job.fail(TtsError(TtsErrorCode::engineFailed, what), millisSince(start));
      return;
    }
    if (!late) return;
    try {
      late->handler(std::move(late->pcm), late->elapsedMs);
    } catch (...) {
      // The caller is long gone; all that is left to do is keep the worker alive.
      logUnexpected(describe(std::current_exception()));
    }
  }

  static void logUnexpected(const std::string& what) {
    AppLog::error("queue", "unexpected exception on the synthesis thread: " + what);
  }

  mutable std::mutex lock;
  std::condition_variable signal;  // wakes the worker: a job or shutdown
  std::deque<std::shared_ptr<SynthJob>> high;
  std::deque<std::shared_ptr<SynthJob>> normal;
  bool terminated = false;
  std::int64_t depthValue = 0;
  std::atomic<unsigned> submits{0};  // bumped with every queued job, for the worker's spin
  bool busyValue = false;
  const EngineSource getEngine;
  const std::int64_t limit;
};

SynthQueue::SynthQueue(std::int64_t limit, EngineSource getEngine)
    : core(std::make_shared<Core>(limit, std::move(getEngine))) {
  worker = std::thread([core = core] { core->run(); });
}

SynthQueue::~SynthQueue() {
  shutdown();
  if (worker.get_id() == std::this_thread::get_id()) {
    worker.detach();
  } else {
    worker.join();
  }
}

SynthOutput SynthQueue::submit(S2Params params, VoiceHint hint, TtsPriority priority, std::int64_t timeoutMs,
                               LateHandler onLate) {
  auto job = std::make_shared<SynthJob>(std::move(params), std::move(hint), priority, std::move(onLate));
  bool stopped = false;
  bool full = false;
  {
    std::lock_guard guard(core->lock);
    stopped = core->terminated;
    full = core->depthValue >= core->limit;
    if (!stopped && !full) {
      (priority == TtsPriority::high ? core->high : core->normal).push_back(job);
      ++core->depthValue;
      core->submits.fetch_add(1, std::memory_order_release);
    }
  }
  if (stopped) throw shuttingDown();
  // Deliberately the limit, not the current depth: that is the number people can act on.
  if (full) {
    throw TtsError(TtsErrorCode::queueFull, TF("合成队列已满(%d 条在排),稍后再试", static_cast<int>(core->limit)));
  }
  core->signal.notify_one();
  const std::int64_t waitMs = std::clamp<std::int64_t>(timeoutMs, 0, longestWaitMs);
  return job->await(Clock::now() + std::chrono::milliseconds(waitMs), waitMs);
}

std::int64_t SynthQueue::depth() const {
  std::lock_guard guard(core->lock);
  return core->depthValue;
}

bool SynthQueue::busy() const {
  std::lock_guard guard(core->lock);
  return core->busyValue;
}

void SynthQueue::shutdown() {
  std::deque<std::shared_ptr<SynthJob>> dropped;
  {
    std::lock_guard guard(core->lock);
    if (core->terminated) return;
    core->terminated = true;
    dropped = core->drain();
  }
  core->signal.notify_all();
  for (auto& job : dropped) job->fail(shuttingDown(), 0);
}

}  // namespace kelvo
