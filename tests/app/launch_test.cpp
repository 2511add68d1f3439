#include <gtest/gtest.h>

#include "app/dock_policy.h"
#include "app/launch_sequence.h"
#include "app/notification_categories.h"
#include "app/quit_decision.h"
#include "base/manual_executor.h"
#include "base/preference_keys.h"
#include "tests/support/temp_home.h"

namespace vell::app {
namespace {

TEST(LaunchSequence, StartsServicesInOrderThenShowsTheTipAfterTwoAndAHalfSeconds) {
    test::TempHome home;
    ManualClock clock;
    ManualExecutor exec(clock);
    std::vector<std::string> order;
    auto step = [&](std::string name) { return [&order, name] { order.push_back(name); }; };
    LaunchSteps steps{step("frame"),
                      [&](const std::vector<NotificationCategory>& c) { order.push_back("categories" + std::to_string(c.size())); },
                      step("insurance"),
                      step("agent"),
                      step("calls"),
                      step("purge"),
                      step("calendar"),
                      step("tip")};
    {
        LaunchSequence launch(steps, home.defaults(), exec);
        launch.run();
        EXPECT_EQ(order, std::vector<std::string>{"frame"});
        exec.runPending();
        EXPECT_EQ(order, (std::vector<std::string>{"frame", "categories3", "insurance", "agent", "calls", "purge", "calendar"}));
        exec.advance(2.4);
        EXPECT_EQ(order.size(), 7u);
        exec.advance(0.1);
        EXPECT_EQ(order.back(), "tip");
    }
    EXPECT_EQ(home.defaults().boolValue(prefs::kMainWindowFrameReset), true);

    // Second launch: the frame is kept; a cancelled launch shows no tip.
    order.clear();
    LaunchSequence again(steps, home.defaults(), exec);
    again.run();
    exec.runPending();
    again.cancel();
    exec.advance(5);
    EXPECT_EQ(order.front(), "categories3");
    EXPECT_EQ(order.back(), "calendar");

    // A tip that was shown once is not shown again.
    order.clear();
    home.defaults().set(prefs::kMenuBarTipShown, true);
    LaunchSequence third(steps, home.defaults(), exec);
    third.run();
    exec.advance(5);
    EXPECT_EQ(order.back(), "calendar");
}

TEST(NotificationCategories, TableHoldsTheThreeCategoriesWithTheirActions) {
    const auto& c = notificationCategories();
    ASSERT_EQ(c.size(), 3u);
    struct Expected {
        const char* category;
        const char* action;
        const char* english;
        const char* spanish;
        bool front;
        bool destructive;
    };
    const Expected expected[] = {
        {"app.quillon.mac.autoRecordingActive", "app.quillon.mac.stopAutoRecording", "Stop", "Detener", true, false},
        {"app.quillon.mac.callEnded", "app.quillon.mac.finishRecording", "Finish recording", "Terminar grabación", false,
         false},
        {"app.quillon.mac.callEnded", "app.quillon.mac.keepRecording", "Keep recording", "Seguir grabando", false, false},
        {"app.quillon.mac.meetingRecording", "app.quillon.mac.deleteRecording", "Delete", "Borrar", false, true},
    };
    size_t n = 0;
    for (const auto& category : c) {
        for (const auto& action : category.actions) {
            ASSERT_LT(n, std::size(expected));
            const auto& want = expected[n++];
            EXPECT_EQ(category.identifier, want.category);
            EXPECT_EQ(action.identifier, want.action);
            EXPECT_EQ(action.title.in(Language::English), want.english);
            EXPECT_EQ(action.title.in(Language::Spanish), want.spanish);
            EXPECT_EQ(action.bringsToFront, want.front) << want.action;
            EXPECT_EQ(action.destructive, want.destructive) << want.action;
        }
    }
    EXPECT_EQ(n, std::size(expected));
}

TEST(DockPolicy, OwnWindowsShowTheIconWhenThePreferenceIsOff) {
    EXPECT_EQ(dockPolicy(true, {}), ActivationPolicy::regular);
    EXPECT_EQ(dockPolicy(false, {}), ActivationPolicy::accessory);
    EXPECT_EQ(dockPolicy(false, {"settings"}), ActivationPolicy::regular);
    EXPECT_EQ(dockPolicy(false, {"main-AppWindow-1"}), ActivationPolicy::regular);
    EXPECT_EQ(dockPolicy(false, {"recover-2", "tooltip"}), ActivationPolicy::regular);
    EXPECT_EQ(dockPolicy(false, {"tooltip", "menubar-panel"}), ActivationPolicy::accessory);
    for (const char* id : {"onboarding", "login", "main", "settings", "recover"}) EXPECT_TRUE(isApplicationWindow(id));
    EXPECT_FALSE(isApplicationWindow("xmain"));
}

TEST(QuitDecision, QuitsAtOnceWithoutARecordingAndAsksWithOne) {
    EXPECT_FALSE(quitAlert(false));
    auto now = quitSteps(false);
    EXPECT_TRUE(now.runCleanUp && now.terminate && !now.stopRecording);

    setInterfaceLanguage(Language::Spanish);
    auto alert = quitAlert(true);
    ASSERT_TRUE(alert);
    EXPECT_EQ(alert->message, "La grabación se detendrá. ¿Salir de Vell?");
    EXPECT_EQ(alert->informativeText, "La parte guardada quedará en esta computadora y se subirá cuando Vell pueda conectarse.");
    EXPECT_EQ(alert->stopButton, "Detener y salir");
    EXPECT_EQ(alert->keepButton, "Seguir grabando");
    setInterfaceLanguage(Language::English);
    alert = quitAlert(true);
    EXPECT_EQ(alert->message, "The recording will stop. Quit Vell?");
    EXPECT_EQ(alert->informativeText, "The saved part will remain on this computer and upload when Vell can connect.");
    EXPECT_EQ(alert->stopButton, "Stop and quit");
    EXPECT_EQ(alert->keepButton, "Keep recording");
}

}  // namespace
}  // namespace vell::app
