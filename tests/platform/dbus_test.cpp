// The desktop bindings on a real dbus-daemon: notifications with their actions against a
// notification server this test serves, and logind's sleep and wake on a stand-in system
// bus on which the test plays logind.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <sdbus-c++/sdbus-c++.h>
#include <thread>

#include "app/notification_categories.h"
#include "platform/dbus/logind_sleep.h"
#include "platform/dbus/notifications.h"
#include "tests/support/private_bus.h"

namespace vell::dbus {
namespace {

using namespace std::chrono_literals;

// Waits (bounded) until pred holds; pred is read under the lock.
template <class Pred>
bool waitFor(std::mutex& m, std::condition_variable& cv, Pred pred) {
    std::unique_lock lock(m);
    return cv.wait_for(lock, 5s, pred);
}

// org.freedesktop.Notifications as a desktop would serve it, recording what it is asked.
class NotificationServer {
public:
    NotificationServer() : connection_(sdbus::createSessionBusConnection("org.freedesktop.Notifications")) {
        object_ = sdbus::createObject(*connection_, "/org/freedesktop/Notifications");
        const char* I = "org.freedesktop.Notifications";
        object_->registerMethod("Notify").onInterface(I).implementedAs(
            [this](std::string app, uint32_t replaces, std::string, std::string summary, std::string body,
                   std::vector<std::string> actions, std::map<std::string, sdbus::Variant>, int32_t) {
                std::lock_guard guard(m);
                uint32_t id = replaces ? replaces : ++lastID;
                shown.push_back({id, app, summary, body, actions});
                cv.notify_all();
                return id;
            });
        object_->registerMethod("CloseNotification").onInterface(I).implementedAs([this](uint32_t id) {
            std::lock_guard guard(m);
            closed.push_back(id);
            cv.notify_all();
        });
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
        std::string app, summary, body;
        std::vector<std::string> actions;
    };
    std::mutex m;
    std::condition_variable cv;
    std::vector<Shown> shown;
    std::vector<uint32_t> closed;
    uint32_t lastID = 0;

private:
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IObject> object_;
};

TEST(DesktopNotifications, OfferTheCategorysActionsAndRouteTheAnswerBack) {
    test::PrivateBus bus;
    NotificationServer server;
    auto center = DesktopNotifications::connect();
    ASSERT_TRUE(center);
    std::mutex m;
    std::condition_variable cv;
    std::vector<app::NotificationResponse> answers;
    center->onResponse = [&](const app::NotificationResponse& r) {
        std::lock_guard guard(m);
        answers.push_back(r);
        cv.notify_all();
    };
    center->registerCategories(app::notificationCategories());
    center->post({"app.quillon.mac.callEnded.1", "app.quillon.mac.callEnded", "The call ended", "Keep recording?"});
    ASSERT_TRUE(waitFor(server.m, server.cv, [&] { return server.shown.size() == 1; }));
    const auto shown = server.shown[0];
    EXPECT_EQ(shown.summary, "The call ended");
    EXPECT_EQ(shown.actions, (std::vector<std::string>{"default", "", "app.quillon.mac.finishRecording", "Finish recording",
                                                       "app.quillon.mac.keepRecording", "Keep recording"}));

    server.click(shown.id, "app.quillon.mac.keepRecording");
    server.click(shown.id + 100, "app.quillon.mac.finishRecording");  // another application's
    ASSERT_TRUE(waitFor(m, cv, [&] { return !answers.empty(); }));
    std::this_thread::sleep_for(200ms);
    std::lock_guard guard(m);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].identifier, "app.quillon.mac.callEnded.1");
    EXPECT_EQ(answers[0].category, "app.quillon.mac.callEnded");
    EXPECT_EQ(answers[0].action, "app.quillon.mac.keepRecording");

    center->withdraw("app.quillon.mac.callEnded.1");
    ASSERT_TRUE(waitFor(server.m, server.cv, [&] { return server.closed.size() == 1; }));
    EXPECT_EQ(server.closed[0], shown.id);
}

TEST(DesktopNotifications, WithoutANotificationServerNothingBreaks) {
    test::PrivateBus bus;
    auto center = DesktopNotifications::connect();
    ASSERT_TRUE(center);
    center->registerCategories(app::notificationCategories());
    center->post({"id", "app.quillon.mac.meetingRecording", "Recording the meeting", ""});
    center->withdraw("id");
    std::this_thread::sleep_for(300ms);  // the failed call is answered and logged
    SUCCEED();
}

TEST(LogindSleepEvents, PrepareForSleepBecomesWillSleepAndDidWake) {
    test::PrivateBus system(test::PrivateBus::Kind::system);
    auto logind = sdbus::createSystemBusConnection("org.freedesktop.login1");
    auto manager = sdbus::createObject(*logind, "/org/freedesktop/login1");
    manager->registerSignal("PrepareForSleep").onInterface("org.freedesktop.login1.Manager").withParameters<bool>();
    manager->finishRegistration();

    auto events = LogindSleepEvents::connect();
    ASSERT_TRUE(events);
    std::mutex m;
    std::condition_variable cv;
    std::vector<bool> seen;
    events->onChange = [&](bool willSleep) {
        std::lock_guard guard(m);
        seen.push_back(willSleep);
        cv.notify_all();
    };
    std::this_thread::sleep_for(100ms);  // the match rule is in place
    manager->emitSignal("PrepareForSleep").onInterface("org.freedesktop.login1.Manager").withArguments(true);
    manager->emitSignal("PrepareForSleep").onInterface("org.freedesktop.login1.Manager").withArguments(false);
    ASSERT_TRUE(waitFor(m, cv, [&] { return seen.size() == 2; }));
    EXPECT_EQ(seen, (std::vector<bool>{true, false}));
}

TEST(LogindSleepEvents, NoSystemBusMeansNoEventsAndNoFailure) {
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    EXPECT_FALSE(LogindSleepEvents::connect());
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

}  // namespace
}  // namespace vell::dbus
