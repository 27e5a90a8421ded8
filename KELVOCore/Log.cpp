#include "KELVOCore/Log.h"

#include <pthread.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <random>
#include <thread>

#include "KELVOCore/Files.h"

namespace kelvo {

namespace {

// Runs queued calls one after another on a single thread, the stand-in for a
// UI's main queue. Created on first use and deliberately never destroyed:
// emissions from other static destructors at exit must still find it.
class ObserverQueue {
 public:
  ObserverQueue() : thread_([this] { run(); }) { thread_.detach(); }

  void post(std::function<void()> job) {
    {
      std::lock_guard lock(mutex_);
      jobs_.push_back(std::move(job));
    }
    wake_.notify_all();
  }

  void drain() {
    std::unique_lock lock(mutex_);
    const std::uint64_t target = posted_ + jobs_.size();
    idle_.wait(lock, [&] { return finished_ >= target; });
  }

 private:
  void run() {
    pthread_setname_np(pthread_self(), "KELVO observer");
    std::unique_lock lock(mutex_);
    for (;;) {
      wake_.wait(lock, [&] { return !jobs_.empty(); });
      auto job = std::move(jobs_.front());
      jobs_.pop_front();
      ++posted_;
      lock.unlock();
      job();
      lock.lock();
      ++finished_;
      idle_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<std::function<void()>> jobs_;
  std::uint64_t posted_ = 0;    // jobs taken off the queue
  std::uint64_t finished_ = 0;  // jobs that have run to their end
  std::thread thread_;
};

ObserverQueue& observer() {
  static auto* queue = new ObserverQueue();
  return *queue;
}

struct LogState {
  std::mutex lock;
  std::deque<LogEntry> lines;
  std::deque<RequestLog> requests;
  std::int64_t maxLines = 2000;
  bool echoToStderr = false;
  AppLog::LineHandler lineHandler;
  AppLog::RequestHandler requestHandler;
};

LogState& state() {
  static auto* s = new LogState();
  return *s;
}

template <typename Ring>
void trim(Ring& ring, std::int64_t maxLines) {
  const auto bound = static_cast<std::size_t>(std::max<std::int64_t>(maxLines, 0));
  while (ring.size() > bound) ring.pop_front();  // one at a time in steady state; a range erase costs more
}

}  // namespace

std::string makeUuid() {
  thread_local std::mt19937_64 rng{std::random_device{}()};
  const std::uint64_t hi = (rng() & 0xFFFFFFFFFFFF0FFFull) | 0x0000000000004000ull;
  const std::uint64_t lo = (rng() & 0x3FFFFFFFFFFFFFFFull) | 0x8000000000000000ull;
  // By hand rather than snprintf: one id per HTTP request, and printf's
  // machinery showed in the profile of cached lines.
  static constexpr char hex[] = "0123456789ABCDEF";
  std::string text(36, '-');
  std::size_t at = 0;
  for (int nibble = 15; nibble >= 0; --nibble, ++at) {
    if (at == 8 || at == 13) ++at;
    text[at] = hex[(hi >> (nibble * 4)) & 0xF];
  }
  for (int nibble = 15; nibble >= 0; --nibble, ++at) {
    if (at == 18 || at == 23) ++at;
    text[at] = hex[(lo >> (nibble * 4)) & 0xF];
  }
  return text;
}

std::string_view name(LogLevel level) {
  switch (level) {
    case LogLevel::debug: return "DEBUG";
    case LogLevel::info: return "INFO";
    case LogLevel::warn: return "WARN";
    case LogLevel::error: return "ERROR";
  }
  return "INFO";
}

std::string LogEntry::formatted() const {
  const auto seconds = std::chrono::system_clock::to_time_t(time);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  char stamp[16];
  std::snprintf(stamp, sizeof stamp, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec,
                static_cast<int>(millis < 0 ? millis + 1000 : millis));
  return std::string(stamp) + " [" + std::string(kelvo::name(level)) + "] " + source + ": " + text;
}

void AppLog::emit(LogLevel level, std::string_view source, std::string_view text) {
  LogEntry entry{makeUuid(), std::chrono::system_clock::now(), level, std::string(source), std::string(text)};
  LogState& s = state();
  LineHandler handler;
  bool echo;
  {
    std::lock_guard lock(s.lock);
    s.lines.push_back(entry);
    trim(s.lines, s.maxLines);
    handler = s.lineHandler;
    echo = s.echoToStderr;
  }
  if (echo) {
    const std::string line = entry.formatted() + "\n";
    // One write call per line keeps lines from different threads whole.
    [[maybe_unused]] auto written = ::write(STDERR_FILENO, line.data(), line.size());
  }
  if (handler) observer().post([handler = std::move(handler), entry = std::move(entry)] { handler(entry); });
}

void AppLog::debug(std::string_view source, std::string_view text) { emit(LogLevel::debug, source, text); }
void AppLog::info(std::string_view source, std::string_view text) { emit(LogLevel::info, source, text); }
void AppLog::warn(std::string_view source, std::string_view text) { emit(LogLevel::warn, source, text); }
void AppLog::error(std::string_view source, std::string_view text) { emit(LogLevel::error, source, text); }

void AppLog::request(RequestLog record) {
  if (record.id.empty()) record.id = makeUuid();
  if (record.time == TimePoint{}) record.time = std::chrono::system_clock::now();
  LogState& s = state();
  RequestHandler handler;
  {
    std::lock_guard lock(s.lock);
    handler = s.requestHandler;
    if (handler) {
      s.requests.push_back(record);
    } else {
      s.requests.push_back(std::move(record));
    }
    trim(s.requests, s.maxLines);
  }
  if (handler) observer().post([handler = std::move(handler), record = std::move(record)] { handler(record); });
}

std::vector<LogEntry> AppLog::snapshot() {
  std::lock_guard lock(state().lock);
  return {state().lines.begin(), state().lines.end()};
}

std::vector<RequestLog> AppLog::requestSnapshot() {
  std::lock_guard lock(state().lock);
  return {state().requests.begin(), state().requests.end()};
}

void AppLog::clear() {
  std::lock_guard lock(state().lock);
  state().lines.clear();
  state().requests.clear();
}

void AppLog::setMaxLines(std::int64_t maxLines) {
  std::lock_guard lock(state().lock);
  state().maxLines = maxLines;
}

std::int64_t AppLog::maxLines() {
  std::lock_guard lock(state().lock);
  return state().maxLines;
}

void AppLog::setEchoToStderr(bool echo) {
  std::lock_guard lock(state().lock);
  state().echoToStderr = echo;
}

bool AppLog::echoToStderr() {
  std::lock_guard lock(state().lock);
  return state().echoToStderr;
}

void AppLog::setLineHandler(LineHandler handler) {
  std::lock_guard lock(state().lock);
  state().lineHandler = std::move(handler);
}

void AppLog::setRequestHandler(RequestHandler handler) {
  std::lock_guard lock(state().lock);
  state().requestHandler = std::move(handler);
}

void AppLog::post(std::function<void()> task) { observer().post(std::move(task)); }

void AppLog::drainHandlers() { observer().drain(); }

std::error_code AppLog::save(const std::string& path) {
  std::string text;
  for (const LogEntry& entry : snapshot()) {
    if (!text.empty()) text += "\n";
    text += entry.formatted();
  }
  text += "\n";
  return writeFileAtomic(path, std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

}  // namespace kelvo
