#pragma once
// The main executor of the command-line programs: an Asio event loop run on the thread
// that calls run().
#include <memory>
#include <thread>

#include "base/executor.h"

namespace vell {

class AsioExecutor final : public Executor {
public:
    AsioExecutor();
    ~AsioExecutor() override;
    AsioExecutor(const AsioExecutor&) = delete;
    AsioExecutor& operator=(const AsioExecutor&) = delete;

    void post(Task task) override;
    TimerHandle postAfter(double delaySeconds, Task task) override;
    TimerHandle repeat(double intervalSeconds, Task task) override;
    bool isCurrentThread() const override;

    // Runs tasks on the calling thread until stop(). Each stop() ends one run: the one
    // under way, or the next one when none is (it then returns at once). A command that
    // waits for several things in turn runs the loop again after each.
    void run();
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace vell
