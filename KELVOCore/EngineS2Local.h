// S2LocalEngine: the real speech engine. It runs the s2 inference server
// (s2.cpp with a Fish S2 Pro .gguf model) as a child process on a free
// loopback port, waits for it to load, watches it from a thread of its own and
// restarts it at most three times per start(), diagnoses crashes, and sends it
// one line at a time as a multipart POST to "/generate".
//
// Thread-safe: one lock guards the fields and is held only for short reads and
// writes; launching, probing, sleeping, killing and the HTTP exchange happen
// outside it. `synthesize` is called by the synthesis worker alone; everything
// else may be called from any thread. Owns a child process: destroying the
// engine stops the child (SIGTERM, 3 s, then SIGKILL to its process group).
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KELVOCore/Engine.h"

namespace kelvo {

enum class S2EngineState : int { missing = 0, loading = 1, ready = 2, failed = 3, unloaded = 4 };

// Loopback ports tried for the child, in order.
inline constexpr std::int64_t s2FirstPort = 17151;
inline constexpr std::int64_t s2LastPort = 17170;
// Port the s2 server listens on when it ignores "--port"; such a child is adopted.
inline constexpr std::int64_t s2DefaultPort = 3030;

// The largest ".gguf" file in `dir` (first listed wins a tie); absent when the
// directory cannot be read or holds none.
std::optional<std::string> findModelFile(const std::string& dir);

class S2LocalEngine final : public TtsEngine {
 public:
  // Timings the tests shorten; the defaults are what a real model needs.
  struct Timing {
    std::chrono::milliseconds loadLimit{300000};   // give up waiting for the model
    std::chrono::milliseconds probeInterval{400};  // between readiness probes
    std::chrono::milliseconds watchInterval{1500};  // between watchdog looks
    // User-provided so that `Timing timing = {}` below compiles: GCC cannot use
    // the member initialisers of a nested aggregate before the class is complete.
    Timing() noexcept {}
  };

  // `dataRoot` (ending in "/") holds "engine/", "models/" and "logs/".
  explicit S2LocalEngine(EngineOptions options = {}, std::string dataRoot = {}, Timing timing = {});
  ~S2LocalEngine() override;  // stops the child and joins the watchdog

  std::string name() const override;  // "fish-s2-pro (s2.cpp)"
  bool ready() const override;        // state is ready
  void configure(const EngineOptions& options) override;  // used from the next start()
  EngineOptions options() const override;
  EngineHealth checkHealth() override;
  // One multipart POST to the child. Throws TtsError: engineNotConnected unless
  // ready (or when the child has gone), timeout after 503s up to the deadline,
  // engineFailed for any other refusal or a reply that is not WAV.
  PcmBuffer synthesize(const S2Params& params, const VoiceHint& hint) override;

  void setSearchRoot(std::string path);  // where engine/ and models/ are looked for
  // Stops a running child, discovers the files and launches the child and the
  // watchdog; state missing when files are absent. Returns without waiting.
  void start();
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
  // and every orphan (parent 1) whose executable looks like ours. Never touches
  // anything else. Returns how many were killed.
  static std::int64_t sweepOrphans(const std::string& dataRoot);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The child's command line without the executable, exactly as launched.
std::vector<std::string> s2CommandLine(const std::string& modelPath, std::int64_t port,
                                       const std::string& tokenizerPath, const EngineOptions& options,
                                       bool gpuBackendAvailable);

}  // namespace kelvo
