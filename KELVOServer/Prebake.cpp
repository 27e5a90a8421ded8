// `kelvo prebake FILE`: hands a set of announcements to the service's pre-bake
// worker, then shows its progress until every line is in the cache or failed,
// naming each failed line; Ctrl-C cancels the lines still waiting.
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "KELVOCore/Files.h"
#include "KELVOCore/I18n.h"
#include "KELVOServer/Client.h"
#include "KELVOServer/Commands.h"
#include "KELVOServer/Progress.h"

namespace kelvo::cli {

namespace {

using Clock = std::chrono::steady_clock;

struct PrebakeOptions {
  std::string file;
  std::string language;
  std::string gender;
  std::string airline;
  bool detach = false;
};

volatile sig_atomic_t interrupted = 0;

// While watching, Ctrl-C and SIGTERM only raise a flag: the watch loop then
// cancels the waiting lines on the service before the command ends.
class InterruptWatch {
 public:
  InterruptWatch() {
    struct sigaction action {};
    action.sa_handler = [](int) { interrupted = 1; };
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &previousInt_);
    sigaction(SIGTERM, &action, &previousTerm_);
  }
  ~InterruptWatch() {
    sigaction(SIGINT, &previousInt_, nullptr);
    sigaction(SIGTERM, &previousTerm_, nullptr);
  }
  InterruptWatch(const InterruptWatch&) = delete;
  InterruptWatch& operator=(const InterruptWatch&) = delete;

 private:
  struct sigaction previousInt_ {};
  struct sigaction previousTerm_ {};
};

// Sleeps up to `total`, waking early once interrupted.
void sleepUnlessInterrupted(std::chrono::milliseconds total) {
  for (auto slept = std::chrono::milliseconds(0); slept < total && !interrupted; slept += std::chrono::milliseconds(50)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

// The file is either a /v1/prewarm body or plain text, one line per announcement.
Json prewarmBody(const PrebakeOptions& o) {
  const std::optional<Bytes> bytes = readFile(o.file);
  if (!bytes) throw CommandError{exitRefused, TF("读不到 %s", o.file)};
  Json body = parseJsonObject(std::span<const std::uint8_t>(*bytes)).value_or(Json());
  if (body.is_null()) {
    Json items = Json::array();
    const std::string text(bytes->begin(), bytes->end());
    std::size_t from = 0;
    while (from <= text.size()) {
      std::size_t end = text.find('\n', from);
      if (end == std::string::npos) end = text.size();
      const std::string line = trimmed(text.substr(from, end - from));
      if (!line.empty()) items.push_back(Json{{"text", line}});
      from = end + 1;
    }
    body = Json{{"items", std::move(items)}};
  }
  // Command-line choices fill in what the file leaves open.
  for (const auto& [key, value] : {std::pair{"language", o.language}, {"gender", o.gender}, {"airline", o.airline}}) {
    if (!value.empty() && !body.contains(key)) body[key] = value;
  }
  return body;
}

// What follows the bar: done / total, lines per minute, time left.
std::string prebakeDetail(std::int64_t done, std::int64_t total, double elapsedSeconds) {
  const double perMinute = elapsedSeconds > 0.5 ? static_cast<double>(done) * 60.0 / elapsedSeconds : 0.0;
  const std::string left = perMinute > 0 ? clockText(static_cast<double>(total - done) * 60.0 / perMinute) : "?";
  return TF("%lld / %lld · 每分钟 %.1f 条 · 还剩 %s", static_cast<long long>(done), static_cast<long long>(total),
            perMinute, left);
}

void prebake(const PrebakeOptions& o, const CommonOptions& common) {
  ServiceClient client(common.url);
  const Json answer = client.callJson("POST", "/v1/prewarm", prewarmBody(o));
  const std::int64_t total = jInt(answer, "queued", 0);
  if (common.json) std::printf("%s\n", jsonString(answer, false).c_str());
  else std::printf("%s\n", TF("已排队 %lld 条,%lld 条已在缓存,跳过 %lld 条空行", static_cast<long long>(total),
                              static_cast<long long>(jInt(answer, "cached", 0)),
                              static_cast<long long>(jInt(answer, "skipped_empty", 0)))
                              .c_str());
  if (total == 0) return;
  if (o.detach) {
    std::printf("%s\n", T("在后台继续;`kelvo status` 显示进度,DELETE /v1/prewarm 可以取消").c_str());
    return;
  }

  // Failures are numbered by the service since its start; ours come after this.
  const std::int64_t failedBefore = jInt(answer, "failed", 0);
  std::int64_t lastShown = failedBefore;
  InterruptWatch watch;
  ProgressReporter progress(common.json);
  const auto started = Clock::now();
  Json stats;
  for (;;) {
    stats = client.callJson("GET", "/v1/stats");
    for (const Json& f : jArr(stats, "prewarm_failures").value_or(Json::array())) {
      if (jInt(f, "number", 0) <= lastShown) continue;
      lastShown = jInt(f, "number", 0);
      progress.note(common.json ? jsonString(f, false) : TF("✗ %s:%s", jStr(f, "text"), jStr(f, "reason")));
    }
    const std::int64_t pending = jInt(stats, "prewarm_pending", 0);
    const std::int64_t done = std::clamp<std::int64_t>(total - pending, 0, total);
    const double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
    progress.update(done, total, prebakeDetail(done, total, elapsed));
    if (pending <= 0) break;
    if (interrupted) {
      const std::int64_t dropped = jInt(client.callJson("DELETE", "/v1/prewarm"), "dropped", 0);
      progress.finish();
      throw CommandError{exitRefused, TF("已取消预烘焙:丢弃了 %lld 条还在等待的", static_cast<long long>(dropped))};
    }
    sleepUnlessInterrupted(std::chrono::milliseconds(500));
  }
  progress.finish();
  const std::int64_t failed = jInt(stats, "prewarm_failed", 0) - failedBefore;
  if (failed <= 0) return;
  if (jInt(stats, "prewarm_failed", 0) > lastShown) {
    std::printf("%s\n", TF("还有 %lld 条失败没有列出 — 看 `kelvo log`",
                           static_cast<long long>(jInt(stats, "prewarm_failed", 0) - lastShown))
                           .c_str());
  }
  throw CommandError{exitRefused, TF("%lld 条没能预烘焙(共 %lld 条)", static_cast<long long>(failed),
                                     static_cast<long long>(total))};
}

}  // namespace

void addPrebakeCommand(CLI::App& app, const CommonOptions& common) {
  auto o = std::make_shared<PrebakeOptions>();
  CLI::App* cmd = app.add_subcommand(
      "prebake", "Pre-bake announcements into the cache: FILE is a /v1/prewarm JSON body or one line per announcement.");
  cmd->add_option("file", o->file, "the announcements")->required()->check(CLI::ExistingFile);
  cmd->add_option("--language", o->language, "language of lines that do not say (default: auto)");
  cmd->add_option("--gender", o->gender, "female, male or default");
  cmd->add_option("--airline", o->airline, "ICAO code whose bound voice speaks");
  cmd->add_flag("--detach", o->detach, "queue the lines and return; Ctrl-C no longer cancels them");
  cmd->footer("Exit status 1 when any line failed (each is printed with its reason) or Ctrl-C cancelled the rest.");
  cmd->callback([o, &common] { prebake(*o, common); });
}

}  // namespace kelvo::cli
