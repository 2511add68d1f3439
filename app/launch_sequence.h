#pragma once
// What the application does once it has finished launching, in order: the one-time reset
// of the main window's saved frame, then on the main executor the notification categories
// and the long-lived services, then 2.5 s later the menu-bar tip unless cancelled.
// Services that are not built yet leave their step empty.
#include <functional>
#include <vector>

#include "app/notification_categories.h"
#include "base/executor.h"
#include "base/user_defaults.h"

namespace vell::app {

struct LaunchSteps {
    std::function<void()> removeMainWindowFrame;  // forget the saved frame "NSWindow Frame main"
    std::function<void(const std::vector<NotificationCategory>&)> registerNotificationCategories;
    std::function<void()> startInsuranceRecorder;
    std::function<void()> startAgentPoller;
    std::function<void()> startCallRecorder;
    std::function<void()> startDiscardedPurge;
    std::function<void()> startCalendarRecorder;
    std::function<void()> showMenuBarTip;
};

class LaunchSequence {
public:
    static constexpr double kMenuBarTipDelaySeconds = 2.5;

    LaunchSequence(LaunchSteps steps, UserDefaults& defaults, Executor& main);
    ~LaunchSequence();
    void run();
    // Drops the menu-bar tip if it has not been shown yet.
    void cancel();

private:
    LaunchSteps steps_;
    UserDefaults& defaults_;
    Executor& main_;
    TimerHandle tipTimer_;
    std::shared_ptr<bool> cancelled_ = std::make_shared<bool>(false);
};

}  // namespace vell::app
