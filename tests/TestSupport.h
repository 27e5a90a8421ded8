// Helpers shared by the unit tests.
#pragma once

#include <string>

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

}  // namespace kelvo::test
