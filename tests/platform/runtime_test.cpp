#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>

#include "base/asio_executor.h"
#include "base/clock.h"
#include "base/manual_executor.h"
#include "base/published.h"
#include "base/serial_queue.h"

namespace vell {
namespace {

TEST(ManualExecutor, TimersFireInDeadlineOrderAndRepeatWithoutDrift) {
    ManualClock clock;
    ManualExecutor exec(clock);
    std::vector<std::string> events;
    double start = clock.uptime();
    auto ticker = exec.repeat(0.5, [&] { events.push_back("tick@" + std::to_string(clock.uptime() - start)); });
    exec.postAfter(0.75, [&] { events.push_back("once"); });
    exec.advance(1.6);
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0], "tick@0.500000");
    EXPECT_EQ(events[1], "once");
    EXPECT_EQ(events[3], "tick@1.500000");
    ticker.cancel();
    exec.advance(5);
    EXPECT_EQ(events.size(), 4u);
    EXPECT_NEAR(clock.uptime() - start, 6.6, 1e-9);
}

TEST(SerialQueue, RunsInOrderOnItsOwnThreadAndSyncIsReentrant) {
    SerialQueue queue("app.quillon.mac.test");
    std::vector<int> order;
    for (int i = 0; i < 100; ++i) queue.post([&, i] { order.push_back(i); });
    int value = queue.syncResult([&] {
        EXPECT_TRUE(queue.isCurrentThread());
        // A sync call from the queue itself must not deadlock.
        int inner = 0;
        queue.sync([&] { inner = 7; });
        return inner;
    });
    EXPECT_EQ(value, 7);
    ASSERT_EQ(order.size(), 100u);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(order[static_cast<size_t>(i)], i);
    EXPECT_FALSE(queue.isCurrentThread());
}

TEST(SerialQueue, SyncPropagatesExceptionsAndRepeatingTimerStops) {
    SerialQueue queue("app.quillon.mac.test");
    EXPECT_THROW(queue.sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
    std::atomic<int> ticks{0};
    auto timer = queue.repeat(0.005, [&] { ++ticks; });
    while (ticks < 3) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    timer.cancel();
    queue.sync([] {});
    int after = ticks;
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_LE(ticks - after, 1);
}

TEST(AsioExecutor, RunsPostedWorkOnTheRunningThreadUntilStopped) {
    AsioExecutor exec;
    std::thread::id ran;
    exec.post([&] {
        ran = std::this_thread::get_id();
        EXPECT_TRUE(exec.isCurrentThread());
    });
    exec.postAfter(0.01, [&] { exec.stop(); });
    exec.run();
    EXPECT_EQ(ran, std::this_thread::get_id());
    EXPECT_FALSE(exec.isCurrentThread());
}

// Times read from files and the service may be anything a double holds; the clock keeps
// about 292 years either side of 1970, and what lies beyond is clamped, never overflowed.
TEST(WallTimes, FromAnyNumberOfSecondsStayOnTheClock) {
    const auto farFuture = wallTimeFromSeconds(1e300), farPast = wallTimeFromSeconds(-1e300);
    EXPECT_GT(farFuture, wallTimeFromSeconds(9e9));
    EXPECT_LT(farPast, wallTimeFromSeconds(-9e9));
    EXPECT_EQ(farFuture, wallTimeFromSeconds(1e20));
    EXPECT_EQ(millisecondsSince1970(wallTimeFromSeconds(std::nan(""))), 0);
    EXPECT_EQ(millisecondsSince1970(fromMillisecondsSince1970(1'763'900'000'123.0)), 1'763'900'000'123);
}

TEST(Published, SubscribersSeeEachChangeUntilTheSubscriptionEnds) {
    Published<int> value(1);
    std::vector<int> seen;
    {
        auto sub = value.subscribe([&](const int& v) { seen.push_back(v); });
        value.set(2);
        value.modify([](int& v) { v += 10; });
    }
    value.set(99);
    EXPECT_EQ(seen, (std::vector<int>{2, 12}));
    EXPECT_EQ(value.get(), 99);
}

}  // namespace
}  // namespace vell
