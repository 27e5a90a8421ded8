#include "KELVOCore/EngineS2Local.h"

#include <pthread.h>
#include <unistd.h>

#include <charconv>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <set>
#include <thread>

#include "KELVOCore/ChildProcess.h"
#include "KELVOCore/Files.h"
#include "KELVOCore/HttpClient.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Log.h"
#include "KELVOCore/Multipart.h"
#include "KELVOCore/Paths.h"
#include "KELVOCore/Wav.h"

namespace kelvo {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr const char* kLogSource = "s2";
constexpr std::int64_t kMaxRestarts = 3;
constexpr std::chrono::milliseconds kProbeSendTimeout{500};
// A transport error can arrive a moment before the dying child can be reaped.
constexpr std::chrono::milliseconds kExitSettle{250};
// The s2 server drops a keep-alive connection idle for 5 s; one idle for more
// than this is not reused, so a request never races that drop.
constexpr std::chrono::seconds kConnectionReuse{2};

bool fileExists(const std::string& path) {
  std::error_code ec;
  return fs::exists(path, ec);
}

std::string rootOrDefault(const std::string& dataRoot) {
  return dataRoot.empty() ? KELVOPaths::dataRoot() : KELVOPaths::withSlash(dataRoot);
}

std::string folderOf(const std::string& path) { return KELVOPaths::withSlash(fs::path(path).parent_path().string()); }

// The GPU back-end of this build: a CUDA or Vulkan ggml library beside the executable.
bool gpuLibraryIn(const std::string& dir) {
  return fileExists(dir + "libggml-cuda.so") || fileExists(dir + "libggml-vulkan.so");
}

std::string signalHint(int signal) {
  switch (signal) {
    case 4:
      return T("这台电脑的 CPU 不支持引擎用到的指令集(非法指令)。换一个计算后端,或者换一台较新的机器。");
    case 6:
      return T("引擎主动中止了(多半是某个算子这个后端没实现)。看引擎日志的最后几行。");
    case 9:
      return T("内存不够,引擎起不来。");
    case 10:
    case 11:
      return T("引擎发生了访问冲突(模型文件可能已损坏)。");
    default:
      return {};
  }
}

std::string joined(const std::vector<std::string>& words) {
  std::string out;
  for (const std::string& w : words) {
    if (!out.empty()) out += ' ';
    out += w;
  }
  return out;
}

}  // namespace

std::optional<std::string> findModelFile(const std::string& dir) {
  std::error_code ec;
  fs::directory_iterator it(dir, ec);
  if (ec) return std::nullopt;
  std::optional<std::string> best;
  std::uintmax_t bestSize = 0;
  for (; it != fs::directory_iterator(); it.increment(ec)) {
    if (ec) break;
    const fs::path& path = it->path();
    if (path.extension() != ".gguf") continue;
    std::error_code sizeError;
    const std::uintmax_t size = fs::file_size(path, sizeError);
    if (sizeError) continue;
    if (!best || size > bestSize) {
      best = path.string();
      bestSize = size;
    }
  }
  return best;
}

// ---- the engine's state ------------------------------------------------------------

struct S2LocalEngine::Impl {
  Impl(EngineOptions options, std::string root, Timing t, Ports p)
      : dataRoot(rootOrDefault(root)),
        timing(t),
        ports(p),
        logFile(dataRoot + "logs/s2-engine.log"),
        pidFile(dataRoot + "logs/s2.pid"),
        opts(std::move(options)),
        detail(T("已停止")),
        searchRoot(dataRoot) {}

  const std::string dataRoot;
  const Timing timing;
  const Ports ports;
  const std::string logFile;
  const std::string pidFile;
  HttpSession session{kConnectionReuse};  // the synthesis thread's line to the child

  // One start, stop or unload at a time; held across their slow parts (the
  // launch, joining the watchdog, ending the child), never taken by the
  // watchdog or the synthesis thread.
  std::mutex control;
  std::thread watchThread;  // guarded by `control`

