#include "platform/dbus/notifications.h"

#include <sdbus-c++/sdbus-c++.h>

#include "platform/dbus/bus_loop.h"

#include "base/application_id.h"
#include "base/log.h"

namespace vell::dbus {

namespace {
const log::Logger kLog("Notifications");
constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
constexpr const char* kInterface = "org.freedesktop.Notifications";
}  // namespace

std::shared_ptr<DesktopNotifications> DesktopNotifications::connect() {
    std::shared_ptr<DesktopNotifications> made(new DesktopNotifications());
    try {
        made->connection_ = sdbus::createSessionBusConnection();
        made->proxy_ = sdbus::createProxy(*made->connection_, kService, kPath);
        auto* raw = made.get();
        made->proxy_->uponSignal("ActionInvoked").onInterface(kInterface).call([raw](uint32_t id, const std::string& action) {
            raw->actionInvoked(id, action);
        });
        made->proxy_->uponSignal("NotificationClosed").onInterface(kInterface).call([raw](uint32_t id, uint32_t) {
            raw->closed(id);
        });
        made->proxy_->finishRegistration();
        made->loop_ = std::make_unique<BusLoop>(*made->connection_, "notifications");
    } catch (const sdbus::Error& e) {
        kLog.info(std::string("no session bus for notifications: ") + e.getMessage());
        return nullptr;
    }
    return made;
}

DesktopNotifications::~DesktopNotifications() {
    loop_.reset();
    proxy_.reset();
}

void DesktopNotifications::registerCategories(const std::vector<app::NotificationCategory>& categories) {
    std::lock_guard guard(lock_);
    for (const auto& category : categories) {
        auto& list = actions_[std::string(category.identifier)];
        list.clear();
        for (const auto& action : category.actions) {
            list.emplace_back(action.identifier);
            list.push_back(action.title.str());
        }
    }
}

void DesktopNotifications::post(const app::Notification& notification) {
    std::vector<std::string> actions{app::kDefaultNotificationAction, ""};
    uint32_t replaces = 0;
    {
        std::lock_guard guard(lock_);
        auto it = actions_.find(notification.category);
        if (it != actions_.end()) actions.insert(actions.end(), it->second.begin(), it->second.end());
        if (auto shown = serverIDs_.find(notification.identifier); shown != serverIDs_.end()) replaces = shown->second;
        withdrawWhenShown_.erase(notification.identifier);
    }
    std::map<std::string, sdbus::Variant> hints;
    hints["desktop-entry"] = sdbus::Variant(std::string(kApplicationID));
    try {
        proxy_->callMethodAsync("Notify")
            .onInterface(kInterface)
            .withArguments(std::string("Vell"), replaces, std::string("audio-input-microphone"), notification.title,
                           notification.body, actions, hints, int32_t(-1))
            .uponReplyInvoke([this, notification](const sdbus::Error* error, uint32_t id) {
                if (error) {
                    kLog.error("not shown (" + error->getMessage() + "): " + notification.title);
                    return;
                }
                bool withdrawNow = false;
                {
                    std::lock_guard guard(lock_);
                    serverIDs_[notification.identifier] = id;
                    shown_[id] = {notification.identifier, notification.category};
                    withdrawNow = withdrawWhenShown_.erase(notification.identifier) > 0;
                }
                if (withdrawNow) withdraw(notification.identifier);
            });
    } catch (const sdbus::Error& e) {
        kLog.error("not shown (" + e.getMessage() + "): " + notification.title);
    }
}

void DesktopNotifications::withdraw(const std::string& identifier) {
    uint32_t id = 0;
    {
        std::lock_guard guard(lock_);
        auto it = serverIDs_.find(identifier);
        if (it == serverIDs_.end()) {
            // Posted but not answered yet: withdraw it as soon as the server names it.
            withdrawWhenShown_[identifier] = true;
            return;
        }
        id = it->second;
    }
    try {
        proxy_->callMethodAsync("CloseNotification").onInterface(kInterface).withArguments(id).uponReplyInvoke(
            [](const sdbus::Error* error) {
                if (error) kLog.info("could not withdraw a notification: " + error->getMessage());
            });
    } catch (const sdbus::Error& e) {
        kLog.info("could not withdraw a notification: " + e.getMessage());
    }
}

void DesktopNotifications::actionInvoked(uint32_t serverID, const std::string& action) {
    app::NotificationResponse response;
    {
        std::lock_guard guard(lock_);
        auto it = shown_.find(serverID);
        if (it == shown_.end()) return;  // another application's notification
        response = {it->second.identifier, it->second.category, action};
    }
    if (onResponse) onResponse(response);
}

void DesktopNotifications::closed(uint32_t serverID) {
    std::lock_guard guard(lock_);
    auto it = shown_.find(serverID);
    if (it == shown_.end()) return;
    auto ours = serverIDs_.find(it->second.identifier);
    if (ours != serverIDs_.end() && ours->second == serverID) serverIDs_.erase(ours);
    shown_.erase(it);
}

}  // namespace vell::dbus
