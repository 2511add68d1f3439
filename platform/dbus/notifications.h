#pragma once
// Desktop notifications through org.freedesktop.Notifications on the session bus: each
// notification offers its category's actions, a click or an action comes back as a
// response (ActionInvoked), and a notification can be withdrawn (CloseNotification).
// Calls never block the caller; with no notification server they are logged and dropped.
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/dbus/bus_loop.h"
#include "app/notification_center.h"

namespace sdbus {
class IConnection;
class IProxy;
}  // namespace sdbus

namespace vell::dbus {

class DesktopNotifications final : public app::NotificationCenter {
public:
    // Nothing when there is no session bus (logged).
    static std::shared_ptr<DesktopNotifications> connect();
    ~DesktopNotifications() override;

    void registerCategories(const std::vector<app::NotificationCategory>& categories) override;
    void post(const app::Notification& notification) override;
    void withdraw(const std::string& identifier) override;

private:
    DesktopNotifications() = default;
    void actionInvoked(uint32_t serverID, const std::string& action);
    void closed(uint32_t serverID);

    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IProxy> proxy_;
    std::unique_ptr<BusLoop> loop_;
    std::mutex lock_;
    // category -> [action identifier, title, ...] as the server takes them
    std::map<std::string, std::vector<std::string>> actions_;
    std::map<std::string, uint32_t> serverIDs_;  // our identifier -> the server's
    struct Shown {
        std::string identifier, category;
    };
    std::map<uint32_t, Shown> shown_;
    std::map<std::string, bool> withdrawWhenShown_;
};

}  // namespace vell::dbus
