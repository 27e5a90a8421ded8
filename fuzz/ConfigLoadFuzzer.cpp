// Any bytes as config.json: loading must end in a complete, clamped settings
// object, and what it writes must settle: after one round trip through the
// file, saving and loading again changes nothing.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "KELVOCore/Config.h"
#include "fuzz/FuzzSupport.h"

namespace {

using kelvo::AppConfig;

bool clamped(const AppConfig& c) {
  return c.port() >= 1 && c.port() <= 65535 && c.queueLimit() >= 1 && c.queueLimit() <= 4096 &&
         c.maxTextLength() >= 1 && c.maxTextLength() <= 100000 && c.requestTimeoutMs() >= 1000 &&
         c.requestTimeoutMs() <= AppConfig::maxRequestTimeoutMs && c.rateLimitPerMinute() >= 0 &&
         c.outputSampleRate() >= 0 && c.cacheBudgetMB() >= 0 && c.cacheBudgetMB() <= 8192 &&
         c.engine().timeoutMs >= c.requestTimeoutMs() + AppConfig::engineTimeoutMarginMs;
}

// Loads the file, saves it back and returns what was written.
std::string roundTrip(const std::string& path) {
  AppConfig config(path);
  config.load();
  if (!clamped(config)) std::abort();
  config.save();
  return kelvo::fuzz::readText(path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string path = kelvo::fuzz::scratchFolder() + "config.json";
  kelvo::fuzz::writeInput(path, data, size);
  roundTrip(path);
  const std::string settled = roundTrip(path);
  if (roundTrip(path) != settled) std::abort();
  return 0;
}
