// KELVOPaths: where all state lives. One data root holds the configuration, the
// voice library, cached audio, models, the engine and logs; every other module
// asks here for its paths instead of building its own.
//
// The root is settled once per process, on first use, and never changes after
// (thread-safe). Directory paths always end in "/".
#pragma once

#include <optional>
#include <string>

namespace kelvo::KELVOPaths {

// KELVO_HOME when set and not blank; else the portable folder when it exists;
// else $XDG_DATA_HOME/KELVO/ or ~/.local/share/KELVO/.
std::string dataRoot();
// "KELVO-data" inside the folder that holds the executable: creating that folder
// makes an installation portable.
std::string portableCandidate();
// <resources>/engine/ when it holds an "s2" entry (resources are
// <prefix>/share/kelvo/ for an executable in <prefix>/bin or <prefix>/build);
// else KELVO_ENGINE_DIR as given, with a trailing "/"; else absent.
std::optional<std::string> bundledEngineDir();
// <resources>/engine/, whether or not it exists: where an installed engine lives.
std::string resourceEngineDir();

std::string dataDir();     // data/
std::string configFile();  // data/config.json
std::string voicesFile();  // data/voices.json
std::string lockFile();    // data/kelvo.lock: who owns this data root (DataRootLock)
std::string voicesDir();   // clone/
std::string cacheDir();    // temp/
std::string modelsDir();   // models/
std::string engineDir();   // engine/
std::string logsDir();     // logs/
std::string engineLog();   // logs/s2-engine.log

// Creates dataDir, voicesDir, cacheDir, modelsDir, engineDir and logsDir with
// their parents. Failures are ignored: whoever writes later reports its own.
void ensureDirectories();

// The choice behind dataRoot(), free of process state so it can be tested.
// `kelvoHome` and `xdgDataHome` are the raw variables (absent when unset).
std::string chooseDataRoot(const std::optional<std::string>& kelvoHome, const std::string& portable,
                           bool portableExists, const std::optional<std::string>& xdgDataHome,
                           const std::string& home);

// `dir` with a trailing "/" added when missing.
std::string withSlash(std::string dir);

// The folder that holds the running executable, with a trailing "/".
std::string executableDir();

}  // namespace kelvo::KELVOPaths
