// Whole-file reads and atomic whole-file writes. Every file KELVO keeps is
// replaced in one step (temporary file in the same folder, fsync, rename), so a
// crash or power cut leaves either the old or the new content, never a torn one.
// For data too large to hold in memory: a temporary file that deletes itself,
// and a file read piece by piece at any offset.
//
// Thread-safe as far as the file system is: two writers of the same path race,
// but each reader sees one complete version. A TempFile or OpenFile
// object belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <system_error>
#include <utility>
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
  // Whether the file still has a name and still has that size: one fstat(),
  // so a handle kept open can be trusted again without opening the path.
  bool unchanged() const;
  // The whole content by positioned reads; absent when it is not `size()` bytes any more.
  std::optional<std::vector<std::uint8_t>> readAll() const;
  // Fills `out` from `offset`, so a large archive is read one entry at a time
  // instead of whole; false when the file ends first or cannot be read.
  bool readAt(std::uint64_t offset, std::span<std::uint8_t> out) const;

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
// `data`, readable as `mode` says (less the umask). Returns the error of the
// step that failed; nothing is left behind but a possibly empty parent directory.
std::error_code writeFileAtomic(const std::string& path, std::span<const std::uint8_t> data, unsigned mode = 0644);

// A new file named `base` + ".tmp-PID-N" (the form every temporary file here
// takes, so a sweep after a crash knows its writer), filled by appending and
// deleted when the object dies. Move-only.
class TempFile {
 public:
  // Creates it (0600) with missing parent directories; absent on failure.
  static std::optional<TempFile> create(const std::string& base);
  TempFile(TempFile&& other) noexcept;
  TempFile& operator=(TempFile&&) = delete;
  TempFile(const TempFile&) = delete;
  ~TempFile();  // closes and deletes the file

  // Writes all of `data` at the end; the error of the write that failed.
  std::error_code append(std::span<const std::uint8_t> data);
  const std::string& path() const { return path_; }
  std::uint64_t size() const { return size_; }

 private:
  TempFile(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
  int fd_ = -1;
  std::string path_;
  std::uint64_t size_ = 0;
};

// Calls `visit` with the name of every regular file directly inside `dir`
// whose name passes `wanted`, in the order the file system lists them. Links
// and folders are left out, so no name leads outside `dir`. readdir rather
// than std::filesystem: at 100,000 files a path object per name is a visible
// part of the start.
void forEachFile(const std::string& dir, bool (*wanted)(std::string_view),
                 const std::function<void(std::string_view)>& visit);

// Removes from `dir` (not its sub-folders) the temporary files of
// writeFileAtomic() whose writer died before its rename: those named for a
// pid that is not alive, or for this process itself but last written more
// than a second before `startedAt`, this process's start (an earlier life of
// the same pid, as in a container; one that died within that second is left
// for the next start). So it may run while this process writes in `dir`.
// Returns the names removed.
std::vector<std::string> removeOrphanedTempFiles(const std::string& dir, std::filesystem::file_time_type startedAt);

}  // namespace kelvo
