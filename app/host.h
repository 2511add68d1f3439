#pragma once
// The one long-lived host of the core services (`vell daemon`, or the tray on its GUI
// thread). It runs the launch sequence in its order (notification categories, then the
// insurance recorder, the agent poller, the call recorder, the discard purge and the
// calendar recorder), applies the open-at-login default once, signs in from the stored
// session, keeps uploading by itself, routes the answers to notifications to the owner of
// their category, turns the machine's sleep and wake into published state, and quits by
// stopping a recording so that its saved part stays ready for upload. Main executor only.
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "app/core_services.h"
#include "app/launch_sequence.h"
#include "app/login_item.h"
#include "app/notification_center.h"
#include "app/sleep_events.h"
#include "base/published.h"

namespace vell::app {

// The platform's side, chosen by the composition root; each may be absent.
struct HostPorts {
    std::shared_ptr<NotificationCenter> notifications;
    std::shared_ptr<SleepEvents> sleep;
    std::shared_ptr<LoginItemService> loginItem;
};

// The long-lived services that join the launch sequence, each at its place, and the
// insurance recorder's orderly shutdown at quit (it calls done within 2 s).
struct HostServices {
    std::function<void()> startInsuranceRecorder;
    std::function<void()> startAgentPoller;
    std::function<void()> startCallRecorder;
    std::function<void()> startDiscardedPurge;
    std::function<void()> startCalendarRecorder;
    std::function<void(std::function<void()> done)> shutdownInsurance;
};

class Host {
public:
    static constexpr double kShutdownLimitSeconds = 2.0;

    Host(CoreServices& core, HostPorts ports, HostServices services, UserDefaults& defaults, Executor& main);
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    CoreServices& core() { return core_; }
    NotificationCenter* notifications() { return ports_.notifications.get(); }

    // The launch: once.
    void start();
    bool started() const { return started_; }

    // Stop and quit: a recording stops without discard (its saved part is uploaded later),
    // the insurance recorder shuts down (at most 2 s), then done. Asked again while
    // quitting, it only waits for the same end.
    void quit(std::function<void()> done);
    bool quitting() const { return quitting_; }
    // The program's own end, after any quit (a signal, the control interface, the tray).
    std::function<void()> onQuitFinished;
    // The front end's tip about where Vell lives, offered by the launch once it settled and
    // only while it has not been shown (set before start(); a daemon has none).
    std::function<void()> showMenuBarTip;

    // The owner of a notification category handles the answers to its notifications.
    using ResponseHandler = std::function<void(const NotificationResponse&)>;
    void handleResponses(std::string category, ResponseHandler handler);
    void post(const Notification& notification);
    void withdraw(const std::string& identifier);

    // True between the machine's will-sleep and its did-wake.
    Published<bool> asleep{false};

private:
    void route(const NotificationResponse& response);
    void finishQuit();

    CoreServices& core_;
    HostPorts ports_;
    HostServices services_;
    UserDefaults& defaults_;
    Executor& main_;
    std::unique_ptr<LaunchSequence> launch_;
    std::map<std::string, ResponseHandler> handlers_;
    bool started_ = false;
    bool quitting_ = false;
    bool quitDone_ = false;
    std::vector<std::function<void()>> quitWaiters_;
    TimerHandle shutdownLimit_;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace vell::app
