#pragma once
// The desktop's tray host as Qt finds it (a StatusNotifierWatcher with a host registered)
// on the test's private session bus, counting the icons registered with it.
#include <atomic>
#include <sdbus-c++/sdbus-c++.h>
#include <string>
#include <vector>

namespace vell::test {

class StatusNotifierWatcher {
public:
    StatusNotifierWatcher() : connection_(sdbus::createSessionBusConnection("org.kde.StatusNotifierWatcher")) {
        object_ = sdbus::createObject(*connection_, "/StatusNotifierWatcher");
        const char* I = "org.kde.StatusNotifierWatcher";
        object_->registerMethod("RegisterStatusNotifierItem").onInterface(I).implementedAs([this](const std::string&) { ++items_; });
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
    // How many icons registered so far.
    int items() const { return items_; }

private:
    std::atomic<int> items_{0};
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IObject> object_;
};

}  // namespace vell::test