  mutable std::mutex lock;       // guards everything below
  std::condition_variable wake;  // cuts the watchdog's sleeps short when stopping
  EngineOptions opts;
  S2EngineState state = S2EngineState::missing;
  std::string detail;
  std::string exePath;
  std::string modelPathValue;
  std::string tokenizerPath;
  std::string searchRoot;
  std::int64_t port = 0;
  std::shared_ptr<ChildProcess> child;
  Clock::time_point loadStart = Clock::now();
  std::int64_t restarts = 0;
  bool stopping = false;

  // ---- REQUIRES: lock held ----
  std::string missingWhatLocked() const {
    std::string out;
    if (exePath.empty()) out = "engine/s2";
    if (modelPathValue.empty()) out += std::string(out.empty() ? "" : ", ") + "models/*.gguf";
    return out;
  }
  double loadSecondsLocked() const { return std::chrono::duration<double>(Clock::now() - loadStart).count(); }
  // The watchdog's and the synthesis thread's writes: a stop has the last word.
  bool setUnlessStoppingLocked(S2EngineState s, std::string d) {
    if (stopping) return false;
    state = s;
    detail = std::move(d);
    return true;
  }
  bool discoverLocked();

  bool setUnlessStopping(S2EngineState s, std::string d) {
    std::lock_guard guard(lock);
    return setUnlessStoppingLocked(s, std::move(d));
  }
  bool isStopping() const {
    std::lock_guard guard(lock);
    return stopping;
  }
  // Sleeps `d` unless a stop comes first; true when stopping.
  bool pause(std::chrono::milliseconds d) {
    std::unique_lock guard(lock);
    return wake.wait_for(guard, d, [this] { return stopping; });
  }
  void removePidFile() const {
    std::error_code ignored;
    fs::remove(pidFile, ignored);
  }

  std::optional<std::int64_t> pickPort() const;
  bool spawnChild();
  bool waitReady();
  void giveUpLoading(const std::shared_ptr<ChildProcess>& c);
  // `heldPort`: the child's port when another program held it (0: none).
  void diagnoseExit(const ChildExit& exit, std::int64_t heldPort);
  void watchLoop();
  [[noreturn]] void transportFailure(const std::string& error);
  // REQUIRES: `control` held.
  void stopInternal(S2EngineState s, const std::string& d);
};

bool S2LocalEngine::Impl::discoverLocked() {
  exePath.clear();
  if (searchRoot.empty() || searchRoot == dataRoot) {
    if (auto exe = S2LocalEngine::executablePath(dataRoot)) exePath = *exe;
  } else if (fileExists(searchRoot + "engine/s2")) {
    exePath = searchRoot + "engine/s2";
  }
  modelPathValue.clear();
  if (!opts.modelFile.empty() && fileExists(searchRoot + "models/" + opts.modelFile)) {
    modelPathValue = searchRoot + "models/" + opts.modelFile;
  } else {
    for (const std::string& dir : {searchRoot + "models", searchRoot + "engine", searchRoot}) {
      if (auto found = findModelFile(dir)) {
        modelPathValue = *found;
        break;
      }
    }
  }
  tokenizerPath.clear();
  if (!modelPathValue.empty()) {
    const std::string tokenizer = fs::path(modelPathValue).parent_path().string() + "/tokenizer.json";
    if (fileExists(tokenizer)) tokenizerPath = tokenizer;
  }
  return !exePath.empty() && !modelPathValue.empty();
}

std::optional<std::int64_t> S2LocalEngine::Impl::pickPort() const {
  for (std::int64_t p = ports.first; p <= ports.last; ++p) {
    // A port nobody answers on is free; one where even a socket cannot be made
    // is taken as it is and the launch will tell.
    if (probeLoopback(p, kProbeSendTimeout) != PortProbe::accepts) return p;
  }
  return std::nullopt;
}

