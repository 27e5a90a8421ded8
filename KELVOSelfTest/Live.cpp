// The live scenarios talk to the s2 engine, the sharing hub and the release
// feed. A scenario whose client this build lacks reports one failed check that
// says so instead of pretending to pass; the hub and update scenarios need an
// address (KELVO_HUB_URL, KELVO_RELEASES_URL) and say so when there is none.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "KELVOCore/ClonePack.h"
#include "KELVOCore/Config.h"
#include "KELVOCore/Hub.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Paths.h"
#include "KELVOCore/Update.h"
#include "KELVOCore/Version.h"
#include "KELVOCore/Voices.h"
#include "KELVOSelfTest/Check.h"

namespace kelvo::selftest {

namespace {
bool notAvailable(std::string_view scenario) {
  bool allPassed = true;
  check(scenario, false, T("这个版本还没有这个场景"), allPassed);
  return allPassed;
}
}  // namespace

bool runSmoke() { return notAvailable("smoke"); }

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
