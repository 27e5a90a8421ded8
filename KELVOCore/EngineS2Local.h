// S2LocalEngine: the real speech engine. It runs the s2 inference server
// (s2.cpp with a Fish S2 Pro .gguf model) as a child process on a free
// loopback port, waits for it to load (ready once the listening socket on its
// port belongs to the child or a descendant, never to another program),
// watches it from a thread of its own and restarts it at most three times per
// start(), diagnoses crashes, and sends it one line at a time as a multipart
// POST to "/generate" over a connection kept only while the child keeps it.
//
// Thread-safe: one lock guards the fields and is held only for short reads and
// writes; launching, probing, sleeping, killing and the HTTP exchange happen
// outside it. `synthesize` is called by the synthesis worker alone; everything
// else may be called from any thread; start, stop and unload are serialised
// among themselves. Owns a child process: destroying the engine stops the
// child (SIGTERM, 3 s, then SIGKILL to its process group) and reaps it.
// Cost: start() returns after the launch (port probes and posix_spawn, a few
// milliseconds); readiness is watched by polling every 0.4 s, each look
// reading the kernel's TCP tables (see loopbackListener). A synthesis
// call adds about half a millisecond to the engine's own time.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KELVOCore/Engine.h"
#include "KELVOCore/EngineS2Wire.h"

namespace kelvo {

enum class S2EngineState : int { missing = 0, loading = 1, ready = 2, failed = 3, unloaded = 4 };

// Loopback ports tried for the child, in order.
inline constexpr std::int64_t s2FirstPort = 17151;
inline constexpr std::int64_t s2LastPort = 17170;
// Port the s2 server listens on when it ignores "--port"; our child found
// listening there is adopted (anyone else there is not).
inline constexpr std::int64_t s2DefaultPort = 3030;

// The largest ".gguf" file in `dir` (first listed wins a tie); absent when the
// directory cannot be read or holds none.
std::optional<std::string> findModelFile(const std::string& dir);

// Timings the tests shorten; the defaults are what a real model needs.
// (Defined outside the engine so they can serve as default arguments of its
// constructor.)
struct S2Timing {
  std::chrono::milliseconds loadLimit{300000};        // give up waiting for the model
  std::chrono::milliseconds probeInterval{400};       // between readiness probes
  std::chrono::milliseconds watchInterval{1500};      // between watchdog looks
  std::chrono::milliseconds termGrace{3000};          // SIGTERM to SIGKILL when ending the child
  std::chrono::milliseconds busyRetry{1000};          // between sends while the child answers 503
  std::chrono::milliseconds minRequestTimeout{5000};  // floor of one request's time-out
};

// Where the child may listen. Tests move these away from the real range so
// that they neither collide with a running service nor adopt its child.
struct S2Ports {
  std::int64_t first = s2FirstPort;
  std::int64_t last = s2LastPort;
  std::int64_t fallback = s2DefaultPort;  // adopted when the child ignores "--port"
};

class S2LocalEngine final : public TtsEngine {
 public:
  using Timing = S2Timing;
  using Ports = S2Ports;

  // `dataRoot` (ending in "/"; empty: KELVOPaths::dataRoot()) holds "engine/",
  // "models/" and "logs/"; it is also the first search root.
  explicit S2LocalEngine(EngineOptions options = {}, std::string dataRoot = {}, Timing timing = {}, Ports ports = {});
  ~S2LocalEngine() override;  // stops the child and joins the watchdog

  std::string name() const override;                      // "fish-s2-pro (s2.cpp)"
  bool ready() const override;                            // state is ready
  void configure(const EngineOptions& options) override;  // used from the next start()
  EngineOptions options() const override;
  EngineHealth checkHealth() override;
  // One multipart POST to the child, repeated every second while it answers
  // 503 until options().timeoutMs has passed; each send waits at least 5 s.
  // Throws TtsError: emptyText for blank text; engineNotConnected unless ready,
  // or when the child turns out gone (the state then flips to loading at once);
  // timeout after 503s up to the deadline; engineFailed for any other refusal,
  // a transport error with the child still running, or a reply that is not WAV.
  PcmBuffer synthesize(const S2Params& params, const VoiceHint& hint) override;

  void setSearchRoot(std::string path);  // where engine/ and models/ are looked for
  // Stops a running child, discovers the files and launches the child and the
  // watchdog; state missing when files are absent. Returns without waiting.
  // A child that has not loaded within the load limit is ended (state failed).
  void start();
  // Both set the state at once, end the watchdog (within one poll), end the
  // child and remove the pid file before returning. A synthesis in flight
  // fails with engineNotConnected and the new detail.
  void stop();    // state missing, detail "stopped"
  void unload();  // state unloaded: only start() brings the model back
  bool isUnloaded() const;
  S2EngineState currentState() const;
  std::string detail() const;
  // Seconds since the current start() began; meaningful while loading.
  double loadingSeconds() const;
  std::int64_t port() const;
  std::string modelPath() const;
  std::string enginePath() const;
  std::string logPath() const;
  std::string pidPath() const;
  // "engine/s2" and/or "models/*.gguf", joined with ", "; empty when complete.
  std::string missingWhat() const;
  // pid of the running child; absent when there is none.
  std::optional<int> childPid() const;

  // The folder holding the "s2" executable: data root's engine/, the bundled
  // engine folder, or KELVO_ENGINE_DIR; absent when none.
  static std::optional<std::string> engineDirectory(const std::string& dataRoot);
  static std::optional<std::string> executablePath(const std::string& dataRoot);
  // auto and cpu need an engine directory; metal (the GPU back-end) also needs
  // libggml-cuda.so or libggml-vulkan.so in it.
  static bool backendAvailable(ComputeBackend backend, const std::string& dataRoot);
  // Kills s2 processes of ours left by an earlier run: the one in the pid file
  // and every orphan (parent 1) whose program looks like ours. A program is
  // what its command line names (see ProcessEntry::program: the script when an
  // interpreter runs one); it looks like ours when its last component is "s2"
  // and it is `dataRoot` + "engine/s2" or lies in the installed resource
  // folder's "engine/". Children of this process are never touched, nor is
  // anything else. Returns how many were killed.
  static std::int64_t sweepOrphans(const std::string& dataRoot);
  // The same with the installed engine folder given. One that is not an
  // absolute path ending in "/engine/" (empty, "/", relative) is ignored with
  // a warning, so only `dataRoot` + "engine/s2" counts as ours.
  static std::int64_t sweepOrphans(const std::string& dataRoot, const std::string& installedEngineDir);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kelvo
