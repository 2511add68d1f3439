// The main executor on the Qt event loop: tasks from any thread run on the GUI thread in
// the order they were posted; cancelled timers never run.
#include <gtest/gtest.h>

#include <QThread>
#include <thread>

#include "tests/tray/tray_rig.h"
#include "tray/qt_executor.h"

namespace vell::tray {
namespace {

TEST(QtExecutorTest, TasksFromOtherThreadsRunOnTheGuiThreadInOrder) {
    QtExecutor exec;
    EXPECT_TRUE(exec.isCurrentThread());
    std::vector<int> order;
    bool allOnGui = true;
    std::thread worker([&] {
        EXPECT_FALSE(exec.isCurrentThread());
        for (int i = 0; i < 100; ++i) {
            exec.post([&, i] {
                allOnGui = allOnGui && QThread::currentThread() == qApp->thread();
                order.push_back(i);
            });
        }
    });
    worker.join();
    ASSERT_TRUE(test::waitFor([&] { return order.size() == 100; }));
    EXPECT_TRUE(allOnGui);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(QtExecutorTest, TimersRunOnceOrRepeatUntilCancelled) {
    QtExecutor exec;
    int once = 0, cancelledOnce = 0, ticks = 0, fromThread = 0;
    exec.postAfter(0.01, [&] { ++once; });
    auto dropped = exec.postAfter(0.01, [&] { ++cancelledOnce; });
    dropped.cancel();
    TimerHandle repeating;
    repeating = exec.repeat(0.01, [&] {
        if (++ticks == 3) repeating.cancel();
    });
    std::thread([&] { exec.postAfter(0.01, [&] { fromThread = QThread::currentThread() == qApp->thread() ? 1 : -1; }); }).join();
    ASSERT_TRUE(test::waitFor([&] { return once == 1 && ticks >= 3 && fromThread != 0; }));
    QTest::qWait(100);
    EXPECT_EQ(once, 1);
    EXPECT_EQ(cancelledOnce, 0);
    EXPECT_EQ(ticks, 3) << "a cancelled repeat stops";
    EXPECT_EQ(fromThread, 1) << "a timer asked for on another thread fires on the GUI thread";
}

}  // namespace
}  // namespace vell::tray
