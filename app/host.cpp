#include "app/host.h"

#include "app/app_preferences.h"
#include "app/quit_decision.h"
#include "base/log.h"
#include "recording/recorder_service.h"

namespace vell::app {

namespace {
const log::Logger kLog("Host");
}

Host::Host(CoreServices& core, HostPorts ports, HostServices services, UserDefaults& defaults, Executor& main)
    : core_(core), ports_(std::move(ports)), services_(std::move(services)), defaults_(defaults), main_(main) {
    std::weak_ptr<int> alive = alive_;
    if (ports_.notifications) {
        ports_.notifications->onResponse = [this, alive](const NotificationResponse& response) {
            main_.post([this, alive, response] {
                if (!alive.expired()) route(response);
            });
        };
    }
    if (ports_.sleep) {
        ports_.sleep->onChange = [this, alive](bool willSleep) {
            main_.post([this, alive, willSleep] {
                if (alive.expired()) return;
                kLog.info(willSleep ? "the computer is going to sleep" : "the computer woke up");
                asleep.set(willSleep);
            });
        };
    }
}

Host::~Host() {
    if (ports_.notifications) ports_.notifications->onResponse = nullptr;
    if (ports_.sleep) ports_.sleep->onChange = nullptr;
    shutdownLimit_.cancel();
}

void Host::start() {
    if (started_) return;
    started_ = true;
    if (ports_.loginItem) {
        AppPreferences preferences(defaults_, *ports_.loginItem);
        preferences.applyOpenAtLoginDefault();
    }
    // The recorder first: its recovery settles the pending list before the adoption and
    // the upload queue look at it.
    core_.recorder();
    LaunchSteps steps;
    steps.registerNotificationCategories = [this](const std::vector<NotificationCategory>& categories) {
        if (ports_.notifications) ports_.notifications->registerCategories(categories);
    };
    steps.startInsuranceRecorder = services_.startInsuranceRecorder;
    steps.startAgentPoller = services_.startAgentPoller;
    steps.startCallRecorder = services_.startCallRecorder;
    steps.startDiscardedPurge = services_.startDiscardedPurge;
    steps.startCalendarRecorder = services_.startCalendarRecorder;
    steps.showMenuBarTip = showMenuBarTip;
    launch_ = std::make_unique<LaunchSequence>(std::move(steps), defaults_, main_);
    launch_->run();
    core_.bootstrap();
    core_.startUploading();
}

void Host::quit(std::function<void()> done) {
    if (done) quitWaiters_.push_back(std::move(done));
    if (quitDone_) return finishQuit();
    if (quitting_) return;
    quitting_ = true;
    if (launch_) launch_->cancel();
    auto& recorder = core_.recorder();
    core_.stopUploading();
    const auto steps = quitSteps(recorder.state.isRecording.get(), QuitChoice::stopAndQuit);
    if (steps.stopRecording) {
        kLog.info("quitting: the recording stops and stays ready for upload");
        recorder.stop(true, false);
    }
    if (!services_.shutdownInsurance) return finishQuit();
    std::weak_ptr<int> alive = alive_;
    shutdownLimit_ = main_.postAfter(kShutdownLimitSeconds, [this, alive] {
        if (alive.expired()) return;
        kLog.error("the insurance recorder did not shut down in time");
        finishQuit();
    });
    services_.shutdownInsurance([this, alive] {
        main_.post([this, alive] {
            if (!alive.expired()) finishQuit();
        });
    });
}

void Host::finishQuit() {
    shutdownLimit_.cancel();
    quitDone_ = true;
    auto waiters = std::move(quitWaiters_);
    quitWaiters_.clear();
    for (auto& waiter : waiters) waiter();
    if (onQuitFinished) onQuitFinished();
}

void Host::handleResponses(std::string category, ResponseHandler handler) { handlers_[std::move(category)] = std::move(handler); }

void Host::post(const Notification& notification) {
    if (ports_.notifications) ports_.notifications->post(notification);
    else kLog.info("no notification service; not shown: " + notification.title);
}

void Host::withdraw(const std::string& identifier) {
    if (ports_.notifications) ports_.notifications->withdraw(identifier);
}

void Host::route(const NotificationResponse& response) {
    auto it = handlers_.find(response.category);
    if (it == handlers_.end() || !it->second) {
        kLog.info("no owner for the answer to " + response.identifier);
        return;
    }
    it->second(response);
}

}  // namespace vell::app
