// The host over the real core services (the recorder on fake audio, an API client that
// reaches nothing), driven on a manual clock: the launch order, the open-at-login default,
// quitting while recording, notification answers and sleep routed on the main executor.
#include <gtest/gtest.h>

#include "app/core_services.h"
#include "app/host.h"
#include "base/manual_executor.h"
#include "base/preference_keys.h"
#include "base/runtime.h"
#include "recording/recorder_service.h"
#include "tests/recording/recorder_fakes.h"
#include "tests/service/no_secret_service.h"
#include "tests/support/temp_home.h"

namespace vell::app {
namespace {

class FakeLoginItem final : public LoginItemService {
public:
    LoginItemStatus status() const override { return current; }
    Expected<Unit, std::string> registerItem() override {
        ++registers;
        current = LoginItemStatus::enabled;
        return Unit{};
    }
    Expected<Unit, std::string> unregisterItem() override { return Unit{}; }
    LoginItemStatus current = LoginItemStatus::notRegistered;
    int registers = 0;
};

class FakeNotifications final : public NotificationCenter {
public:
    void registerCategories(const std::vector<NotificationCategory>& c) override { categories = c.size(); }
    void post(const Notification& n) override { posted.push_back(n.identifier); }
    void withdraw(const std::string& id) override { withdrawn.push_back(id); }
    size_t categories = 0;
    std::vector<std::string> posted, withdrawn;
};

class FakeSleep final : public SleepEvents {};

class HostTest : public ::testing::Test {
protected:
    HostTest() : exec(clock), client("http://127.0.0.1:9/") {
        runtime::install(&exec, &clock);
        core = std::make_unique<CoreServices>(
            client, [this]() -> recording::RecorderService& {
                recorder = std::make_unique<recording::RecorderService>(rig.parts(), home.dataHome() / "rec");
                return *recorder;
            },
            home.defaults(), exec, clock);
        ports.notifications = notifications;
        ports.sleep = sleep;
        ports.loginItem = loginItem;
    }
    ~HostTest() override {
        host.reset();
        core.reset();
        recorder.reset();
        runtime::install(nullptr, nullptr);
    }
    Host& make(HostServices services = {}) {
        host = std::make_unique<Host>(*core, ports, std::move(services), home.defaults(), exec);
        return *host;
    }

    test::TempHome home;
    service::testing::NoSecretService noKeyring;
    ManualClock clock;
    ManualExecutor exec;
    service::APIClient client;
    recording::fakes::Rig rig;
    std::unique_ptr<recording::RecorderService> recorder;
    std::unique_ptr<CoreServices> core;
    std::shared_ptr<FakeNotifications> notifications = std::make_shared<FakeNotifications>();
    std::shared_ptr<FakeSleep> sleep = std::make_shared<FakeSleep>();
    std::shared_ptr<FakeLoginItem> loginItem = std::make_shared<FakeLoginItem>();
    HostPorts ports;
    std::unique_ptr<Host> host;
};

TEST_F(HostTest, LaunchRunsTheServicesInOrderOnceAndRegistersForLoginOnce) {
    std::vector<std::string> order;
    HostServices services;
    services.startInsuranceRecorder = [&] { order.push_back("insurance:" + std::to_string(notifications->categories)); };
    services.startAgentPoller = [&] { order.push_back("agent"); };
    services.startCallRecorder = [&] { order.push_back("calls"); };
    services.startDiscardedPurge = [&] { order.push_back("purge"); };
    services.startCalendarRecorder = [&] { order.push_back("calendar"); };
    auto& h = make(services);
    h.start();
    h.start();
    exec.runPending();
    // The categories are registered before the first service starts.
    EXPECT_EQ(order, (std::vector<std::string>{"insurance:3", "agent", "calls", "purge", "calendar"}));
    EXPECT_TRUE(recorder) << "the recorder (and its recovery) exists once the host started";
    EXPECT_EQ(loginItem->registers, 1);
    EXPECT_EQ(home.defaults().boolValue(prefs::kOpenAtLoginDefaultApplied), true);

    // A user who turned it off stays off at the next launch.
    loginItem->current = LoginItemStatus::notRegistered;
    host.reset();
    make().start();
    exec.runPending();
    EXPECT_EQ(loginItem->registers, 1);
}

TEST_F(HostTest, QuitWhileRecordingKeepsTheRecordingForUploadAndWaitsForTheInsuranceShutdown) {
    std::function<void()> insuranceDone;
    HostServices services;
    services.shutdownInsurance = [&](std::function<void()> done) { insuranceDone = std::move(done); };
    auto& h = make(services);
    h.start();
    std::optional<bool> started;
    core->recorder().start({}, [&](bool ok) { started = ok; });
    ASSERT_TRUE(exec.runUntil([&] { return started.has_value(); }));
    ASSERT_TRUE(*started);

    int quits = 0, finished = 0;
    h.onQuitFinished = [&] { ++finished; };
    h.quit([&] { ++quits; });
    h.quit([&] { ++quits; });  // a second signal while quitting only waits
    exec.runPending();
    EXPECT_FALSE(core->recorder().state.isRecording.get());
    ASSERT_EQ(core->recorder().pending().size(), 1u);
    EXPECT_EQ(core->recorder().pending()[0].status, recording::PendingRecording::Status::ready);
    EXPECT_EQ(quits, 0) << "the insurance recorder is still shutting down";
    ASSERT_TRUE(insuranceDone);
    insuranceDone();
    exec.runPending();
    EXPECT_EQ(quits, 2);
    EXPECT_EQ(finished, 1);
}

TEST_F(HostTest, AnInsuranceShutdownThatHangsIsCutAfterTwoSeconds) {
    HostServices services;
    services.shutdownInsurance = [](std::function<void()>) {};
    auto& h = make(services);
    h.start();
    bool done = false;
    h.quit([&] { done = true; });
    exec.advance(1.9);
    EXPECT_FALSE(done);
    exec.advance(0.2);
    EXPECT_TRUE(done);
}

TEST_F(HostTest, AnswersAndSleepReachTheirOwnersOnTheMainExecutor) {
    auto& h = make();
    std::vector<std::string> handled;
    h.handleResponses("app.quillon.mac.callEnded", [&](const NotificationResponse& r) { handled.push_back(r.action); });
    std::vector<bool> asleep;
    auto watching = h.asleep.subscribe([&](bool value) { asleep.push_back(value); });

    std::thread([&] {
        notifications->onResponse({"n1", "app.quillon.mac.callEnded", "app.quillon.mac.keepRecording"});
        notifications->onResponse({"n2", "app.quillon.mac.unknown", "x"});
        sleep->onChange(true);
        sleep->onChange(false);
    }).join();
    EXPECT_TRUE(handled.empty()) << "nothing runs off the main executor";
    exec.runPending();
    EXPECT_EQ(handled, (std::vector<std::string>{"app.quillon.mac.keepRecording"}));
    EXPECT_EQ(asleep, (std::vector<bool>{true, false}));
}

}  // namespace
}  // namespace vell::app
