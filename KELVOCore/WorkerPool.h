// WorkerPool: named threads that run posted tasks, for work that may block for
// a long time (an HTTP handler waiting minutes for a synthesis). It grows to
// `coreThreads` threads as tasks arrive and keeps them. Beyond that it adds one
// thread whenever queued tasks have not moved for `stall` because every thread
// is busy, up to `maxThreads`; such extra threads leave after `idleRetire`
// without work. So a handful of slow tasks never hold up the quick ones behind
// them, while a steady stream of quick tasks never makes the pool grow.
// Tasks start in the order they were posted.
//
// Thread-safe: post() may be called from any thread, tasks included. Cost of a
// post: one lock, one queue push and at most one wake-up; threads are created
// only when the pool has to grow, never per task. One extra thread watches for
// stalls and sleeps otherwise.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace kelvo {

class WorkerPool {
 public:
  using Task = std::function<void()>;

  // REQUIRES: 1 <= coreThreads <= maxThreads; threadName at most 15 bytes.
  WorkerPool(std::string threadName, std::size_t coreThreads, std::size_t maxThreads,
             std::chrono::milliseconds stall = std::chrono::milliseconds(20),
             std::chrono::milliseconds idleRetire = std::chrono::seconds(30));
  // Runs every task still queued, then waits until each has returned.
  // REQUIRES: not called from a task.
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Queues `task`; it runs on one of the pool's threads. A task must not throw.
  void post(Task task);

  std::size_t threadCount() const;  // threads alive right now, the watcher not counted

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace kelvo