bool S2LocalEngine::Impl::spawnChild() {
  if (isStopping()) return false;
  const auto chosen = pickPort();
  if (!chosen) {
    setUnlessStopping(S2EngineState::failed, TF("端口 %d..%d 全被占用了 — 推理进程没地方放",
                                                static_cast<int>(ports.first), static_cast<int>(ports.last)));
    AppLog::error(kLogSource, formatText("ports %lld..%lld are all taken; the inference process was not started",
                                         static_cast<long long>(ports.first), static_cast<long long>(ports.last)));
    return false;
  }
  std::string exe, model, tokenizer;
  EngineOptions options;
  {
    std::lock_guard guard(lock);
    port = *chosen;
    exe = exePath;
    model = modelPathValue;
    tokenizer = tokenizerPath;
    options = opts;
  }
  const std::string workDir = folderOf(exe);
  const bool gpu = options.compute != ComputeBackend::cpu && gpuLibraryIn(workDir);
  const std::vector<std::string> args = s2CommandLine(model, *chosen, tokenizer, options, gpu);
  std::error_code ignored;
  fs::create_directories(dataRoot + "logs", ignored);

  std::error_code error;
  auto launched = ChildProcess::spawn(exe, args, workDir, logFile, error);
  if (!launched) {
    setUnlessStopping(S2EngineState::failed, TF("无法启动推理进程:%s(%s)", error.message(), exe));
    AppLog::error(kLogSource, "cannot start the inference process: " + error.message());
    return false;
  }
  const pid_t pid = launched->pid();
  {
    // Stored even when a stop has begun: the stop joins this thread before it
    // takes the child, so it still ends this one.
    std::lock_guard guard(lock);
    child = std::move(launched);
  }
  const std::string pidText = std::to_string(pid);
  writeFileAtomic(pidFile, std::span(reinterpret_cast<const std::uint8_t*>(pidText.data()), pidText.size()));
  AppLog::info(kLogSource, "inference process started (pid " + pidText + ", port " + std::to_string(*chosen) +
                               "): " + fs::path(model).filename().string() + " " + joined(args) + " [" +
                               (gpu ? "metal" : "cpu") + "]");
  return true;
}

bool S2LocalEngine::Impl::waitReady() {
  // While another program holds the child's port: the detail it displaced,
  // put back should the port come free before the child listens.
  std::optional<std::string> displaced;
  for (;;) {
    std::shared_ptr<ChildProcess> c;
    std::int64_t p = 0;
    Clock::time_point started;
    std::string modelName;
    {
      std::lock_guard guard(lock);
      if (stopping) return false;
      c = child;
      p = port;
      started = loadStart;
      modelName = fs::path(modelPathValue).filename().string();
    }
    if (Clock::now() - started >= timing.loadLimit) {
      giveUpLoading(c);
      return false;
    }
    if (c && !c->running()) {
      diagnoseExit(c->exitStatus().value_or(ChildExit{}), displaced ? p : 0);
      return false;
    }
    // A port that merely answers proves nothing: a neighbour's engine or any
    // other program may hold it. Only a listener of our child's counts.
    const pid_t tree = c ? c->pid() : 0;
    PortHolder holder = loopbackListener(p, tree);
    if (holder != PortHolder::tree && loopbackListener(ports.fallback, tree) == PortHolder::tree) {
      // The child ignored "--port" and listens on its own default: adopt it.
      holder = PortHolder::tree;
      p = ports.fallback;
      std::lock_guard guard(lock);
      port = p;
    }
    if (holder == PortHolder::tree) {
      const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
      if (!setUnlessStopping(S2EngineState::ready,
                             TF("%s,端口 %d,载入用了 %.1f 秒", modelName, static_cast<int>(p), seconds))) {
        return false;
      }
      AppLog::info(kLogSource, formatText("engine ready, loaded in %.1f s", seconds));
      return true;
    }
    if (holder == PortHolder::other && !displaced) {
      std::lock_guard guard(lock);
      if (stopping) return false;
      displaced = detail;
      detail = TF("端口 %d 被另一个程序占着(不是推理进程),继续等推理进程…", static_cast<int>(p));
      AppLog::warn(kLogSource, formatText("another program holds port %lld, not the inference process; still waiting",
                                          static_cast<long long>(p)));
    } else if (holder == PortHolder::nobody && displaced) {
      std::lock_guard guard(lock);
      if (stopping) return false;
      detail = std::move(*displaced);
      displaced.reset();
    }
    if (pause(timing.probeInterval)) return false;
  }
}

