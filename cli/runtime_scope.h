#pragma once
// What every command sets up first: an Asio main executor and the system clock, the
// program's composition, and (for commands that touch recordings, the pending list or the
// insurance buffer) the lock that makes this process the only owner of the data folder.
#include <memory>

#include "base/asio_executor.h"
#include "base/clock.h"
#include "base/instance_lock.h"
#include "cli/command.h"

namespace vell::cli {

class RuntimeScope {
public:
    struct Options {
        bool ownsDataDirectories = true;
    };

    // Nothing when another process owns the data folder (context.exitCode kExitBusy) or
    // the folder cannot be used (kExitFailure): the reason is printed on standard error.
    static std::unique_ptr<RuntimeScope> enter(Context& context, Options options);
    static std::unique_ptr<RuntimeScope> enter(Context& context) { return enter(context, Options{}); }
    ~RuntimeScope();
    RuntimeScope(const RuntimeScope&) = delete;
    RuntimeScope& operator=(const RuntimeScope&) = delete;

    AsioExecutor& executor() { return executor_; }
    // Runs the main loop until stop() (for commands that wait on asynchronous work).
    void run() { executor_.run(); }
    void stop() { executor_.stop(); }

private:
    RuntimeScope() = default;
    AsioExecutor executor_;
    SystemClock clock_;
    std::shared_ptr<InstanceLock> lock_;
};

}  // namespace vell::cli
