// `kelvo serve`: brings the service up in order (the data root's lock,
// configuration, voices, cache, queue, engine, then the HTTP listener, whose
// URL goes into the lock file; then a second thread sweeps the temporary
// files dead writers left),
// runs until SIGTERM or SIGINT, and takes it down in the reverse order so that
// waiting requests get a clear answer and the cache index is written.
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>

#include "KELVOCore/ApiKeys.h"
#include "KELVOCore/DataRootLock.h"
#include "KELVOCore/Files.h"
#include "KELVOCore/HttpRoutes.h"
#include "KELVOCore/HubStore.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Log.h"
#include "KELVOCore/Memory.h"
#include "KELVOCore/Paths.h"
#include "KELVOCore/Service.h"
#include "KELVOServer/Client.h"
#include "KELVOServer/Commands.h"

namespace kelvo::cli {

namespace {

struct ServeOptions {
  std::optional<std::int64_t> port;
  std::optional<std::string> bind;
  bool hub = false;
};

// Without KELVO_VERBOSE an operator still sees where the service listens and
// everything that went wrong; with it, every line.
void setUpLogOutput() {
  const bool verbose = std::getenv("KELVO_VERBOSE") != nullptr;
  AppLog::setEchoToStderr(verbose);
  if (verbose) return;
  AppLog::setLineHandler([](const LogEntry& e) {
    const bool always = e.source == "serve" || e.text.rfind("service started on ", 0) == 0;
    if (always || e.level >= LogLevel::warn) std::fprintf(stderr, "%s\n", e.formatted().c_str());
  });
}

// A writer killed between its temporary file and the rename leaves the
// temporary behind; nothing else would ever remove it. Listing a cache of
// many lines takes a while, so this runs beside the start, not before it.
void removeOrphanedTemps(std::filesystem::file_time_type startedAt) {
  const std::string root = KELVOPaths::dataRoot();
  for (const std::string& dir : {KELVOPaths::dataDir(), KELVOPaths::voicesDir(), KELVOPaths::cacheDir(),
                                 KELVOPaths::logsDir(), root + "hub/"}) {
    const std::vector<std::string> removed = removeOrphanedTempFiles(dir, startedAt);
    if (removed.empty()) continue;
    AppLog::info("serve", "removed " + std::to_string(removed.size()) + " temporary file(s) a dead writer left in " +
                              dir + ", e.g. " + removed.front());
  }
}

int serve(const ServeOptions& options) {
  const auto startedAt = std::filesystem::file_time_type::clock::now();
  keepLineBuffersInHeap();
  // The stop signals are blocked before any thread exists, so every thread
  // inherits the mask and only sigwait below ever sees them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);  // a client that hangs up must not end the service
  setUpLogOutput();

  AppLog::info("serve", "data root " + KELVOPaths::dataRoot());
  std::unique_ptr<DataRootLock> ownership;
  try {
    ownership = lockDataRoot(T("先停掉它,或者用 KELVO_HOME 给这个服务另一个数据目录"));
  } catch (const CommandError& e) {
    AppLog::drainHandlers();
    std::fprintf(stderr, "%s\n", e.message.c_str());
    return 1;
  }
  std::shared_ptr<TtsService> service = TtsService::open();
  TtsHttpService api(service);
  api.setApiKeys(std::make_shared<ApiKeys>(KELVOPaths::dataDir()));
  if (options.hub) {
    const std::string folder = KELVOPaths::dataRoot() + "hub/";
    api.setHubStore(std::make_shared<HubStore>(folder));
    AppLog::info("serve", "sharing hub at /API/hub.php, packs in " + folder);
  }
  try {
    api.start(options.bind, options.port);
  } catch (const TtsError& e) {
    std::fprintf(stderr, "%s\n", e.message.c_str());
    service->shutdown();
    AppLog::drainHandlers();
    return 1;
  }
  ownership->publish(api.endpoint());
  for (const std::string& url : api.allEndpoints()) AppLog::info("serve", "reachable at " + url);
  // Once the listener is up: the sweep lists every folder, the cache's too.
  std::jthread sweep([startedAt] { removeOrphanedTemps(startedAt); });

  int received = 0;
  sigwait(&stopSignals, &received);
  AppLog::info("serve", std::string("stopping on ") + (received == SIGINT ? "SIGINT" : "SIGTERM"));
  api.stop();
  sweep.join();
  service->shutdown();
  AppLog::info("serve", "stopped");
  AppLog::drainHandlers();
  return 0;
}

}  // namespace

void addServeCommand(CLI::App& app, int& status) {
  auto options = std::make_shared<ServeOptions>();
  CLI::App* cmd = app.add_subcommand(
      "serve", "Run the HTTP service in the foreground until SIGTERM or SIGINT (what systemd starts).");
  cmd->add_option("--port", options->port, "TCP port for this run only (default: the configuration's, 17150)")
      ->check(CLI::Range(0, 65535));
  cmd->add_option("--bind", options->bind, "address to listen on for this run only (default: the configuration's, 0.0.0.0)");
  cmd->add_flag("--hub", options->hub,
                "also serve the sharing hub (/API/hub.php) from the data root's hub/ folder, for an intranet hub");
  cmd->footer(
      "Data root: $KELVO_HOME, else KELVO-data beside the executable, else ~/.local/share/KELVO/.\n"
      "One service per data root: a second one exits 1 naming the first one's pid.\n"
      "Without engine/s2 and a models/*.gguf under the data root a placeholder engine answers.\n"
      "KELVO_VERBOSE=1 echoes every log line to standard error.");
  cmd->callback([options, &status] { status = serve(*options); });
}

}  // namespace kelvo::cli
