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

// Creates missing parent directories, then replaces `path` atomically with
// `data`. Returns the error of the step that failed; nothing is left behind
// but a possibly empty parent directory.
std::error_code writeFileAtomic(const std::string& path, std::span<const std::uint8_t> data);

// Removes from `dir` (not its sub-folders) the temporary files of
// writeFileAtomic() whose writer died before its rename: those named for a
// pid that is not alive, or for this process itself (an earlier life of the
// same pid, as in a container). Returns the names removed.
// REQUIRES: this process has not started writing in `dir`.
std::vector<std::string> removeOrphanedTempFiles(const std::string& dir);

}  // namespace kelvo