void S2LocalEngine::Impl::giveUpLoading(const std::shared_ptr<ChildProcess>& c) {
  const int limitSeconds = static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(timing.loadLimit).count());
  if (!setUnlessStopping(S2EngineState::failed, TF("模型过了 %d 秒还没载入完 — 看 %s", limitSeconds, logFile))) return;
  AppLog::error(kLogSource,
                formatText("the model is still not loaded after %d s; giving up (log: %s)", limitSeconds, logFile));
  // Nothing will use or watch a child that missed its time: end it rather
  // than leave it holding memory (or a zombie) until the next start.
  if (c) c->terminate(timing.termGrace);
  removePidFile();
}

void S2LocalEngine::Impl::diagnoseExit(const ChildExit& exit, std::int64_t heldPort) {
  std::string hint = exit.bySignal ? signalHint(exit.status) : std::string();
  if (hint.empty() && heldPort != 0) hint = TF("另一个程序占着端口 %d,推理进程没法在上面监听", static_cast<int>(heldPort));
  if (hint.empty()) hint = T("(空)");
  removePidFile();
  if (!setUnlessStopping(S2EngineState::failed, TF("推理进程退出了(信号 %d):%s,日志 %s", exit.status, hint, logFile))) {
    return;
  }
  AppLog::error(kLogSource,
                "inference process exited with status " + std::to_string(exit.status) + "; log: " + logFile);
}

void S2LocalEngine::Impl::watchLoop() {
  if (!waitReady()) return;
  for (;;) {
    if (pause(timing.watchInterval)) return;
    std::shared_ptr<ChildProcess> c;
    std::int64_t done = 0;
    {
      std::lock_guard guard(lock);
      c = child;
      done = restarts;
    }
    if (c && c->running()) continue;
    if (isStopping()) return;
    removePidFile();
    AppLog::warn(kLogSource, "inference process gone (auto-restarted " + std::to_string(done) + " time(s))");
    if (done >= kMaxRestarts) {
      setUnlessStopping(S2EngineState::failed,
                        TF("推理进程反复退出(%d 次),已停止自动重启 - 看 %s", static_cast<int>(done), logFile));
      return;
    }
    const std::int64_t attempt = done + 1;
    const std::string vanished = TF("推理进程不见了 — 第 %d 次重启尝试…", static_cast<int>(attempt));
    {
      std::lock_guard guard(lock);
      restarts = attempt;
      if (!setUnlessStoppingLocked(S2EngineState::loading, vanished)) return;
    }
    if (!spawnChild() || !waitReady()) return;
    AppLog::info(kLogSource, "inference process restarted and ready (attempt " + std::to_string(attempt) + ")");
  }
}

void S2LocalEngine::Impl::stopInternal(S2EngineState s, const std::string& d) {
  {
    std::lock_guard guard(lock);
    stopping = true;
    state = s;
    detail = d;
  }
  wake.notify_all();
  if (watchThread.joinable()) watchThread.join();
  std::shared_ptr<ChildProcess> c;
  {
    std::lock_guard guard(lock);
    c = std::move(child);
  }
  if (c) c->terminate(timing.termGrace);
  removePidFile();
}

