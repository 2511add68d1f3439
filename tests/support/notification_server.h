#pragma once
// org.freedesktop.Notifications as a desktop serves it, on the test's private session bus,
// keeping what it was asked to show; a click answers with ActionInvoked like a real one.
#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sdbus-c++/sdbus-c++.h>
#include <string>
#include <vector>

namespace vell::test {

class NotificationServer {
public:
    NotificationServer() : connection_(sdbus::createSessionBusConnection("org.freedesktop.Notifications")) {
        object_ = sdbus::createObject(*connection_, "/org/freedesktop/Notifications");
        const char* I = "org.freedesktop.Notifications";
        object_->registerMethod("Notify").onInterface(I).implementedAs(
            [this](std::string, uint32_t replaces, std::string, std::string summary, std::string body,
                   std::vector<std::string> actions, std::map<std::string, sdbus::Variant>, int32_t) {
                std::lock_guard guard(m_);
                uint32_t id = replaces ? replaces : ++lastID_;
                shown_.push_back({id, summary, body, actions});
                return id;
            });
        object_->registerMethod("CloseNotification").onInterface(I).implementedAs([](uint32_t) {});
        object_->registerMethod("GetCapabilities").onInterface(I).implementedAs(
            [] { return std::vector<std::string>{"actions", "body"}; });
        object_->registerSignal("ActionInvoked").onInterface(I).withParameters<uint32_t, std::string>();
        object_->registerSignal("NotificationClosed").onInterface(I).withParameters<uint32_t, uint32_t>();
        object_->finishRegistration();
        connection_->enterEventLoopAsync();
    }
    ~NotificationServer() { connection_->leaveEventLoop(); }
    void click(uint32_t id, const std::string& action) {
        object_->emitSignal("ActionInvoked").onInterface("org.freedesktop.Notifications").withArguments(id, action);
    }
    struct Shown {
        uint32_t id;
        std::string summary, body;
        std::vector<std::string> actions;
    };
    std::optional<Shown> find(const std::string& summary) {
        std::lock_guard guard(m_);
        for (const auto& s : shown_) {
            if (s.summary == summary) return s;
        }
        return std::nullopt;
    }
    size_t count(const std::string& summary) {
        std::lock_guard guard(m_);
        return size_t(std::count_if(shown_.begin(), shown_.end(), [&](const Shown& s) { return s.summary == summary; }));
    }

private:
    std::mutex m_;
    std::vector<Shown> shown_;
    uint32_t lastID_ = 0;
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IObject> object_;
};

}  // namespace vell::test
