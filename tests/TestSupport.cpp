#include "tests/TestSupport.h"

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <numbers>
#include <random>
#include <stdexcept>

#include "KELVOCore/Files.h"
#include "KELVOCore/Wav.h"

namespace kelvo::test {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kelvo-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern + "/";
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : name_(name) {
  if (const char* old = std::getenv(name)) {
    hadValue_ = true;
    oldValue_ = old;
  }
  if (value) {
    setenv(name, value, 1);
  } else {
    unsetenv(name);
  }
}

ScopedEnv::~ScopedEnv() {
  if (hadValue_) {
    setenv(name_.c_str(), oldValue_.c_str(), 1);
  } else {
    unsetenv(name_.c_str());
  }
}

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

void writeTextFile(const std::string& path, std::string_view text) {
  if (writeFileAtomic(path, bytesOf(text))) ADD_FAILURE() << "cannot write " << path;
}

std::string readTextFile(const std::string& path) {
  const auto bytes = readFile(path);
  return bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
}

Bytes fixture(std::string_view name) {
  const std::string path = std::string(KELVO_FIXTURES_DIR) + "/" + std::string(name);
  auto bytes = readFile(path);
  if (!bytes) ADD_FAILURE() << "cannot read " << path;
  return bytes ? std::move(*bytes) : Bytes{};
}

PcmBuffer sine(std::int64_t rate, double hz, std::size_t count, float amplitude) {
  PcmBuffer pcm{std::vector<float>(count), rate};
  for (std::size_t i = 0; i < count; ++i) {
    pcm.data[i] = amplitude * static_cast<float>(std::sin(2 * std::numbers::pi * hz * static_cast<double>(i) / rate));
  }
  return pcm;
}

Bytes noise(std::size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  Bytes b(n);
  for (auto& x : b) x = static_cast<std::uint8_t>(gen());
  return b;
}

Bytes levelWav(std::int64_t ms, float level, std::int64_t rate) {
  PcmBuffer pcm;
  pcm.sampleRate = rate;
  pcm.data.assign(static_cast<std::size_t>(rate * ms / 1000), level);
  return buildWav(pcm, 1);
}

std::optional<std::string> loggedLine(std::string_view source, LogLevel level, std::string_view prefix) {
  for (const auto& entry : AppLog::snapshot()) {
    if (entry.source == source && entry.level == level && entry.text.starts_with(prefix)) return entry.text;
  }
  return std::nullopt;
}

}  // namespace kelvo::test
