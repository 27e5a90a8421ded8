// Helpers shared by the unit tests.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "KELVOCore/I18n.h"
#include "KELVOCore/Log.h"
#include "KELVOCore/Types.h"

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

// Sets the interface language for the lifetime of the object, then goes back
// to `automatic`, the state every test starts from.
class ScopedUiLang {
 public:
  explicit ScopedUiLang(UiLang lang) { setUiLang(lang); }
  ~ScopedUiLang() { setUiLang(UiLang::automatic); }
  ScopedUiLang(const ScopedUiLang&) = delete;
  ScopedUiLang& operator=(const ScopedUiLang&) = delete;
};

// The bytes of a text.
Bytes bytesOf(std::string_view text);
// Writes `text` to `path`, creating parent folders; fails the test on error.
void writeTextFile(const std::string& path, std::string_view text);
// The whole file as text; "" when it cannot be read.
std::string readTextFile(const std::string& path);
// The bytes of tests/fixtures/`name`; fails the test when it cannot be read.
Bytes fixture(std::string_view name);
// `count` samples of a sine at `hz`, at `rate`.
PcmBuffer sine(std::int64_t rate, double hz, std::size_t count, float amplitude = 0.5f);
// `n` pseudo-random bytes, the same for the same `seed`: data deflate cannot shrink.
Bytes noise(std::size_t n, unsigned seed);
// A mono 16-bit WAV of `ms` milliseconds holding the constant `level`: clips
// told apart by content and recognised after a merge, quick to decode.
Bytes levelWav(std::int64_t ms, float level = 0.25f, std::int64_t rate = 16000);

// The text of the first line in AppLog's ring from `source` at `level` that
// starts with `prefix`; absent when there is none.
std::optional<std::string> loggedLine(std::string_view source, LogLevel level, std::string_view prefix);

// Polls `pred`, which another thread is about to make true, every 2 ms; false
// only when it stays false for 20 s, so a check fails instead of hanging.
template <typename Pred>
bool eventually(Pred pred) {
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > giveUp) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// Runs `f`, which must throw TtsError, and returns the error (fails the test
// and returns a `none` error when nothing is thrown).
template <typename F>
TtsError thrown(F&& f) {
  try {
    f();
  } catch (const TtsError& e) {
    return e;
  }
  ADD_FAILURE() << "no TtsError";
  return TtsError(TtsErrorCode::none, "");
}

}  // namespace kelvo::test
