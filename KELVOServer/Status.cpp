// `kelvo status`, `kelvo log` and `kelvo cache clear`: what the service is
// doing, what it said, and dropping its cached lines.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

#include "KELVOCore/I18n.h"
#include "KELVOServer/Client.h"
#include "KELVOServer/Commands.h"
#include "KELVOServer/Table.h"

namespace kelvo::cli {

namespace {

std::string megabytes(std::int64_t bytes) { return formatText("%.1f MB", static_cast<double>(bytes) / 1048576.0); }

// Pending pre-bake lines keep the engine busy between live requests: that is
// not idle, and failed ones are worth a look at `kelvo log`.
std::string queueState(const Json& stats) {
  const std::int64_t prebaking = jInt(stats, "prewarm_pending", 0);
  const std::string state = prebaking > 0               ? TF("预烘焙中 %lld", static_cast<long long>(prebaking))
                            : jBool(stats, "busy", false) ? T("正在合成")
                                                          : T("空闲");
  std::string text = TF("%lld 条等待,%s", static_cast<long long>(jInt(stats, "queue_depth", 0)), state);
  if (const std::int64_t failed = jInt(stats, "prewarm_failed", 0); failed > 0) {
    text += TF(";预烘焙失败 %lld(最近一次:%s)", static_cast<long long>(failed), jStr(stats, "prewarm_last_error"));
  }
  return text;
}

void status(const CommonOptions& common) {
  ServiceClient client(common.url);
  const Json health = client.callJson("GET", "/v1/health");
  const Json stats = client.callJson("GET", "/v1/stats");
  if (common.json) {
    std::printf("%s\n", jsonString(Json{{"health", health}, {"stats", stats}}, true).c_str());
    return;
  }
  const bool placeholder = jBool(health, "placeholder", false);
  const std::vector<Row> rows = {
      {T("引擎"), jStr(health, "engine") + (placeholder ? " (" + T("占位") + ")" : "") + " — " +
                      jStr(health, "engine_detail")},
      {T("缓存"), TF("%lld 条,%s,命中率 %.0f%%", static_cast<long long>(jInt(stats, "cache_count", 0)),
                    megabytes(jInt(stats, "cache_bytes", 0)), jFloat(stats, "cache_hit_rate", 0) * 100.0)},
      {T("队列"), queueState(stats)},
      {T("耗时"), formatText("p50 %lld ms · p95 %lld ms · RTF %.2f", static_cast<long long>(jInt(stats, "p50_ms", 0)),
                             static_cast<long long>(jInt(stats, "p95_ms", 0)), jFloat(stats, "rtf", 0))},
      {T("请求"), TF("共 %lld,失败 %lld", static_cast<long long>(jInt(stats, "total", 0)),
                    static_cast<long long>(jInt(stats, "failed", 0)))},
      {T("音色"), std::to_string(jInt(health, "voices", 0))},
  };
  std::printf("KELVO %s · %s · %s\n", jStr(health, "version").c_str(), client.url().c_str(),
              jStr(health, "status").c_str());
  std::fputs(formatTable({}, rows).c_str(), stdout);
}

struct LogOptions {
  std::int64_t lines = 50;
  bool follow = false;
};

// Prints the entries after the one with id `after` (all of them when it is
// not among them) and returns the id of the last one.
std::string printNew(const Json& lines, const std::string& after, bool json) {
  std::size_t from = 0;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (jStr(lines[i], "id") == after) from = i + 1;
  }
  for (std::size_t i = from; i < lines.size(); ++i) {
    std::printf("%s\n", json ? jsonString(lines[i], false).c_str() : jStr(lines[i], "line").c_str());
  }
  std::fflush(stdout);
  return lines.empty() ? after : jStr(lines.back(), "id");
}

void showLog(const LogOptions& o, const CommonOptions& common) {
  ServiceClient client(common.url);
  std::string last = printNew(
      jArr(client.callJson("GET", "/v1/log?lines=" + std::to_string(o.lines)), "lines").value_or(Json::array()), "",
      common.json);
  // Following polls: the service keeps its log in memory and has no stream.
  while (o.follow) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    last = printNew(jArr(client.callJson("GET", "/v1/log?lines=2000"), "lines").value_or(Json::array()), last,
                    common.json);
  }
}

// A person at a terminal is asked first: pre-baked lines can take hours to make again.
void clearCache(bool yes, const CommonOptions& common) {
  ServiceClient client(common.url);
  if (!yes && isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1) {
    const Json stats = client.callJson("GET", "/v1/stats");
    std::printf("%s ", TF("删除全部 %lld 条缓存(%s)?[y/N]", static_cast<long long>(jInt(stats, "cache_count", 0)),
                          megabytes(jInt(stats, "cache_bytes", 0)))
                          .c_str());
    std::fflush(stdout);
    std::string answer;
    for (int c = std::getchar(); c != EOF && c != '\n'; c = std::getchar()) answer.push_back(static_cast<char>(c));
    answer = toLower(trimmed(answer));
    if (answer != "y" && answer != "yes") throw CommandError{exitRefused, T("缓存没有动")};
  }
  client.callJson("DELETE", "/v1/cache");
  if (common.json) std::printf("{\"cleared\":true}\n");
  else std::printf("%s\n", T("缓存已清空").c_str());
}

}  // namespace

void addStatusCommands(CLI::App& app, const CommonOptions& common) {
  app.add_subcommand("status", "Show the service's health, engine, cache, queue and latency.")->callback([&common] {
    status(common);
  });

  auto o = std::make_shared<LogOptions>();
  CLI::App* log = app.add_subcommand("log", "Print the service's recent log lines.");
  log->add_option("-n,--lines", o->lines, "how many recent lines (default 50)")->check(CLI::Range(1, 2000));
  log->add_flag("-f,--follow", o->follow, "keep printing new lines until Ctrl-C");
  log->callback([o, &common] { showLog(*o, common); });

  CLI::App* cache = app.add_subcommand("cache", "Manage the cache of synthesised lines.");
  cache->require_subcommand(1);
  auto yes = std::make_shared<bool>(false);
  CLI::App* clear = cache->add_subcommand("clear", "Delete every cached line (asks first on a terminal).");
  clear->add_flag("-y,--yes", *yes, "do not ask");
  clear->callback([yes, &common] { clearCache(*yes, common); });
}

}  // namespace kelvo::cli
