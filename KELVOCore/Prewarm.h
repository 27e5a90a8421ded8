// PrewarmWorker: pre-bakes lists of announcements into the cache. It keeps a
// FIFO of requests and, on a thread of its own ("KELVO prewarm"), runs every
// line that is not cached yet through TtsService::synthesize, one at a time, so
// a long list never fills the synthesis queue and live requests overtake it.
// Failed lines are logged, counted and kept (the most recent ones, with their
// reason) for whoever watches the run; they are not retried. The waiting lines
// can be dropped at once (`cancel`).
//
// Thread-safe: every member may be called from any thread; one
// lock guards the list and is never held across a synthesis. The worker holds
// the service only weakly and ends at its next wake-up (at most 1 s) once the
// service is gone. Cost: one allocation per queued request.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "KELVOCore/Types.h"

namespace kelvo {

class TtsService;

class PrewarmWorker {
 public:
  // How many failures `failures()` remembers; older ones only count.
  static constexpr std::size_t recentFailureLimit = 64;

  struct Failure {
    std::int64_t number = 0;  // 1 for the first failure since start, then 2, 3, ...
    std::string text;         // the line's first 60 characters
    std::string reason;       // the error's localised message
  };
  struct Failures {
    std::int64_t count = 0;        // every failure since start
    std::vector<Failure> recent;   // the last ones, oldest first
  };

  // Starts the worker thread at once.
  explicit PrewarmWorker(std::weak_ptr<TtsService> service);
  // Stops, then joins the thread; run on that thread itself it lets the thread
  // finish on its own instead.
  ~PrewarmWorker();
  PrewarmWorker(const PrewarmWorker&) = delete;
  PrewarmWorker& operator=(const PrewarmWorker&) = delete;

  // Queues the requests whose text is not blank and logs how many; returns that number.
  std::int64_t add(const std::vector<TtsRequest>& requests);
  std::int64_t pending() const;  // requests waiting plus the one being baked
  Failures failures() const;
  // Drops every waiting request (the one being baked runs to its end) and
  // returns how many were dropped; logs the number when it is not 0.
  std::int64_t cancel();
  // The worker takes no further item and ends as soon as it is idle. Idempotent.
  void stop();

 private:
  struct Core;
  // Shared with the thread, so that a worker destroyed from its own thread
  // (the service's last owner let go there) leaves it a valid state to end on.
  std::shared_ptr<Core> core_;
  std::thread thread_;
};

}  // namespace kelvo
