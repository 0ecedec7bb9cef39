#include "melvo/platform/event_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace melvo {
namespace {
using namespace std::chrono_literals;

TEST(EventLoop, RepeatingTimerFollowsTheManualClock) {
  auto clock = std::make_shared<ManualClock>();
  EventLoop loop(clock);
  int ticks = 0;
  RepeatingTimer timer = loop.scheduleRepeating(60s, [&] { ++ticks; });
  loop.runUntilIdle();
  clock->advance(59s);
  loop.runUntilIdle();
  EXPECT_EQ(ticks, 0);
  clock->advance(1s);
  loop.runUntilIdle();
  EXPECT_EQ(ticks, 1);
  // A long stall does not replay the missed ticks, and the grid stays at multiples of 60 s.
  clock->advance(250s);  // now 310 s
  loop.runUntilIdle();
  EXPECT_EQ(ticks, 2);
  clock->advance(9s);  // 319 s: the next tick is due at 360 s
  loop.runUntilIdle();
  EXPECT_EQ(ticks, 2);
  clock->advance(41s);
  loop.runUntilIdle();
  EXPECT_EQ(ticks, 3);
}

TEST(EventLoop, DroppingOrReplacingTheHandleCancels) {
  auto clock = std::make_shared<ManualClock>();
  EventLoop loop(clock);
  int a = 0, b = 0;
  {
    RepeatingTimer t = loop.scheduleRepeating(1s, [&] { ++a; });
    EXPECT_TRUE(t.isActive());
  }
  RepeatingTimer t = loop.scheduleRepeating(1s, [&] { ++a; });
  t = loop.scheduleRepeating(1s, [&] { ++b; });  // the first one must stop
  EXPECT_EQ(loop.activeTimerCount(), 1u);
  clock->advance(1s);
  loop.runUntilIdle();
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 1);
}

TEST(EventLoop, PostedJobsRunInOrderIncludingJobsTheyPost) {
  EventLoop loop(std::make_shared<ManualClock>());
  std::vector<int> order;
  loop.post([&] {
    order.push_back(1);
    loop.post([&] { order.push_back(3); });
  });
  loop.post([&] { order.push_back(2); });
  EXPECT_EQ(loop.runUntilIdle(), 3u);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(EventLoop, RunWaitsForTimersAndPostsFromOtherThreads) {
  EventLoop loop;
  std::atomic<int> ticks = 0;
  RepeatingTimer t = loop.scheduleRepeating(5ms, [&] { ++ticks; });
  // The stop waits for the ticks rather than for a fixed time, so a slow machine only makes
  // this slower; the deadline turns a loop that never ticks into a failure, not a hang.
  std::thread other([&] {
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (ticks < 2 && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(1ms);
    loop.post([&] { loop.stop(); });
  });
  loop.run();
  other.join();
  EXPECT_GE(ticks, 2);
}

}  // namespace
}  // namespace melvo
