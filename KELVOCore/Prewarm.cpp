#include "KELVOCore/Prewarm.h"

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <string>

#include "KELVOCore/Log.h"
#include "KELVOCore/Service.h"

namespace kelvo {

namespace {

constexpr std::string_view kSource = "service";
constexpr auto kIdleWake = std::chrono::seconds(1);
constexpr std::int64_t kExcerpt = 40;
constexpr std::int64_t kFailureExcerpt = 60;

}  // namespace

struct PrewarmWorker::Core {
  explicit Core(std::weak_ptr<TtsService> service) : service(std::move(service)) {}

  void run() {
    pthread_setname_np(pthread_self(), "KELVO prewarm");
    while (auto item = next()) {
      const std::shared_ptr<TtsService> owner = service.lock();
      if (!owner) return;
      if (!owner->isCached(*item)) bake(*owner, *item);
      std::lock_guard guard(lock);
      inHand = false;
    }
  }

  // The next request; absent once stopped or once the service is gone.
  std::optional<TtsRequest> next() {
    std::unique_lock guard(lock);
    while (!terminated) {
      if (!items.empty()) {
        TtsRequest item = std::move(items.front());
        items.pop_front();
        inHand = true;
        return item;
      }
      // The timeout is what notices a service destroyed without telling us.
      if (!signal.wait_for(guard, kIdleWake, [this] { return terminated || !items.empty(); }) &&
          service.expired()) {
        return std::nullopt;
      }
    }
    return std::nullopt;
  }

  void bake(TtsService& owner, const TtsRequest& item) {
    const std::string excerpt = firstCharacters(trimmed(item.text), kExcerpt);
    try {
      const TtsResult result = owner.synthesize(item);
      AppLog::info(kSource, formatText("pre-baked one entry (%.1f s of audio), %d left: %s",
                                       static_cast<double>(result.durationMs) / 1000.0,
                                       static_cast<int>(waitingCount()), excerpt));
    } catch (const TtsError& e) {
      AppLog::warn(kSource, "pre-bake failed (" + e.message + "): " + excerpt);
      recordFailure(item, e.message);
    } catch (const std::exception& e) {
      AppLog::error(kSource, std::string("pre-bake crashed (") + e.what() + "): " + excerpt);
      recordFailure(item, e.what());
    }
  }

  void recordFailure(const TtsRequest& item, const std::string& reason) {
    std::lock_guard guard(lock);
    failures.recent.push_back({++failures.count, firstCharacters(trimmed(item.text), kFailureExcerpt), reason});
    if (failures.recent.size() > recentFailureLimit) failures.recent.erase(failures.recent.begin());
  }

  std::int64_t waitingCount() const {
    std::lock_guard guard(lock);
    return static_cast<std::int64_t>(items.size());
  }

  // The one in hand counts: a client polling for 0 wants every line in the cache.
  std::int64_t pendingCount() const {
    std::lock_guard guard(lock);
    return static_cast<std::int64_t>(items.size()) + (inHand ? 1 : 0);
  }

  mutable std::mutex lock;
  std::condition_variable signal;  // an item arrived, or stop
  std::deque<TtsRequest> items;
  bool terminated = false;
  bool inHand = false;  // a request taken from `items` is being baked
  Failures failures;
  const std::weak_ptr<TtsService> service;
};

PrewarmWorker::PrewarmWorker(std::weak_ptr<TtsService> service)
    : core_(std::make_shared<Core>(std::move(service))) {
  thread_ = std::thread([core = core_] { core->run(); });
}

PrewarmWorker::~PrewarmWorker() {
  stop();
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

std::int64_t PrewarmWorker::add(const std::vector<TtsRequest>& requests) {
  std::int64_t added = 0;
  std::int64_t waiting = 0;
  {
    std::lock_guard guard(core_->lock);
    for (const auto& request : requests) {
      if (trimmed(request.text).empty()) continue;
      core_->items.push_back(request);
      ++added;
    }
    waiting = static_cast<std::int64_t>(core_->items.size());
  }
  if (added == 0) return 0;
  core_->signal.notify_one();
  AppLog::info(kSource, "queued " + std::to_string(added) + " entries to pre-bake, " + std::to_string(waiting) +
                            " in the queue now");
  return added;
}

std::int64_t PrewarmWorker::pending() const { return core_->pendingCount(); }

PrewarmWorker::Failures PrewarmWorker::failures() const {
  std::lock_guard guard(core_->lock);
  return core_->failures;
}

std::int64_t PrewarmWorker::cancel() {
  std::int64_t dropped = 0;
  {
    std::lock_guard guard(core_->lock);
    dropped = static_cast<std::int64_t>(core_->items.size());
    core_->items.clear();
  }
  if (dropped > 0) AppLog::info(kSource, "pre-bake cancelled, " + std::to_string(dropped) + " waiting entries dropped");
  return dropped;
}

void PrewarmWorker::stop() {
  {
    std::lock_guard guard(core_->lock);
    core_->terminated = true;
  }
  core_->signal.notify_all();
}

}  // namespace kelvo
