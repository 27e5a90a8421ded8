#include "KELVOCore/DataRootLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <thread>

#include "KELVOCore/ChildProcess.h"
#include "KELVOCore/Files.h"
#include "KELVOCore/Json.h"

namespace kelvo {

namespace {

std::optional<DataRootOwner> readOwner(const std::string& lockFile) {
  const auto bytes = readFile(lockFile);
  const auto object = bytes ? parseJsonObject(*bytes) : std::nullopt;
  if (!object) return std::nullopt;
  DataRootOwner owner{static_cast<pid_t>(jInt(*object, "pid", 0)), jStr(*object, "url")};
  if (owner.pid <= 0) return std::nullopt;
  return owner;
}

}  // namespace

std::unique_ptr<DataRootLock> DataRootLock::acquire(const std::string& lockFile, DataRootOwner& owner,
                                                    std::error_code& error) {
  error.clear();
  std::filesystem::create_directories(std::filesystem::path(lockFile).parent_path(), error);
  if (error) return nullptr;
  // Close-on-exec: an engine child that inherited the descriptor would keep
  // the root locked after the service died.
  int fd = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  // A lock file another user made (a command run as root beside a service run
  // as its own user) still locks when opened to read; only the record is lost.
  if (fd < 0 && errno == EACCES) fd = ::open(lockFile.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    error = {errno, std::generic_category()};
    return nullptr;
  }
  while (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    const int failure = errno;
    ::close(fd);
    if (failure != EWOULDBLOCK) {
      error = {failure, std::generic_category()};
      return nullptr;
    }
    // The owner writes its pid right after locking; give it that moment.
    owner = {};
    for (int attempt = 0; attempt < 20; ++attempt) {
      if (auto recorded = readOwner(lockFile)) {
        owner = std::move(*recorded);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return nullptr;
  }
  std::unique_ptr<DataRootLock> lock(new DataRootLock(fd));
  lock->write({::getpid(), {}});
  return lock;
}

DataRootLock::~DataRootLock() {
  // Emptied, not removed: unlinking a lock file lets a late opener lock a
  // file nobody else will ever look at. Should emptying fail, the record
  // names a pid that is gone, which readers check.
  const int emptied = ::ftruncate(fd_, 0);
  static_cast<void>(emptied);
  ::close(fd_);
}

void DataRootLock::publish(const std::string& url) { write({::getpid(), url}); }

void DataRootLock::write(const DataRootOwner& owner) {
  const auto bytes = jsonData(Json{{"pid", owner.pid}, {"url", owner.url}}, false);
  // Truncate then write in one call: a reader that comes in between sees an
  // empty file and simply finds no owner yet.
  if (::ftruncate(fd_, 0) != 0) return;
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::pwrite(fd_, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<std::size_t>(n);
  }
}

std::optional<DataRootOwner> dataRootOwner(const std::string& lockFile) {
  auto owner = readOwner(lockFile);
  if (!owner || !processAlive(owner->pid)) return std::nullopt;
  return owner;
}

}  // namespace kelvo
