// kelvo-selftest [offline|smoke|hub|update]: drives the service core through one
// scenario and exits 0 when every check passed, 1 when one failed, 2 for a mode
// it does not know.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "KELVOCore/Log.h"
#include "KELVOSelfTest/Check.h"

int main(int argc, char** argv) {
  // Unbuffered, so check lines and log lines of other threads interleave in
  // the order they happen.
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  kelvo::AppLog::setEchoToStderr(std::getenv("KELVO_VERBOSE") != nullptr);

  const std::string mode = argc >= 2 ? argv[1] : "offline";
  using Scenario = bool (*)();
  const std::pair<const char*, Scenario> scenarios[] = {
      {"offline", kelvo::selftest::runOffline},
      {"smoke", kelvo::selftest::runSmoke},
      {"hub", kelvo::selftest::runHub},
      {"update", kelvo::selftest::runUpdate},
  };
  for (const auto& [name, run] : scenarios) {
    if (mode == name) std::exit(run() ? 0 : 1);
  }
  std::puts("用法: kelvo-selftest [offline|smoke|hub|update]");
  std::exit(2);
}