void S2LocalEngine::Impl::transportFailure(const std::string& error) {
  std::shared_ptr<ChildProcess> c;
  {
    std::lock_guard guard(lock);
    c = child;
  }
  if (c && !c->waitExit(kExitSettle)) {
    throw TtsError(TtsErrorCode::engineFailed, TF("和推理进程通信失败:%s(日志 %s)", error, logFile));
  }
  // Flip to loading at once, so callers see the restart before the watchdog's
  // next look notices the exit. After a stop the stop's own words stand.
  const std::string restarting = T("推理进程不见了 — 正在重启…");
  std::string stoppedDetail;
  {
    std::lock_guard guard(lock);
    if (stopping) {
      stoppedDetail = detail;
    } else if (state == S2EngineState::ready) {
      state = S2EngineState::loading;
      detail = restarting;
    }
  }
  if (!stoppedDetail.empty()) throw TtsError(TtsErrorCode::engineNotConnected, stoppedDetail);
  throw TtsError(TtsErrorCode::engineNotConnected, T("推理进程不见了(崩溃或被杀掉了);它正在自动重启,请稍后再试。"));
}

// ---- public operations ----------------------------------------------------------

S2LocalEngine::S2LocalEngine(EngineOptions options, std::string dataRoot, Timing timing, Ports ports)
    : impl_(std::make_unique<Impl>(std::move(options), std::move(dataRoot), timing, ports)) {}

S2LocalEngine::~S2LocalEngine() {
  std::lock_guard control(impl_->control);
  impl_->stopInternal(S2EngineState::missing, T("已停止"));
}

std::string S2LocalEngine::name() const { return "fish-s2-pro (s2.cpp)"; }

bool S2LocalEngine::ready() const { return currentState() == S2EngineState::ready; }

void S2LocalEngine::configure(const EngineOptions& options) {
  std::lock_guard guard(impl_->lock);
  impl_->opts = options;
}

EngineOptions S2LocalEngine::options() const {
  std::lock_guard guard(impl_->lock);
  return impl_->opts;
}

EngineHealth S2LocalEngine::checkHealth() {
  EngineHealth health;
  std::lock_guard guard(impl_->lock);
  health.ready = impl_->state == S2EngineState::ready;
  health.backend = name();
  health.detail = impl_->detail;
  health.exePath = impl_->exePath;
  health.probedAt = std::chrono::system_clock::now();
  return health;
}

PcmBuffer S2LocalEngine::synthesize(const S2Params& params, const VoiceHint& hint) {
  Impl& m = *impl_;
  if (trimmed(params.text).empty()) throw TtsError(TtsErrorCode::emptyText, T("没有要合成的文字"));
  S2EngineState state;
  std::string detail, missing, root;
  double seconds = 0;
  std::int64_t port = 0;
  std::int64_t timeoutMs = 0;
  {
    std::lock_guard guard(m.lock);
    state = m.state;
    detail = m.detail;
    missing = m.missingWhatLocked();
    root = m.searchRoot;
    seconds = m.loadSecondsLocked();
    port = m.port;
    timeoutMs = m.opts.timeoutMs;
  }
  switch (state) {
    case S2EngineState::missing:
      // Stopped with its files in place: nothing is missing, the detail says why.
      if (missing.empty()) throw TtsError(TtsErrorCode::engineNotConnected, detail);
      throw TtsError(TtsErrorCode::engineNotConnected, TF("引擎不完整:%s 里缺少 %s", root, missing));
    case S2EngineState::loading:
      throw TtsError(TtsErrorCode::engineNotConnected, TF("模型还在载入(已经 %.0f 秒),请稍后再试", seconds));
    case S2EngineState::failed:
      throw TtsError(TtsErrorCode::engineNotConnected, detail);
    case S2EngineState::unloaded:
      throw TtsError(TtsErrorCode::engineNotConnected,
                     T("模型已卸载,这一句缓存里没有。\n要现合成的话,先在「模型」页点「载入模型」。"));
    case S2EngineState::ready:
      break;
  }
  if (params.voiceProfile.empty() && params.referenceAudio.empty()) {
    AppLog::warn(kLogSource,
                 "no reference audio for this request; the model picks the voice itself (voice: " + hint.display + ")");
  }
  const std::string boundary = MultipartForm::newBoundary();
  HttpClientRequest request;
  request.method = "POST";
  request.url = "http://127.0.0.1:" + std::to_string(port) + "/generate";
  request.headers = {{"Content-Type", "multipart/form-data; boundary=" + boundary}};
  request.body = s2GenerateBody(params, boundary);
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  bool warnedBusy = false;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    request.timeout = std::max(left, m.timing.minRequestTimeout);
    const HttpClientReply reply = m.session.exchange(request);
    if (!reply.error.empty()) m.transportFailure(reply.error);
    if (reply.status == 200) {
      if (auto wav = parseWavWithFormat(reply.body)) return std::move(wav->pcm);
      throw TtsError(TtsErrorCode::engineFailed,
                     TF("推理进程返回的 %d 字节不是可识别的 WAV", static_cast<int>(reply.body.size())));
    }
    if (reply.status != 503) {
      throw TtsError(TtsErrorCode::engineFailed, TF("推理进程返回了 %d:%s", static_cast<int>(reply.status),
                                                    std::string(reply.body.begin(), reply.body.end())));
    }
    if (Clock::now() >= deadline) {
      throw TtsError(TtsErrorCode::timeout, T("引擎还在忙 — 它一次只合成一句,上一句还没合成完。") + " " +
                                                T("等它合成完再试,或者在设置里调高合成超时。"));
    }
    if (!warnedBusy) {
      AppLog::warn(kLogSource,
                   "engine busy with an earlier request; waiting for it (this happens after a synthesis "
                   "we gave up on keeps running)");
      warnedBusy = true;
    }
    std::this_thread::sleep_for(m.timing.busyRetry);
  }
}

