// The live scenarios talk to the s2 engine, the sharing hub and the release
// feed. A scenario whose client this build lacks reports one failed check that
// says so instead of pretending to pass; the hub and update scenarios need an
// address (KELVO_HUB_URL, KELVO_RELEASES_URL) and say so when there is none.
#include <cstdio>
#include <string>

#include "KELVOCore/I18n.h"
#include "KELVOCore/Paths.h"
#include "KELVOCore/Update.h"
#include "KELVOCore/Version.h"
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

bool runHub() { return notAvailable("hub"); }

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
