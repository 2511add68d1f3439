#include "app/composition_calls.h"

#include "app/composition.h"
#include "app/core_services.h"
#include "app/host.h"
#include "automation/automatic_call_recorder.h"
#include "automation/call_messages.h"
#include "automation/recorder_call_control.h"
#include "base/runtime.h"
#include "base/user_defaults.h"
#include "platform/pulse/call_scan.h"

namespace vell::app {

static_assert(automation::ids::kAutoRecordingActive == notifications::kAutoRecordingActive);
static_assert(automation::ids::kCallEnded == notifications::kCallEnded);
static_assert(automation::ids::kStopAutoRecording == notifications::kStopAutoRecording);
static_assert(automation::ids::kFinishRecording == notifications::kFinishRecording);
static_assert(automation::ids::kKeepRecording == notifications::kKeepRecording);

namespace {

class HostCallNotifier final : public automation::CallNotifier {
public:
    explicit HostCallNotifier(Host& host) : host_(host) {}
    void post(const automation::CallNotification& n) override {
        host_.post(Notification{n.identifier, n.category, n.title, n.body});
    }
    void withdraw(const std::string& identifier) override { host_.withdraw(identifier); }

private:
    Host& host_;
};

}  // namespace

void startCallRecorder(Host& host) {
    if (automation::AutomaticCallRecorder::shared()) return;
    auto& core = host.core();
    automation::AutomaticCallRecorder::Ports ports;
    ports.scanner = std::make_shared<pulse::PulseCallScanner>();
    ports.recorder = std::make_shared<automation::RecorderCallControl>(core.recorder(), runtime::clock());
    ports.notifier = std::make_shared<HostCallNotifier>(host);
    ports.signedIn = [&core] { return core.appState().phase.get() == AppState::Phase::signedIn; };
    // Lives as long as the process: its timer and the host's routes refer to it.
    auto* calls = new automation::AutomaticCallRecorder(std::move(ports), UserDefaults::standard(), runtime::main(),
                                                        runtime::clock());
    automation::AutomaticCallRecorder::setShared(calls);
    auto route = [calls](const NotificationResponse& response) { calls->handleAction(response.action); };
    host.handleResponses(std::string(notifications::kAutoRecordingActive), route);
    host.handleResponses(std::string(notifications::kCallEnded), route);
    static Subscription sleepWatch = host.asleep.subscribe([calls](bool asleep) { calls->setAsleep(asleep); });
    if (calls->isEnabled.get()) calls->start();
}

}  // namespace vell::app
