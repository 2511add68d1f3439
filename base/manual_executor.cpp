#include "base/manual_executor.h"

#include <chrono>

namespace vell {

ManualExecutor::ManualExecutor(ManualClock& clock) : clock_(clock), owner_(std::this_thread::get_id()) {}

void ManualExecutor::post(Task task) {
    std::lock_guard lock(mutex_);
    posted_.push_back(std::move(task));
}

TimerHandle ManualExecutor::postAfter(double delaySeconds, Task task) {
    auto cancelled = std::make_shared<std::atomic<bool>>(false);
    std::lock_guard lock(mutex_);
    timers_.emplace(clock_.uptime() + delaySeconds, Timer{clock_.uptime() + delaySeconds, 0, cancelled, std::move(task)});
    return TimerHandle(cancelled);
}

TimerHandle ManualExecutor::repeat(double intervalSeconds, Task task) {
    auto cancelled = std::make_shared<std::atomic<bool>>(false);
    std::lock_guard lock(mutex_);
    double due = clock_.uptime() + intervalSeconds;
    timers_.emplace(due, Timer{due, intervalSeconds, cancelled, std::move(task)});
    return TimerHandle(cancelled);
}

bool ManualExecutor::isCurrentThread() const { return std::this_thread::get_id() == owner_; }

int ManualExecutor::runPending() {
    int count = 0;
    for (;;) {
        std::vector<Task> batch;
        {
            std::lock_guard lock(mutex_);
            batch.swap(posted_);
        }
        if (batch.empty()) return count;
        for (auto& task : batch) {
            task();
            ++count;
        }
    }
}

void ManualExecutor::advance(double seconds) {
    const double target = clock_.uptime() + seconds;
    runPending();
    for (;;) {
        Timer timer;
        {
            std::lock_guard lock(mutex_);
            auto it = timers_.begin();
            while (it != timers_.end() && it->second.cancelled->load()) it = timers_.erase(it);
            if (it == timers_.end() || it->first > target + 1e-9) break;
            timer = std::move(it->second);
            timers_.erase(it);
        }
        if (timer.due > clock_.uptime()) clock_.advance(timer.due - clock_.uptime());
        timer.task();
        if (timer.interval > 0 && !timer.cancelled->load()) {
            std::lock_guard lock(mutex_);
            double next = timer.due + timer.interval;
            timers_.emplace(next, Timer{next, timer.interval, timer.cancelled, std::move(timer.task)});
        }
        runPending();
    }
    if (target > clock_.uptime()) clock_.advance(target - clock_.uptime());
    runPending();
}

bool ManualExecutor::runUntil(const std::function<bool()>& pred, double timeoutSeconds) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
    for (;;) {
        runPending();
        if (pred()) return true;
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

}  // namespace vell
