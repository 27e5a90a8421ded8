// The live scenarios. `smoke` drives the real local engine end to end: data
// directories, configuration, orphan sweep, start, readiness, one Chinese and
// one English line, stop. `hub` and `update` talk to the sharing hub and the
// release feed; they need an address (KELVO_HUB_URL, KELVO_RELEASES_URL) and
// say so when there is none.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "KELVOCore/ChildProcess.h"
#include "KELVOCore/ClonePack.h"
#include "KELVOCore/Config.h"
#include "KELVOCore/DataRootLock.h"
#include "KELVOCore/EngineS2Local.h"
#include "KELVOCore/Hub.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Paths.h"
#include "KELVOCore/Update.h"
#include "KELVOCore/Version.h"
#include "KELVOCore/Voices.h"
#include "KELVOSelfTest/Check.h"

namespace kelvo::selftest {

namespace {

bool pathExists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

// Speech of a plausible length for its text: at least 30 ms a character
// (fast English), at most a second a character plus some breath.
bool plausibleLength(const PcmBuffer& pcm, std::size_t characters) {
  const auto ms = static_cast<std::size_t>(pcm.durationMs());
  return ms >= 30 * characters && ms <= 1000 * characters + 3000;
}

std::size_t characterCount(std::string_view utf8) {
  return static_cast<std::size_t>(std::count_if(utf8.begin(), utf8.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

// One line in `language`, spoken with the first library voice of that
// language when there is one (else the model picks a voice).
void speakLine(S2LocalEngine& engine, const VoiceLibrary& voices, const EngineOptions& options,
               const std::string& language, const std::string& label, const std::string& text, bool& allPassed) {
  S2Params params = options.samplingParams();
  params.text = text;
  VoiceHint hint;
  hint.language = language;
  hint.display = "smoke";
  const auto candidates = voices.forLanguage(language);
  if (!candidates.empty()) {
    const VoiceInfo& voice = candidates.front();
    hint = VoiceHint(voice);
    params.seed = voice.seed;
    if (voice.kind == VoiceKind::profile) {
      params.voiceProfile = voice.profileFile;
    } else {
      params.referenceAudio = voices.referenceAudio(voice).value_or(Bytes{});
      params.referenceText = VoiceLibrary::referenceText(voice);
    }
  }
  try {
    const PcmBuffer pcm = engine.synthesize(params, hint);
    float peak = 0;
    for (const float s : pcm.data) peak = std::max(peak, std::fabs(s));
    const bool ok = pcm.sampleRate > 0 && plausibleLength(pcm, characterCount(text)) && peak > 0.001f;
    check(label, ok,
          formatText("%lld ms, %lld Hz, %s", static_cast<long long>(pcm.durationMs()),
                     static_cast<long long>(pcm.sampleRate), hint.display),
          allPassed);
  } catch (const TtsError& e) {
    check(label, false, e.message, allPassed);
  }
}

}  // namespace

bool runSmoke() {
  bool allPassed = true;
  KELVOPaths::ensureDirectories();
  const std::string root = KELVOPaths::dataRoot();
  // The engine started here writes the root's engine log and pid file: never
  // behind a running service's back.
  DataRootOwner owner;
  std::error_code lockError;
  const auto ownership = DataRootLock::acquire(KELVOPaths::lockFile(), owner, lockError);
  if (!ownership) {
    check("数据目录", false,
          lockError ? lockError.message() : TF("数据目录 %s 正被另一个 KELVO 进程(pid %d)使用", root, static_cast<int>(owner.pid)),
          allPassed);
    return allPassed;
  }
  check("数据目录", pathExists(KELVOPaths::dataDir()) && pathExists(KELVOPaths::logsDir()), root, allPassed);

  AppConfig config;
  config.load();
  check("读取配置", pathExists(config.path()), config.path(), allPassed);
  const EngineOptions options = config.engine();

  const std::int64_t swept = S2LocalEngine::sweepOrphans(root);
  check("清理残留进程", true, formatText("%lld", static_cast<long long>(swept)), allPassed);

  S2LocalEngine engine(options, root);
  engine.start();
  if (engine.currentState() == S2EngineState::missing) {
    check("启动引擎", false, engine.detail(), allPassed);
    return allPassed;
  }
  check("启动引擎", engine.currentState() == S2EngineState::loading, engine.enginePath(), allPassed);

  // The engine bounds the wait itself: it fails the load after its limit.
  while (engine.currentState() == S2EngineState::loading) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const bool ready = engine.ready();
  check("引擎就绪", ready, engine.detail(), allPassed);
  if (ready) {
    VoiceLibrary voices;
    voices.load();
    speakLine(engine, voices, options, "zh", "合成中文", "各位旅客请注意,本次航班即将起飞。", allPassed);
    speakLine(engine, voices, options, "en", "合成英文", "Ladies and gentlemen, welcome aboard.", allPassed);
  }

  const auto pid = engine.childPid();
  engine.stop();
  const bool childGone = !engine.childPid() && (!pid || !readProcess(*pid));
  check("停止引擎", childGone && !pathExists(engine.pidPath()), engine.detail(), allPassed);
  return allPassed;
}

namespace {
// A data root of its own under the temp folder, removed afterwards: a pack
// from the hub never lands in the user's library.
class ScratchRoot {
 public:
  ScratchRoot() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kelvo-hub-XXXXXX").string();
    if (::mkdtemp(pattern.data()) != nullptr) path_ = pattern + "/";
  }
  ~ScratchRoot() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  ScratchRoot(const ScratchRoot&) = delete;
  ScratchRoot& operator=(const ScratchRoot&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Imports `pack` into a scratch root; the check's detail is the summary or the reason.
void importIntoScratch(const Bytes& pack, bool& allPassed) {
  const ScratchRoot root;
  if (root.path().empty()) {
    check("导入到临时目录", false, T("无法创建临时目录"), allPassed);
    return;
  }
  try {
    AppConfig config(root.path() + "data/config.json");
    VoiceLibrary library(root.path() + "data/voices.json", root.path() + "clone/");
    const PackSummary summary = importPack(pack, library, config);
    check("导入到临时目录", summary.voicesAdded > 0, summary.describe(), allPassed);
  } catch (const TtsError& e) {
    check("导入到临时目录", false, e.message, allPassed);
  }
}
}  // namespace

bool runHub() {
  KELVOPaths::ensureDirectories();
  bool allPassed = true;
  const HubClient hub;
  if (!hub.configured()) {
    check("共享中心", false, T("这个版本没有配置共享中心 — 设置 KELVO_HUB_URL 指向共享中心的地址"), allPassed);
    return allPassed;
  }
  std::vector<HubListing> shares;
  try {
    shares = hub.list();
    check("列出共享中心", true, TF("%s 上有 %d 个共享", hub.baseUrl(), static_cast<int>(shares.size())), allPassed);
  } catch (const TtsError& e) {
    check("列出共享中心", false, e.message, allPassed);
    return allPassed;
  }
  if (shares.empty()) {
    check("下载第一个包", false, T("共享中心上还没有任何共享,没有可以下载的包"), allPassed);
    return allPassed;
  }
  Bytes pack;
  try {
    pack = hub.download(shares.front());
    check("下载第一个包", true, TF("%s · %.1f kB", shares.front().title, static_cast<double>(pack.size()) / 1024.0),
          allPassed);
  } catch (const TtsError& e) {
    check("下载第一个包", false, e.message, allPassed);
    return allPassed;
  }
  importIntoScratch(pack, allPassed);
  return allPassed;
}

bool runUpdate() {
  KELVOPaths::ensureDirectories();
  bool allPassed = true;
  const UpdateCheck result = checkForUpdate();
  if (result.state == UpdateState::notConfigured) {
    check("发布源", false, result.message + " — " + T("设置 KELVO_RELEASES_URL 指向项目的发布页"), allPassed);
  } else {
    const bool answered = result.state != UpdateState::failed;
    check("发布源有回应", answered, answered ? result.feedUrl + (result.fromAtom ? " (Atom)" : "") : result.message,
          allPassed);
    if (answered) check("找到最新版本", result.latest.has_value(), result.message, allPassed);
  }
  const std::string installed =
      "手上这份: " + std::string(KELVO::version) + "  (" + std::string(KELVO::buildTime) + ")\n";
  std::fputs(installed.c_str(), stdout);
  return allPassed;
}

}  // namespace kelvo::selftest