void S2LocalEngine::setSearchRoot(std::string path) {
  std::lock_guard guard(impl_->lock);
  impl_->searchRoot = KELVOPaths::withSlash(std::move(path));
}

void S2LocalEngine::start() {
  Impl& m = *impl_;
  std::lock_guard control(m.control);
  m.stopInternal(S2EngineState::missing, T("已停止"));
  const std::string loadingText = T("正在载入模型…");
  std::string missing;
  std::string root;
  {
    std::lock_guard guard(m.lock);
    m.stopping = false;
    root = m.searchRoot;
    if (m.discoverLocked()) {
      m.state = S2EngineState::loading;
      m.detail = loadingText;
      m.restarts = 0;
      m.loadStart = Clock::now();
    } else {
      missing = m.missingWhatLocked();
    }
  }
  if (!missing.empty()) {
    m.setUnlessStopping(S2EngineState::missing, TF("%s 里缺少 %s", root, missing));
    AppLog::warn(kLogSource, "model files incomplete (missing " + missing + "); falling back to placeholder audio");
    return;
  }
  if (!m.spawnChild()) return;
  m.watchThread = std::thread([&m] {
    pthread_setname_np(pthread_self(), "KELVO watchdog");
    m.watchLoop();
  });
}

void S2LocalEngine::stop() {
  std::lock_guard control(impl_->control);
  impl_->stopInternal(S2EngineState::missing, T("已停止"));
}

void S2LocalEngine::unload() {
  std::lock_guard control(impl_->control);
  impl_->stopInternal(S2EngineState::unloaded, T("模型已卸载,内存已释放"));
}

bool S2LocalEngine::isUnloaded() const { return currentState() == S2EngineState::unloaded; }

S2EngineState S2LocalEngine::currentState() const {
  std::lock_guard guard(impl_->lock);
  return impl_->state;
}

std::string S2LocalEngine::detail() const {
  std::lock_guard guard(impl_->lock);
  return impl_->detail;
}

double S2LocalEngine::loadingSeconds() const {
  std::lock_guard guard(impl_->lock);
  return impl_->loadSecondsLocked();
}

std::int64_t S2LocalEngine::port() const {
  std::lock_guard guard(impl_->lock);
  return impl_->port;
}

