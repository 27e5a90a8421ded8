// AppLog: the process-wide, in-memory log. Two bounded rings (free-text lines
// from every subsystem, and one record per served HTTP synthesis request), an
// optional echo of each line to standard error, and observers told of every new
// record. Log texts are English; every level is kept, there is no filter.
//
// Thread-safe: any thread may emit. One lock guards the rings and is held only
// for the ring update; echoing and handlers run outside it. Handlers run on one
// observer thread, in emission order, after the emitting call has returned; an
// emission never waits for a handler. Memory is bounded by `maxLines` per ring.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "KELVOCore/Types.h"

namespace kelvo {

enum class LogLevel : int { debug = 0, info = 1, warn = 2, error = 3 };
std::string_view name(LogLevel level);  // "DEBUG", "INFO", "WARN", "ERROR"

struct LogEntry {
  std::string id;  // UUID
  TimePoint time;
  LogLevel level = LogLevel::info;
  std::string source;  // short subsystem tag: "cache", "queue", …
  std::string text;
  // "HH:mm:ss.SSS [LEVEL] source: text", local time.
  std::string formatted() const;
};

struct RequestLog {
  std::string id;
  TimePoint time;
  std::string peer;
  std::string route;
  std::string language;
  std::string voice;
  float speed = 1.0f;
  std::int64_t status = 0;
  std::int64_t elapsedMs = 0;
  std::int64_t audioMs = 0;
  bool cacheHit = false;
  std::string note;
};

class AppLog {
 public:
  using LineHandler = std::function<void(const LogEntry&)>;
  using RequestHandler = std::function<void(const RequestLog&)>;

  static void debug(std::string_view source, std::string_view text);
  static void info(std::string_view source, std::string_view text);
  static void warn(std::string_view source, std::string_view text);
  static void error(std::string_view source, std::string_view text);
  // Stores a served request; `id` and `time` are filled in when empty. Never echoed.
  static void request(RequestLog record);

  static std::vector<LogEntry> snapshot();  // oldest first
  static std::vector<RequestLog> requestSnapshot();
  static void clear();

  // Bound of each ring (default 2000); a lower bound trims at the next emission.
  static void setMaxLines(std::int64_t maxLines);
  static std::int64_t maxLines();
  static void setEchoToStderr(bool echo);
  static bool echoToStderr();

  // Installs, replaces or (with an empty function) removes the observer.
  static void setLineHandler(LineHandler handler);
  static void setRequestHandler(RequestHandler handler);
  // Runs `task` on the observer thread, in order with the handler calls
  // scheduled around it; returns without waiting. For other objects whose
  // owners expect to be told on that thread (the player's finish report).
  // REQUIRES: `task` is not empty.
  static void post(std::function<void()> task);
  // Blocks until every handler call and task scheduled so far has run. For
  // tests and orderly shutdown; never call it from inside a handler or task.
  static void drainHandlers();

  // Writes the formatted lines, one per line with a final newline, atomically.
  static std::error_code save(const std::string& path);

 private:
  static void emit(LogLevel level, std::string_view source, std::string_view text);
};

// A random version-4 UUID in its usual upper-case text form.
std::string makeUuid();

}  // namespace kelvo
