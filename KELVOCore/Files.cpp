#include "KELVOCore/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <filesystem>

#include "KELVOCore/ChildProcess.h"

namespace kelvo {

namespace {

constexpr std::string_view kTempMark = ".tmp-";

std::error_code lastError() { return {errno, std::generic_category()}; }

// The writer's pid of a "<name>.tmp-<pid>-<n>" file; absent for any other name.
std::optional<pid_t> tempWriter(std::string_view name) {
  const std::size_t mark = name.rfind(kTempMark);
  if (mark == std::string_view::npos || mark == 0) return std::nullopt;
  const char* p = name.data() + mark + kTempMark.size();
  const char* end = name.data() + name.size();
  pid_t pid = 0;
  unsigned n = 0;
  auto [afterPid, ec] = std::from_chars(p, end, pid);
  if (ec != std::errc() || afterPid == end || *afterPid != '-' || pid <= 0) return std::nullopt;
  auto [afterN, ec2] = std::from_chars(afterPid + 1, end, n);
  if (ec2 != std::errc() || afterN != end) return std::nullopt;
  return pid;
}

// Writes every byte, retrying short writes and EINTR.
bool writeAll(int fd, std::span<const std::uint8_t> data) {
  std::size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

std::optional<std::vector<std::uint8_t>> readFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  // Sized from the file's length, so a cached clip or a large index is read
  // straight into place instead of being regrown chunk by chunk; the one spare
  // byte lets the read that finds the end come at once. Files that are longer
  // than they said (or say 0, as /proc does) still grow.
  struct stat st {};
  const std::size_t expected =
      ::fstat(fd, &st) == 0 && st.st_size > 0 ? static_cast<std::size_t>(st.st_size) + 1 : std::size_t{65536};
  std::vector<std::uint8_t> out(expected);
  std::size_t used = 0;
  for (;;) {
    if (used == out.size()) out.resize(out.size() * 2);
    const ssize_t n = ::read(fd, out.data() + used, out.size() - used);
    if (n < 0) {
      if (errno == EINTR) continue;
      ::close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    used += static_cast<std::size_t>(n);
  }
  ::close(fd);
  out.resize(used);
  return out;
}

std::error_code writeFileAtomic(const std::string& path, std::span<const std::uint8_t> data) {
  namespace fs = std::filesystem;
  const fs::path target(path);
  std::error_code ec;
  if (target.has_parent_path()) {
    fs::create_directories(target.parent_path(), ec);
    if (ec) return ec;
  }
  // Unique per process and call, so concurrent writers never share a temp file.
  static std::atomic<unsigned> counter{0};
  const std::string temp = path + std::string(kTempMark) + std::to_string(::getpid()) + "-" + std::to_string(counter++);
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return lastError();
  if (!writeAll(fd, data) || ::fsync(fd) != 0) {
    ec = lastError();
    ::close(fd);
    ::unlink(temp.c_str());
    return ec;
  }
  if (::close(fd) != 0 || ::rename(temp.c_str(), path.c_str()) != 0) {
    ec = lastError();
    ::unlink(temp.c_str());
    return ec;
  }
  return {};
}

std::vector<std::string> removeOrphanedTempFiles(const std::string& dir) {
  namespace fs = std::filesystem;
  std::vector<std::string> removed;
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    const std::optional<pid_t> writer = tempWriter(name);
    if (!writer || (*writer != ::getpid() && processAlive(*writer))) continue;
    std::error_code ignored;
    if (it->is_regular_file(ignored) && fs::remove(it->path(), ignored)) removed.push_back(name);
  }
  return removed;
}

}  // namespace kelvo
