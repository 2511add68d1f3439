#pragma once
// The desktop's tray host as Qt finds it (a StatusNotifierWatcher with a host registered)
// on a private session bus, keeping when each icon registered with it (tests count them,
// bench_tray times them).
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <sdbus-c++/sdbus-c++.h>
#include <string>
#include <vector>

namespace vell::test {

class StatusNotifierWatcher {
public:
    StatusNotifierWatcher() : connection_(sdbus::createSessionBusConnection("org.kde.StatusNotifierWatcher")) {
        object_ = sdbus::createObject(*connection_, "/StatusNotifierWatcher");
        const char* I = "org.kde.StatusNotifierWatcher";
        object_->registerMethod("RegisterStatusNotifierItem").onInterface(I).implementedAs([this](const std::string&) {
            std::lock_guard lock(mutex_);
            registered_.push_back(Clock::now());
            changed_.notify_all();
        });
        object_->registerMethod("RegisterStatusNotifierHost").onInterface(I).implementedAs([](const std::string&) {});
        object_->registerProperty("RegisteredStatusNotifierItems").onInterface(I).withGetter([] { return std::vector<std::string>{}; });
        object_->registerProperty("IsStatusNotifierHostRegistered").onInterface(I).withGetter([] { return true; });
        object_->registerProperty("ProtocolVersion").onInterface(I).withGetter([] { return int32_t(0); });
        object_->registerSignal("StatusNotifierItemRegistered").onInterface(I).withParameters<std::string>();
        object_->registerSignal("StatusNotifierItemUnregistered").onInterface(I).withParameters<std::string>();
        object_->registerSignal("StatusNotifierHostRegistered").onInterface(I);
        object_->finishRegistration();
        connection_->enterEventLoopAsync();
    }
    ~StatusNotifierWatcher() { connection_->leaveEventLoop(); }
    using Clock = std::chrono::steady_clock;

    // How many icons registered so far.
    int items() const {
        std::lock_guard lock(mutex_);
        return static_cast<int>(registered_.size());
    }
    // When the first icon at or after `since` registered; nothing within the limit.
    std::optional<Clock::time_point> waitFor(Clock::time_point since, std::chrono::seconds limit) {
        std::unique_lock lock(mutex_);
        auto after = [&] { return std::find_if(registered_.begin(), registered_.end(), [&](auto t) { return t >= since; }); };
        if (!changed_.wait_for(lock, limit, [&] { return after() != registered_.end(); })) return std::nullopt;
        return *after();
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Clock::time_point> registered_;
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IObject> object_;
};

}  // namespace vell::test
