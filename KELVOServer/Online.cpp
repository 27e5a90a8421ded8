// `kelvo models`, `kelvo update` and `kelvo hub`: the commands that reach
// outside servers. `kelvo models` works on this machine's data root directly,
// so an operator can fetch the model before the service has ever started; it
// holds the data root's lock while it writes. The hub commands that change
// anything here (get, share, unshare) go through the running service.
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <thread>

#include "KELVOCore/Config.h"
#include "KELVOCore/Hub.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Models.h"
#include "KELVOCore/Paths.h"
#include "KELVOCore/Update.h"
#include "KELVOCore/Version.h"
#include "KELVOServer/Client.h"
#include "KELVOServer/Commands.h"
#include "KELVOServer/Progress.h"
#include "KELVOServer/Table.h"

namespace kelvo::cli {

namespace {

ModelVariant variantNamed(const std::string& id) {
  if (std::optional<ModelVariant> v = findModelVariant(id)) return *v;
  std::string known;
  for (const ModelVariant& v : modelVariants()) known += (known.empty() ? "" : ", ") + v.id;
  throw CommandError{exitUsage, TF("没有 %s 这个模型版本(可选:%s)", id, known)};
}

// The configuration as the service would read it; the defaults when the data root has none yet.
std::shared_ptr<AppConfig> loadConfig() {
  KELVOPaths::ensureDirectories();
  auto config = std::make_shared<AppConfig>();
  config->load();
  return config;
}

// ---- kelvo models --------------------------------------------------------------------

void listModels() {
  std::vector<Row> rows;
  for (const ModelStatus& s : modelStatuses()) {
    std::string state = T("缺失");
    std::string size = "≈ " + sizeText(s.variant.approxBytes);
    if (s.state == ModelFileState::installed) {
      state = s.tokenizerInstalled ? T("已安装") : TF("已安装(缺 %s)", std::string(tokenizerFileName));
      size = sizeText(s.bytes);
    } else if (s.state == ModelFileState::partial) {
      state = TF("部分 %d %%", static_cast<int>(s.partialFraction * 100));
    }
    rows.push_back({s.variant.id, s.variant.fileName, size, state});
  }
  std::printf("%s", formatTable({T("版本"), T("文件"), T("大小"), T("状态")}, rows).c_str());
}

struct DownloadOptions {
  std::string variant;
  bool mirror = false;
  bool noMirror = false;
};

std::string downloadDetail(const DownloadProgress& p) {
  std::string text = p.fileName + "  " + sizeText(p.bytes);
  if (p.total > 0) text += " / " + sizeText(p.total);
  text += formatText(" · %.1f MB/s", p.bytesPerSecond / 1e6);
  if (p.total > 0 && p.bytesPerSecond > 0) {
    text += " · " + TF("还剩 %s", clockText(static_cast<double>(p.total - p.bytes) / p.bytesPerSecond));
  }
  return text;
}

// Runs the download with Ctrl-C and SIGTERM turned into a clean cancel: the
// signals are blocked here and taken by a watcher thread, so the transfer
// stops between two reads and its ".part" stays for the next run.
DownloadReport downloadCancellable(ModelDownloader& downloader, const ModelVariant& variant,
                                   const ModelDownloader::ProgressHandler& onProgress) {
  sigset_t stopSignals, previous;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, &previous);
  std::atomic<bool> finished{false};
  std::thread watcher([&] {
    int received = 0;
    sigwait(&stopSignals, &received);
    if (!finished) downloader.cancel();
  });
  DownloadReport report = downloader.download(variant, onProgress);
  finished = true;
  pthread_kill(watcher.native_handle(), SIGINT);  // wakes the watcher when no signal came
  watcher.join();
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  return report;
}

// While a service runs, the data root is its own; a model changed under it
// would be half there when the engine starts on it.
std::unique_ptr<DataRootLock> lockForModels() { return lockDataRoot(T("服务运行时模型由它独占;先停掉服务,再运行这条命令")); }

void downloadModel(const DownloadOptions& o) {
  const ModelVariant variant = o.variant.empty() ? modelVariants().front() : variantNamed(o.variant);
  const auto ownership = lockForModels();
  EngineOptions engine = loadConfig()->engine();
  if (o.mirror || o.noMirror) engine.useMirror = o.mirror;
  ModelDownloadSettings settings;
  settings.baseUrl = modelBaseUrl(engine);
  std::printf("%s\n", TF("下载 %s(来源:%s)", variant.fileName, settings.baseUrl).c_str());
  std::fflush(stdout);

  ModelDownloader downloader(settings);
  ProgressReporter progress;
  std::string current;
  const DownloadReport report = downloadCancellable(downloader, variant, [&](const DownloadProgress& p) {
    if (p.fileName != current) progress.finish();
    current = p.fileName;
    progress.update(p.bytes, p.total, downloadDetail(p));
  });
  progress.finish();
  if (report.outcome == DownloadOutcome::failed || report.outcome == DownloadOutcome::cancelled) {
    throw CommandError{exitRefused, report.message};
  }
  std::printf("%s\n", report.message.c_str());
}

void removeModelCommand(const std::string& id) {
  const ModelVariant variant = variantNamed(id);
  const auto ownership = lockForModels();
  if (!removeModel(variant)) throw CommandError{exitRefused, TF("%s 没有装,没有可删除的文件", variant.id)};
  std::printf("%s\n", TF("已删除 %s", variant.fileName).c_str());
}

// ---- kelvo update ----------------------------------------------------------------------

int updateCommand() {
  std::printf("%s\n", TF("已安装的版本:%s(%s)", std::string(KELVO::version), std::string(KELVO::buildTime)).c_str());
  const UpdateCheck check = checkForUpdate();
  switch (check.state) {
    case UpdateState::notConfigured:
      std::printf("%s — %s\n", check.message.c_str(), T("设置 KELVO_RELEASES_URL 指向项目的发布页").c_str());
      return 0;
    case UpdateState::upToDate:
      std::printf("%s\n", check.message.c_str());
      return 0;
    case UpdateState::newer: {
      std::printf("%s\n", check.message.c_str());
      const std::string notes = notesExcerpt(check.latest ? check.latest->notes : "", 5);
      if (!notes.empty()) std::printf("\n%s\n", notes.c_str());
      return 0;
    }
    case UpdateState::failed:
      break;
  }
  throw CommandError{exitRefused, check.message};
}

// ---- kelvo hub -------------------------------------------------------------------------

struct ShareOptions {
  std::vector<std::string> airlines;
  std::vector<std::string> voices;
  std::string title;
};

HubClient configuredHub() {
  HubClient hub;
  if (!hub.configured()) throw CommandError{exitRefused, T("这个版本没有配置共享中心 — 设置 KELVO_HUB_URL 指向共享中心的地址")};
  return hub;
}

// Runs one hub operation, turning its refusal into the command's.
template <typename F>
void onHub(F&& operation) {
  try {
    operation(configuredHub());
  } catch (const TtsError& e) {
    throw CommandError{exitRefused, e.message};
  }
}

void hubList() {
  onHub([](const HubClient& hub) {
    std::vector<Row> rows;
    for (const HubListing& s : hub.list()) {
      rows.push_back({s.id, s.title, s.author, std::to_string(s.voices), std::to_string(s.clips), sizeText(s.bytes),
                      s.createdAt});
    }
    if (rows.empty()) std::printf("%s\n", T("共享中心上还没有任何共享").c_str());
    else std::printf("%s", formatTable({"ID", T("标题"), T("作者"), T("音色"), T("片段"), T("大小"), T("时间")}, rows).c_str());
  });
}

// The running service imports the pack: writing its files behind its back
// would be undone by the service's next save of the voice library.
void hubGet(const std::string& id, const CommonOptions& common) {
  Bytes pack;
  onHub([&](const HubClient& hub) { pack = downloadShare(hub, id); });
  const Json summary = ServiceClient(common.url).call("POST", "/v1/packs/import", pack, "application/zip").json();
  std::printf("%s\n", jStr(summary, "summary").c_str());
  for (const Json& note : jArr(summary, "notes").value_or(Json::array())) {
    if (note.is_string()) std::printf("  - %s\n", note.get<std::string>().c_str());
  }
}

// Shares go through the running service: a share's delete key lives in its
// configuration, which it would overwrite on its next save. The hub is the one
// this command would list, so the share lands where the operator looks.
void hubShare(const ShareOptions& o, const CommonOptions& common) {
  if (o.airlines.empty() && o.voices.empty()) throw CommandError{exitUsage, T("请至少指定一个航司绑定或音色来共享")};
  const HubClient hub = configuredHub();
  const Json body{{"title", o.title}, {"airlines", o.airlines}, {"voices", o.voices}, {"hub", hub.baseUrl()}};
  const Json result = ServiceClient(common.url).callJson("POST", "/v1/hub/shares", body);
  const std::string id = jStr(result, "id");
  if (jBool(result, "unchanged", false)) {
    std::printf("%s\n", TF("已经共享过,内容没有变化:%s", id).c_str());
  } else {
    std::printf("%s\n%s\n", TF("已共享:%s", id).c_str(), jStr(jObj(result, "pack").value_or(Json()), "summary").c_str());
  }
}

void hubUnshare(const std::string& id, const CommonOptions& common) {
  const HubClient hub = configuredHub();
  ServiceClient(common.url).callJson("DELETE", "/v1/hub/shares/" + urlEncode(id) + "?hub=" + urlEncode(hub.baseUrl()));
  std::printf("%s\n", TF("已撤下共享 %s", id).c_str());
}

}  // namespace

