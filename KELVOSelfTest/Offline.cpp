// The offline scenario: the pure building blocks of the service, exercised
// without a model, a network or a data directory.
#include "KELVOCore/Types.h"
#include "KELVOSelfTest/Check.h"

namespace kelvo::selftest {

namespace {

void checkLanguageNormalisation(bool& allPassed) {
  const std::pair<const char*, const char*> cases[] = {{"zh-CN", "zh"}, {"JP", "ja"}, {"自动", ""}, {"auto", ""}};
  bool ok = true;
  for (const auto& [input, expected] : cases) {
    if (normLang(input) != expected) {
      ok = false;
      break;
    }
  }
  check("语言归一", ok, "", allPassed);
}

}  // namespace

bool runOffline() {
  bool allPassed = true;
  checkLanguageNormalisation(allPassed);
  return allPassed;
}

}  // namespace kelvo::selftest
