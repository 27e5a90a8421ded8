#include "KELVOCore/Paths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "KELVOCore/Types.h"

namespace kelvo::KELVOPaths {

namespace fs = std::filesystem;

std::string withSlash(std::string dir) {
  if (dir.empty() || dir.back() != '/') dir += '/';
  return dir;
}

namespace {

std::optional<std::string> env(const char* name) {
  const char* v = std::getenv(name);
  if (v == nullptr) return std::nullopt;
  return std::string(v);
}

std::string homeDir() {
  if (auto home = env("HOME"); home && !home->empty()) return *home;
  if (const passwd* pw = getpwuid(getuid()); pw != nullptr && pw->pw_dir != nullptr) return pw->pw_dir;
  return "/tmp";
}

bool exists(const std::string& path) {
  std::error_code ec;
  return fs::exists(fs::path(path), ec);
}

}  // namespace

std::string executableDir() {
  static const std::string dir = [] {
    std::error_code ec;
    const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    if (ec) return withSlash(fs::current_path(ec).string());
    return withSlash(exe.parent_path().string());
  }();
  return dir;
}

std::string portableCandidate() { return executableDir() + "KELVO-data"; }

std::string chooseDataRoot(const std::optional<std::string>& kelvoHome, const std::string& portable,
                           bool portableExists, const std::optional<std::string>& xdgDataHome,
                           const std::string& home) {
  if (kelvoHome) {
    const std::string root = trimmed(*kelvoHome);
    if (!root.empty()) return withSlash(root);
  }
  if (portableExists) return withSlash(portable);
  // XDG says a relative XDG_DATA_HOME is invalid and must be ignored.
  if (xdgDataHome && !xdgDataHome->empty() && xdgDataHome->front() == '/') return withSlash(*xdgDataHome) + "KELVO/";
  return withSlash(home) + ".local/share/KELVO/";
}

std::string dataRoot() {
  static const std::string root = [] {
    const std::string portable = portableCandidate();
    return chooseDataRoot(env("KELVO_HOME"), portable, exists(portable), env("XDG_DATA_HOME"), homeDir());
  }();
  return root;
}

std::string resourceEngineDir() {
  const fs::path resources = fs::path(executableDir()).parent_path().parent_path() / "share" / "kelvo";
  return withSlash((resources / "engine").string());
}

std::optional<std::string> bundledEngineDir() {
  const std::string engine = resourceEngineDir();
  if (exists(engine + "s2")) return engine;
  if (auto dir = env("KELVO_ENGINE_DIR")) return withSlash(*dir);
  return std::nullopt;
}

std::string dataDir() { return dataRoot() + "data/"; }
std::string configFile() { return dataDir() + "config.json"; }
std::string voicesFile() { return dataDir() + "voices.json"; }
std::string lockFile() { return dataDir() + "kelvo.lock"; }
std::string voicesDir() { return dataRoot() + "clone/"; }
std::string cacheDir() { return dataRoot() + "temp/"; }
std::string modelsDir() { return dataRoot() + "models/"; }
std::string engineDir() { return dataRoot() + "engine/"; }
std::string logsDir() { return dataRoot() + "logs/"; }
std::string engineLog() { return logsDir() + "s2-engine.log"; }

void ensureDirectories() {
  for (const std::string& dir : {dataDir(), voicesDir(), cacheDir(), modelsDir(), engineDir(), logsDir()}) {
    std::error_code ignored;
    fs::create_directories(dir, ignored);
  }
}

}  // namespace kelvo::KELVOPaths