void addOnlineCommands(CLI::App& app, const CommonOptions& common, int& status) {
  CLI::App* models = app.add_subcommand(
      "models", "List the model's variants as installed, partial or missing; download or remove one.");
  models->callback([models] {
    if (models->get_subcommands().empty()) listModels();
  });
  auto download = std::make_shared<DownloadOptions>();
  CLI::App* get = models->add_subcommand("download", "Fetch a variant (q6_k when none is named) and tokenizer.json.");
  get->add_option("variant", download->variant, "q6_k, q8_0 or f16");
  CLI::Option* mirror = get->add_flag("--mirror", download->mirror, "fetch from the mirror for this run");
  get->add_flag("--no-mirror", download->noMirror, "fetch from the model hub itself for this run")->excludes(mirror);
  get->footer("Ctrl-C stops the download and keeps <file>.part; the next run resumes it.");
  get->callback([download] { downloadModel(*download); });
  auto removed = std::make_shared<std::string>();
  CLI::App* rm = models->add_subcommand("rm", "Remove a variant's files.");
  rm->add_option("variant", *removed, "q6_k, q8_0 or f16")->required();
  rm->callback([removed] { removeModelCommand(*removed); });

  CLI::App* update = app.add_subcommand("update", "Show this version and whether a newer release is out.");
  update->footer(
      "Exit status: 0 when the check answered (up to date, newer version, or no feed configured: set "
      "KELVO_RELEASES_URL), 1 when the feed could not be read.");
  update->callback([&status] { status = updateCommand(); });

  CLI::App* hub = app.add_subcommand("hub", "Share clone packs on the sharing hub ($KELVO_HUB_URL) or fetch them.");
  hub->require_subcommand(1);
  hub->add_subcommand("list", "List the hub's shares.")->callback(hubList);
  auto getId = std::make_shared<std::string>();
  CLI::App* hubGetCmd = hub->add_subcommand("get", "Import a share's voices and bindings through the running service.");
  hubGetCmd->add_option("id", *getId, "the share's id")->required();
  hubGetCmd->callback([getId, &common] { hubGet(*getId, common); });
  auto share = std::make_shared<ShareOptions>();
  CLI::App* shareCmd =
      hub->add_subcommand("share", "Have the running service pack bindings and voices and upload them to the hub.");
  shareCmd->add_option("--airline", share->airlines, "binding key such as KVO:en:female (repeatable)");
  shareCmd->add_option("--voice", share->voices, "voice id (repeatable)");
  shareCmd->add_option("--title", share->title, "the share's title")->required();
  shareCmd->callback([share, &common] { hubShare(*share, common); });
  auto unshareId = std::make_shared<std::string>();
  CLI::App* unshareCmd =
      hub->add_subcommand("unshare", "Have the running service take down a share it made.");
  unshareCmd->add_option("id", *unshareId, "the share's id")->required();
  unshareCmd->callback([unshareId, &common] { hubUnshare(*unshareId, common); });
}

}  // namespace kelvo::cli
