#include "KELVOCore/WorkerPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace kelvo {
namespace {

using namespace std::chrono_literals;

TEST(WorkerPoolTest, GrowsPastBlockedTasksThenShrinks) {
  std::promise<void> release;
  const std::shared_future<void> gate = release.get_future().share();
  std::promise<void> quickRan;
  WorkerPool pool("test pool", 2, 8, 10ms, 50ms);
  for (int i = 0; i < 3; ++i) pool.post([gate] { gate.wait(); });
  pool.post([&] { quickRan.set_value(); });
  // Three tasks hold every thread the pool starts with; the fourth still runs.
  EXPECT_EQ(quickRan.get_future().wait_for(10s), std::future_status::ready);
  EXPECT_GE(pool.threadCount(), 4u);
  release.set_value();
  for (int i = 0; i < 500 && pool.threadCount() > 2; ++i) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(pool.threadCount(), 2u);
}

TEST(WorkerPoolTest, OrderAndDestructorDrain) {
  std::mutex lock;
  std::vector<int> order;
  {
    WorkerPool pool("test pool", 1, 1);
    pool.post([] { std::this_thread::sleep_for(50ms); });
    for (int i = 0; i < 100; ++i) {
      pool.post([&, i] {
        std::lock_guard guard(lock);
        order.push_back(i);
      });
    }
  }  // every queued task has run by the time the pool is gone
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
}

}  // namespace
}  // namespace kelvo
