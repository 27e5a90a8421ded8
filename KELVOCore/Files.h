// Whole-file reads and atomic whole-file writes. Every file KELVO keeps is
// replaced in one step (temporary file in the same folder, fsync, rename), so a
// crash or power cut leaves either the old or the new content, never a torn one.
//
// Thread-safe as far as the file system is: two writers of the same path race,
// but each reader sees one complete version.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <system_error>
#include <vector>

namespace kelvo {

// The whole file, or absent when it cannot be opened or read.
std::optional<std::vector<std::uint8_t>> readFile(const std::string& path);

// A file opened for reading. The handle keeps the content it was opened on:
// renaming another file over the path, or deleting the path, changes nothing
// for it. Move-only; closes on destruction. Cost: one open() and one fstat().
class OpenFile {
 public:
  OpenFile() = default;
  // Absent when `path` cannot be opened or is not a regular file.
  static std::optional<OpenFile> open(const std::string& path);
  OpenFile(OpenFile&& other) noexcept;
  OpenFile& operator=(OpenFile&& other) noexcept;
  ~OpenFile();
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  bool isOpen() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  // The size when it was opened.
  std::uint64_t size() const { return size_; }
  // The whole content by positioned reads; absent when it is not `size()` bytes any more.
  std::optional<std::vector<std::uint8_t>> readAll() const;

 private:
  int fd_ = -1;
  std::uint64_t size_ = 0;
};

struct DiskSpace {
  std::uint64_t available = 0;  // bytes an unprivileged writer may still use
  std::uint64_t total = 0;
};
// The file system holding `path`; absent when it cannot be asked.
std::optional<DiskSpace> diskSpace(const std::string& path);

// Creates missing parent directories, then replaces `path` atomically with
// `data`. Returns the error of the step that failed; nothing is left behind
// but a possibly empty parent directory.
std::error_code writeFileAtomic(const std::string& path, std::span<const std::uint8_t> data);

}  // namespace kelvo
