// DataRootLock: one owner per data root. `kelvo serve` holds it for its whole
// life, and a command that writes the data root without a service holds it for
// its run, so two processes never save the same configuration or voice library
// over each other. It is an exclusive flock on the lock file ("data/kelvo.lock"):
// the kernel drops it when the owner ends, even by kill -9, so a crash never
// leaves a root locked. The file also records the owner's pid and, once the
// service listens, its base URL: that is how `kelvo` finds the service of a
// data root.
//
// Thread-safe: publish() may be called from any thread; the lock is a plain
// resource owned by one object. Cost: an open, a flock and a small write.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <system_error>

namespace kelvo {

// What the lock file says about its owner.
struct DataRootOwner {
  pid_t pid = 0;    // 0 when the owner has not written it yet
  std::string url;  // the service's base URL; empty for a command, or before it listens
};

class DataRootLock {
 public:
  // Takes the lock on `lockFile` (its folder is created) without waiting and
  // records this process's pid in it. Null when another process holds it, with
  // `owner` naming that process, or when the file cannot be opened or locked,
  // with `error` set.
  static std::unique_ptr<DataRootLock> acquire(const std::string& lockFile, DataRootOwner& owner,
                                               std::error_code& error);
  // Empties the file, then lets the lock go.
  ~DataRootLock();
  DataRootLock(const DataRootLock&) = delete;
  DataRootLock& operator=(const DataRootLock&) = delete;

  // Records `url` beside the pid, replacing any earlier one. Nothing is
  // recorded in a lock file this process may only read.
  void publish(const std::string& url);

 private:
  explicit DataRootLock(int fd) : fd_(fd) {}
  void write(const DataRootOwner& owner);

  const int fd_;
};

// The owner recorded in `lockFile` while that process is alive; absent when
// the file is missing, empty or unreadable, or names a process that has ended
// (its lock went with it).
std::optional<DataRootOwner> dataRootOwner(const std::string& lockFile);

}  // namespace kelvo
