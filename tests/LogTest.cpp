#include "KELVOCore/Log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <regex>
#include <thread>

#include "tests/TestSupport.h"

namespace kelvo {
namespace {

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    AppLog::setLineHandler({});
    AppLog::setRequestHandler({});
    AppLog::drainHandlers();
    AppLog::setMaxLines(2000);
    AppLog::clear();
  }
  void TearDown() override { SetUp(); }
};

TEST_F(LogTest, RingsKeepTheNewestLinesUpToTheBound) {
  for (int i = 0; i < 2001; ++i) AppLog::debug("t", std::to_string(i));
  auto lines = AppLog::snapshot();
  ASSERT_EQ(lines.size(), 2000u);
  EXPECT_EQ(lines.front().text, "1");
  EXPECT_EQ(lines.back().text, "2000");
  EXPECT_EQ(lines.back().level, LogLevel::debug);
  EXPECT_NE(lines[0].id, lines[1].id);

  // A lower bound trims at the next emission, all at once.
  AppLog::setMaxLines(10);
  EXPECT_EQ(AppLog::snapshot().size(), 2000u);
  AppLog::warn("t", "next");
  lines = AppLog::snapshot();
  ASSERT_EQ(lines.size(), 10u);
  EXPECT_EQ(lines.back().text, "next");

  for (int i = 0; i < 12; ++i) {
    RequestLog r;
    r.status = 200 + i;
    AppLog::request(r);
  }
  const auto requests = AppLog::requestSnapshot();
  ASSERT_EQ(requests.size(), 10u);
  EXPECT_EQ(requests.front().status, 202);
  // A version-4 UUID in upper case.
  EXPECT_TRUE(std::regex_match(requests.front().id,
                               std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
      << requests.front().id;
  EXPECT_NE(requests.front().id, requests.back().id);

  AppLog::clear();
  EXPECT_TRUE(AppLog::snapshot().empty());
  EXPECT_TRUE(AppLog::requestSnapshot().empty());
}

TEST_F(LogTest, HandlersRunOffTheEmittingThreadInOrder) {
  std::mutex m;
  std::vector<std::string> seen;
  std::vector<std::thread::id> threads;
  AppLog::setLineHandler([&](const LogEntry& e) {
    std::lock_guard lock(m);
    seen.push_back(e.text);
    threads.push_back(std::this_thread::get_id());
  });
  std::atomic<int> requestCount{0};
  AppLog::setRequestHandler([&](const RequestLog&) { ++requestCount; });
  // Posted tasks share the handlers' thread and queue: they interleave in order.
  const auto post = [&](std::string text) {
    AppLog::post([&, text] {
      std::lock_guard lock(m);
      seen.push_back(text);
      threads.push_back(std::this_thread::get_id());
    });
  };
  std::vector<std::string> expected;
  for (int i = 0; i < 100; ++i) {
    AppLog::info("t", std::to_string(i));
    expected.push_back(std::to_string(i));
    if (i % 10 == 0) {
      post("task " + std::to_string(i));
      expected.push_back("task " + std::to_string(i));
    }
  }
  AppLog::request(RequestLog{});
  AppLog::drainHandlers();
  std::lock_guard lock(m);
  EXPECT_EQ(seen, expected);
  for (const auto& id : threads) EXPECT_NE(id, std::this_thread::get_id());
  EXPECT_EQ(requestCount.load(), 1);
}

TEST_F(LogTest, ManyThreadsEmitWithoutLosingLines) {
  AppLog::setMaxLines(100000);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 500; ++i) AppLog::info("t", "x");
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(AppLog::snapshot().size(), 2000u);
}

TEST_F(LogTest, SaveWritesFormattedLines) {
  test::TempDir dir;
  ASSERT_FALSE(AppLog::save(dir.path() + "empty.log"));
  EXPECT_EQ(test::readTextFile(dir.path() + "empty.log"), "\n");

  AppLog::info("a", "one");
  AppLog::warn("cache", "index was rewritten");
  AppLog::error("b", "two");
  ASSERT_FALSE(AppLog::save(dir.path() + "sub/three.log"));
  const std::string text = test::readTextFile(dir.path() + "sub/three.log");
  const std::string at = R"(\d\d:\d\d:\d\d\.\d\d\d )";
  EXPECT_TRUE(std::regex_match(text, std::regex(at + R"(\[INFO\] a: one\n)" + at + R"(\[WARN\] cache: index was rewritten\n)" +
                                                at + R"(\[ERROR\] b: two\n)")))
      << text;

  EXPECT_TRUE(AppLog::save("/proc/kelvo-cannot-write/x.log"));
}

}  // namespace
}  // namespace kelvo
