#pragma once
// A deterministic executor for tests: tasks run only when the test drives it, and timers
// fire as the test advances the ManualClock, in deadline order.
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "base/clock.h"
#include "base/executor.h"

namespace vell {

class ManualExecutor final : public Executor {
public:
    explicit ManualExecutor(ManualClock& clock);

    void post(Task task) override;
    TimerHandle postAfter(double delaySeconds, Task task) override;
    TimerHandle repeat(double intervalSeconds, Task task) override;
    // The thread that created the executor counts as the main thread.
    bool isCurrentThread() const override;

    // Runs posted tasks (and tasks they post) until none is left. Returns how many ran.
    int runPending();
    // Moves the clock forward, firing each timer at its deadline in order, running posted
    // tasks between them.
    void advance(double seconds);
    // Runs pending tasks until pred() holds or the wall-clock timeout (seconds) passes;
    // used when real threads (queues, audio) post to the main executor.
    bool runUntil(const std::function<bool()>& pred, double timeoutSeconds = 5.0);

private:
    struct Timer {
        double due;
        double interval;  // 0 for one-shot
        std::shared_ptr<std::atomic<bool>> cancelled;
        Task task;
    };
    ManualClock& clock_;
    std::thread::id owner_;
    std::mutex mutex_;
    std::vector<Task> posted_;
    std::multimap<double, Timer> timers_;
};

}  // namespace vell
