#pragma once
// Executors run tasks on one thread in order. The main executor owns all published state;
// serial queues (serial_queue.h) give each subsystem its own ordered thread.
#include <atomic>
#include <functional>
#include <memory>

namespace vell {

using Task = std::function<void()>;

// Cancels a scheduled task or repeating timer. Copies share the same timer; dropping a
// handle does not cancel it.
class TimerHandle {
public:
    TimerHandle() = default;
    explicit TimerHandle(std::shared_ptr<std::atomic<bool>> cancelled) : cancelled_(std::move(cancelled)) {}
    void cancel() const {
        if (cancelled_) cancelled_->store(true);
    }
    bool active() const { return cancelled_ && !cancelled_->load(); }

private:
    std::shared_ptr<std::atomic<bool>> cancelled_;
};

class Executor {
public:
    virtual ~Executor() = default;
    virtual void post(Task task) = 0;
    // Runs the task once after the delay (seconds).
    virtual TimerHandle postAfter(double delaySeconds, Task task) = 0;
    // Runs the task every interval, first after one interval, until cancelled. Ticks are
    // scheduled against the ideal timeline so they do not drift.
    virtual TimerHandle repeat(double intervalSeconds, Task task) = 0;
    virtual bool isCurrentThread() const = 0;
};

}  // namespace vell
