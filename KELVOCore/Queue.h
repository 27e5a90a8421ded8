// SynthQueue: serialises every synthesis of the process onto one worker thread
// ("KELVO synth"), the only thread that ever calls an engine's `synthesize`.
// Two first-come-first-served lanes, high and normal; a high job always runs
// before any normal one. At most `limit` jobs may wait; the job in the engine
// does not count. A caller blocks until its job is settled or its own deadline
// passes; a caller that gives up leaves the job queued, and if it later
// succeeds its audio goes to the job's late handler instead, exactly once.
//
// Thread-safe: any number of threads may call `submit`, `depth`, `busy` and
// `shutdown` at once. One lock guards the lanes and counters and each job has
// its own; the two are never held together, and none is held during an engine
// call, `getEngine` or a late handler. Cost of a submit: one allocation for the
// job plus two thread hand-offs, each side spinning up to 50 µs before it
// sleeps (a round trip of a few µs); the engine call dominates everything else.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include "KELVOCore/Engine.h"
#include "KELVOCore/Types.h"

namespace kelvo {

// What a settled job hands back to its caller.
struct SynthOutput {
  PcmBuffer pcm;
  std::int64_t elapsedMs = 0;  // time spent in the engine
};

class SynthQueue {
 public:
  // Which engine runs the next job; null when there is none.
  using EngineSource = std::function<std::shared_ptr<TtsEngine>()>;
  // Receives the audio of a job whose caller had given up (pcm, elapsed ms).
  using LateHandler = std::function<void(PcmBuffer, std::int64_t)>;

  // Starts the worker thread at once. `getEngine` is asked before every job.
  // REQUIRES: limit >= 0 (0 refuses every submit).
  SynthQueue(std::int64_t limit, EngineSource getEngine);
  // Shuts down, then waits for the job in the engine to finish. Safe to run on
  // the worker thread itself (from a late handler): it then does not wait.
  ~SynthQueue();
  SynthQueue(const SynthQueue&) = delete;
  SynthQueue& operator=(const SynthQueue&) = delete;

  // Queues the work and blocks until it is done or `timeoutMs` has passed.
  // Throws TtsError: queueFull when `limit` jobs already wait, timeout at the
  // deadline, engineNotConnected after shutdown or without an engine, and the
  // engine's own errors unchanged. `onLate` may be empty.
  SynthOutput submit(S2Params params, VoiceHint hint, TtsPriority priority, std::int64_t timeoutMs,
                     LateHandler onLate = {});

  std::int64_t depth() const;  // jobs waiting in both lanes
  bool busy() const;           // the worker has a job in hand

  // Fails every waiting job and every later submit with engineNotConnected.
  // The job in the engine runs to its end. Idempotent.
  void shutdown();

 private:
  struct Core;
  // Shared with the worker thread, so that a queue destroyed from a late
  // handler leaves the worker a valid state to finish its loop on.
  std::shared_ptr<Core> core;
  std::thread worker;
};

}  // namespace kelvo
