// Helpers shared by the unit tests.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "KELVOCore/Log.h"

namespace kelvo::test {

// A fresh directory under the system temp folder, removed with everything in it
// when the object goes away. `path()` ends in "/".
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Sets an environment variable for the lifetime of the object and restores the
// previous value (or its absence) afterwards. A null `value` unsets it.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  bool hadValue_ = false;
  std::string oldValue_;
};

// Writes `text` to `path`, creating parent folders; fails the test on error.
void writeTextFile(const std::string& path, std::string_view text);
// The whole file as text; "" when it cannot be read.
std::string readTextFile(const std::string& path);

// The text of the first line in AppLog's ring from `source` at `level` that
// starts with `prefix`; absent when there is none.
std::optional<std::string> loggedLine(std::string_view source, LogLevel level, std::string_view prefix);

}  // namespace kelvo::test
