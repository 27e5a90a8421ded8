// Progress shown while a command waits for long work (a pre-bake, a model
// download): on a terminal a bar redrawn in place on one line, otherwise (a log
// file, a pipe) one plain line each time another tenth is done, so logs stay
// short and readable.
//
// Not thread-safe: one reporter per command run, fed from one thread.
// Cost: one short printf per update.
#pragma once

#include <cstdint>
#include <string>

namespace kelvo::cli {

// "m:ss", or "h:mm:ss" from an hour on.
std::string clockText(double seconds);
// Bytes as "812 KB", "37.5 MB" or "4.8 GB".
std::string sizeText(std::int64_t bytes);

class ProgressReporter {
 public:
  // `quiet`: show nothing (e.g. when the command prints JSON).
  explicit ProgressReporter(bool quiet = false);
  ~ProgressReporter();  // finish()
  ProgressReporter(const ProgressReporter&) = delete;
  ProgressReporter& operator=(const ProgressReporter&) = delete;

  // `done` of `total` units, described by `detail` (shown after the bar).
  // A total of 0 or less shows only the detail on a terminal and no line otherwise.
  void update(std::int64_t done, std::int64_t total, const std::string& detail);
  // Prints one line of its own (also when quiet) above the bar, which the
  // next update draws again.
  void note(const std::string& line);
  // Ends the terminal's bar line; the next update starts a fresh one and counts tenths anew.
  void finish();

 private:
  bool quiet_;
  bool terminal_;
  bool drawn_ = false;
  std::int64_t reportedTenth_ = 0;
};

}  // namespace kelvo::cli
