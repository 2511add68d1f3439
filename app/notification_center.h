#pragma once
// The desktop's notifications, as the application uses them: categories whose actions are
// offered on each notification of the category, posting, withdrawing, and the user's
// answer. The composition root picks the implementation (freedesktop notifications over
// D-Bus on Linux); without a notification server posts are logged and dropped.
#include <functional>
#include <string>
#include <vector>

#include "app/notification_categories.h"

namespace vell::app {

struct Notification {
    std::string identifier;  // posting the same identifier again replaces the notification
    std::string category;    // its actions are offered; empty: none
    std::string title;
    std::string body;
};

// The user's answer: an action of the category, or "default" for a click on the body.
struct NotificationResponse {
    std::string identifier;
    std::string category;
    std::string action;
};

inline constexpr const char* kDefaultNotificationAction = "default";

class NotificationCenter {
public:
    virtual ~NotificationCenter() = default;
    virtual void registerCategories(const std::vector<NotificationCategory>& categories) = 0;
    virtual void post(const Notification& notification) = 0;
    virtual void withdraw(const std::string& identifier) = 0;
    // Called on any thread; the host hops to the main executor before routing it.
    std::function<void(const NotificationResponse&)> onResponse;
};

}  // namespace vell::app
