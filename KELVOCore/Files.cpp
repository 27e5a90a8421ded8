#include "KELVOCore/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <utility>

namespace kelvo {

namespace {

std::error_code lastError() { return {errno, std::generic_category()}; }

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
  const std::string temp = path + ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
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

}  // namespace kelvo