std::string S2LocalEngine::modelPath() const {
  std::lock_guard guard(impl_->lock);
  return impl_->modelPathValue;
}

std::string S2LocalEngine::enginePath() const {
  std::lock_guard guard(impl_->lock);
  return impl_->exePath;
}

std::string S2LocalEngine::logPath() const { return impl_->logFile; }
std::string S2LocalEngine::pidPath() const { return impl_->pidFile; }

std::string S2LocalEngine::missingWhat() const {
  std::lock_guard guard(impl_->lock);
  return impl_->missingWhatLocked();
}

std::optional<int> S2LocalEngine::childPid() const {
  std::shared_ptr<ChildProcess> c;
  {
    std::lock_guard guard(impl_->lock);
    c = impl_->child;
  }
  if (!c || !c->running()) return std::nullopt;
  return c->pid();
}

// ---- class-level helpers ----------------------------------------------------------

std::optional<std::string> S2LocalEngine::engineDirectory(const std::string& dataRoot) {
  const std::string root = rootOrDefault(dataRoot);
  if (fileExists(root + "engine/s2")) return root + "engine/";
  return KELVOPaths::bundledEngineDir();
}

std::optional<std::string> S2LocalEngine::executablePath(const std::string& dataRoot) {
  const auto dir = engineDirectory(dataRoot);
  if (!dir || !fileExists(*dir + "s2")) return std::nullopt;
  return *dir + "s2";
}

bool S2LocalEngine::backendAvailable(ComputeBackend backend, const std::string& dataRoot) {
  const auto dir = engineDirectory(dataRoot);
  if (!dir) return false;
  return backend != ComputeBackend::metal || gpuLibraryIn(*dir);
}

std::int64_t S2LocalEngine::sweepOrphans(const std::string& dataRoot) {
  return sweepOrphans(dataRoot, KELVOPaths::resourceEngineDir());
}

std::int64_t S2LocalEngine::sweepOrphans(const std::string& dataRoot, const std::string& installedEngineDir) {
  const std::string root = rootOrDefault(dataRoot);
  const std::string ownExecutable = root + "engine/s2";
  // The folder is a prefix test: an empty, bare "/" or relative one would match
  // every s2 on the machine (or whatever the working folder makes of it), so
  // only an absolute path to an "engine" folder is trusted.
  const bool installedUsable = installedEngineDir.starts_with('/') && installedEngineDir.ends_with("/engine/");
  if (!installedUsable) {
    AppLog::warn(kLogSource, "installed engine folder \"" + installedEngineDir +
                                 "\" is not an absolute engine/ path; only " + ownExecutable + " is swept");
  }
  const pid_t self = ::getpid();
  const auto ours = [&](const ProcessEntry& p) {
    const std::string program = p.program();
    if (p.ppid == self || fs::path(program).filename() != "s2") return false;
    return program == ownExecutable || (installedUsable && program.starts_with(installedEngineDir));
  };
  std::set<pid_t> killed;
  const std::string pidFile = root + "logs/s2.pid";
  if (const auto text = readFile(pidFile)) {
    const std::string digits = trimmed(std::string(text->begin(), text->end()));
    pid_t pid = 0;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), pid);
    if (ec == std::errc() && end == digits.data() + digits.size()) {
      if (const auto entry = readProcess(pid); entry && ours(*entry) && killProcess(pid)) killed.insert(pid);
    }
    std::error_code ignored;
    fs::remove(pidFile, ignored);
  }
  for (const ProcessEntry& p : listProcesses()) {
    if (p.ppid == 1 && !killed.contains(p.pid) && ours(p) && killProcess(p.pid)) killed.insert(p.pid);
  }
  if (!killed.empty()) {
    AppLog::warn(kLogSource,
                 "killed " + std::to_string(killed.size()) + " orphaned inference process(es) left by a previous run");
  }
  return static_cast<std::int64_t>(killed.size());
}

}  // namespace kelvo
