#include "KELVOCore/WorkerPool.h"

#include <pthread.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace kelvo {

// Threads are detached and keep the state alive through their own reference,
// so a thread that is still unwinding after its last task never touches freed
// memory; the destructor waits on the count instead of joining.
struct WorkerPool::State {
  std::string name;
  std::size_t core = 1;
  std::size_t max = 1;
  std::chrono::milliseconds stall;
  std::chrono::milliseconds idleRetire;

  mutable std::mutex lock;
  std::condition_variable work;     // idle workers wait here
  std::condition_variable watcher;  // the stall watcher waits here
  std::condition_variable exited;   // the destructor waits here
  std::deque<Task> tasks;
  std::size_t threads = 0;
  std::size_t idle = 0;
  std::uint64_t taken = 0;  // tasks dequeued so far; unchanged over `stall` means stuck
  bool watcherAlive = false;
  bool stopping = false;

  // REQUIRES: `lock` held.
  void spawn(const std::shared_ptr<State>& self) {
    ++threads;
    try {
      std::thread([self] { self->runWorker(); }).detach();
    } catch (const std::system_error&) {
      // Out of threads: the queued tasks wait for the ones already running.
      --threads;
    }
  }

  void runWorker() {
    pthread_setname_np(pthread_self(), name.c_str());
    std::unique_lock guard(lock);
    for (;;) {
      if (!tasks.empty()) {
        Task task = std::move(tasks.front());
        tasks.pop_front();
        ++taken;
        if (!tasks.empty() && idle == 0) watcher.notify_one();
        guard.unlock();
        task();
        task = nullptr;  // captured state is released outside the lock
        guard.lock();
        continue;
      }
      if (stopping) break;
      ++idle;
      const auto ready = [this] { return !tasks.empty() || stopping; };
      bool woke = true;
      if (threads > core) {
        woke = work.wait_for(guard, idleRetire, ready);
      } else {
        work.wait(guard, ready);
      }
      --idle;
      // Several extra threads may time out together; only the surplus leaves.
      if (!woke && threads > core) break;
    }
    --threads;
    exited.notify_all();
  }

  void runWatcher(const std::shared_ptr<State>& self) {
    pthread_setname_np(pthread_self(), (name.substr(0, 10) + " pool").c_str());
    std::unique_lock guard(lock);
    for (;;) {
      watcher.wait(guard, [this] { return stopping || (!tasks.empty() && idle == 0); });
      if (stopping) break;
      const std::uint64_t seen = taken;
      watcher.wait_for(guard, stall, [this] { return stopping; });
      if (stopping) break;
      if (!tasks.empty() && idle == 0 && taken == seen && threads < max) spawn(self);
    }
    watcherAlive = false;
    exited.notify_all();
  }
};

WorkerPool::WorkerPool(std::string threadName, std::size_t coreThreads, std::size_t maxThreads,
                       std::chrono::milliseconds stall, std::chrono::milliseconds idleRetire)
    : state_(std::make_shared<State>()) {
  state_->name = std::move(threadName);
  state_->core = coreThreads;
  state_->max = maxThreads;
  state_->stall = stall;
  state_->idleRetire = idleRetire;
  state_->watcherAlive = true;
  std::thread([self = state_] { self->runWatcher(self); }).detach();
}

WorkerPool::~WorkerPool() {
  std::unique_lock guard(state_->lock);
  state_->stopping = true;
  state_->work.notify_all();
  state_->watcher.notify_all();
  // Tasks still queued with every thread gone would never run: finish them here.
  while (state_->threads == 0 && !state_->tasks.empty()) {
    Task task = std::move(state_->tasks.front());
    state_->tasks.pop_front();
    guard.unlock();
    task();
    task = nullptr;
    guard.lock();
  }
  state_->exited.wait(guard, [this] { return state_->threads == 0 && !state_->watcherAlive; });
}

void WorkerPool::post(Task task) {
  std::lock_guard guard(state_->lock);
  state_->tasks.push_back(std::move(task));
  if (state_->idle > 0) {
    state_->work.notify_one();
  } else if (state_->threads < state_->core) {
    state_->spawn(state_);
  } else {
    state_->watcher.notify_one();
  }
}

std::size_t WorkerPool::threadCount() const {
  std::lock_guard guard(state_->lock);
  return state_->threads;
}

}  // namespace kelvo
