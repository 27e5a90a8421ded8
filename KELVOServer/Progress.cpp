#include "KELVOServer/Progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "KELVOCore/Types.h"

namespace kelvo::cli {

std::string clockText(double seconds) {
  const auto s = static_cast<long long>(seconds + 0.5);
  return s >= 3600 ? formatText("%lld:%02lld:%02lld", s / 3600, s / 60 % 60, s % 60)
                   : formatText("%lld:%02lld", s / 60, s % 60);
}

std::string sizeText(std::int64_t bytes) {
  const double b = static_cast<double>(bytes);
  if (b >= 1e9) return formatText("%.1f GB", b / 1e9);
  if (b >= 1e6) return formatText("%.1f MB", b / 1e6);
  return formatText("%.0f KB", b / 1e3);
}

ProgressReporter::ProgressReporter(bool quiet) : quiet_(quiet), terminal_(!quiet && isatty(STDOUT_FILENO) == 1) {}

ProgressReporter::~ProgressReporter() { finish(); }

void ProgressReporter::update(std::int64_t done, std::int64_t total, const std::string& detail) {
  if (quiet_) return;
  if (terminal_) {
    constexpr std::int64_t width = 30;
    std::string bar;
    if (total > 0) {
      const std::int64_t filled = std::clamp<std::int64_t>(done * width / total, 0, width);
      bar.assign(width + 3, '.');
      bar.front() = '[';
      bar.replace(1, static_cast<std::size_t>(filled), static_cast<std::size_t>(filled), '#');
      bar.replace(width + 1, 2, "] ");
    }
    std::printf("\r%s%s\033[K", bar.c_str(), detail.c_str());
    std::fflush(stdout);
    drawn_ = true;
  } else if (total > 0 && done * 10 / total > reportedTenth_) {
    reportedTenth_ = done * 10 / total;
    std::printf("%s\n", detail.c_str());
    std::fflush(stdout);
  }
}

void ProgressReporter::note(const std::string& line) {
  std::printf("%s%s\n", drawn_ ? "\r\033[K" : "", line.c_str());
  std::fflush(stdout);
  drawn_ = false;
}

void ProgressReporter::finish() {
  if (drawn_) std::printf("\n");
  drawn_ = false;
  reportedTenth_ = 0;
}

}  // namespace kelvo::cli
