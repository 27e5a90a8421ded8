#include "KELVOCore/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <utility>

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

// Unique per process and call, so concurrent writers never share a temp file.
std::string tempName(const std::string& base) {
  static std::atomic<unsigned> counter{0};
  return base + std::string(kTempMark) + std::to_string(::getpid()) + "-" + std::to_string(counter++);
}

std::error_code createParent(const std::string& path) {
  const std::filesystem::path target(path);
  std::error_code ec;
  if (target.has_parent_path()) std::filesystem::create_directories(target.parent_path(), ec);
  return ec;
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

std::optional<OpenFile> OpenFile::open(const std::string& path) {
  OpenFile f;
  f.fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st {};
  if (f.fd_ < 0 || ::fstat(f.fd_, &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  f.size_ = static_cast<std::uint64_t>(st.st_size);
  return f;
}

OpenFile::OpenFile(OpenFile&& other) noexcept : fd_(std::exchange(other.fd_, -1)), size_(other.size_) {}

OpenFile& OpenFile::operator=(OpenFile&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = std::exchange(other.fd_, -1);
    size_ = other.size_;
  }
  return *this;
}

OpenFile::~OpenFile() {
  if (fd_ >= 0) ::close(fd_);
}

bool OpenFile::unchanged() const {
  struct stat st {};
  return fd_ >= 0 && ::fstat(fd_, &st) == 0 && st.st_nlink > 0 && static_cast<std::uint64_t>(st.st_size) == size_;
}

std::optional<std::vector<std::uint8_t>> OpenFile::readAll() const {
  if (fd_ < 0) return std::nullopt;
  // One spare byte: a file that grew since it was opened is not the file we know either.
  std::vector<std::uint8_t> out(size_ + 1);
  std::size_t used = 0;
  for (;;) {
    const ssize_t n = ::pread(fd_, out.data() + used, out.size() - used, static_cast<off_t>(used));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::nullopt;
    if (n == 0 || used + static_cast<std::size_t>(n) == out.size()) {
      used += static_cast<std::size_t>(n);
      break;
    }
    used += static_cast<std::size_t>(n);
  }
  if (used != size_) return std::nullopt;
  out.resize(used);
  return out;
}

std::optional<DiskSpace> diskSpace(const std::string& path) {
  struct statvfs st {};
  if (::statvfs(path.c_str(), &st) != 0) return std::nullopt;
  return DiskSpace{static_cast<std::uint64_t>(st.f_bavail) * st.f_frsize,
                   static_cast<std::uint64_t>(st.f_blocks) * st.f_frsize};
}

std::error_code writeFileAtomic(const std::string& path, std::span<const std::uint8_t> data, unsigned mode) {
  std::error_code ec = createParent(path);
  if (ec) return ec;
  const std::string temp = tempName(path);
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, static_cast<mode_t>(mode));
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

// ---- TempFile -----------------------------------------------------------------------

std::optional<TempFile> TempFile::create(const std::string& base) {
  if (createParent(base)) return std::nullopt;
  std::string path = tempName(base);
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return std::nullopt;
  return TempFile(fd, std::move(path));
}

TempFile::TempFile(TempFile&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), path_(std::move(other.path_)), size_(other.size_) {}

TempFile::~TempFile() {
  if (fd_ < 0) return;
  ::close(fd_);
  ::unlink(path_.c_str());
}

std::error_code TempFile::append(std::span<const std::uint8_t> data) {
  if (!writeAll(fd_, data)) return lastError();
  size_ += data.size();
  return {};
}

bool OpenFile::readAt(std::uint64_t offset, std::span<std::uint8_t> out) const {
  std::size_t done = 0;
  while (done < out.size()) {
    const ssize_t n = ::pread(fd_, out.data() + done, out.size() - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

void forEachFile(const std::string& dir, bool (*wanted)(std::string_view),
                 const std::function<void(std::string_view)>& visit) {
  DIR* folder = ::opendir(dir.c_str());
  if (folder == nullptr) return;
  while (const dirent* e = ::readdir(folder)) {
    const std::string_view name = e->d_name;
    if (!wanted(name)) continue;
    bool regular = e->d_type == DT_REG;
    if (e->d_type == DT_UNKNOWN) {  // file systems that do not say; ask without following links
      struct stat st {};
      regular = ::fstatat(::dirfd(folder), e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode);
    }
    if (regular) visit(name);
  }
  ::closedir(folder);
}

std::vector<std::string> removeOrphanedTempFiles(const std::string& dir, std::filesystem::file_time_type startedAt) {
  namespace fs = std::filesystem;
  // File times come from a clock that may lag a tick behind: a file this
  // process wrote just after starting can look a little older than its start.
  const fs::file_time_type ownBefore = startedAt - std::chrono::seconds(1);
  std::vector<std::string> removed;
  const auto isTemp = [](std::string_view name) { return tempWriter(name).has_value(); };
  forEachFile(dir, isTemp, [&](std::string_view name) {
    const pid_t writer = *tempWriter(name);
    const fs::path path = fs::path(dir) / name;
    std::error_code ignored;
    if (writer == ::getpid()) {
      const fs::file_time_type written = fs::last_write_time(path, ignored);
      if (ignored || written >= ownBefore) return;
    } else if (processAlive(writer)) {
      return;
    }
    if (fs::remove(path, ignored)) removed.emplace_back(name);
  });
  return removed;
}

}  // namespace kelvo
