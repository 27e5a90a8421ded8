#include "KELVOCore/Timestamp.h"

#include <ctime>

namespace kelvo {

std::string isoUtc(TimePoint t) {
  const std::time_t secs = std::chrono::system_clock::to_time_t(t);
  std::tm parts{};
  gmtime_r(&secs, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

}  // namespace kelvo
