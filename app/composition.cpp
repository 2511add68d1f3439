#include "app/composition.h"

#include <mutex>

#include "app/agent_requests.h"
#include "insurance/insurance_agent_requests.h"
#include "app/composition_calls.h"
#include "app/composition_automation.h"
#include "app/composition_live.h"
#include "app/composition_results.h"
#include "app/core_services.h"
#include "app/echo_cancel_setting.h"
#include "app/host.h"
#include "app/input_levels.h"
#include "app/xdg_autostart_login_item.h"
#include "audio/mic_capture.h"
#include "audio/microphone_settings.h"
#include "audio/realtime_mixer.h"
#include "audio/speech_activity_detector.h"
#include "base/paths.h"
#include "base/runtime.h"
#include "base/user_defaults.h"
#include "insurance/insurance_recorder.h"
#include "platform/dbus/logind_sleep.h"
#include "platform/dbus/notifications.h"
#include "platform/pulse/system_audio_tap.h"
#include "recording/recorder_service.h"
#include "service/api_client.h"

namespace vell::app {

namespace {

// The user's microphone choice, read on the main executor when a recording opens; the
// device list is enumerated only then, not by commands that never record.
class SharedMicrophoneChooser final : public audio::MicrophoneChooser {
public:
    audio::MicrophoneTarget recordingTarget() override { return audio::MicrophoneSettings::shared().recordingTarget(); }
    bool recordingFellBackToDefault() override {
        return audio::MicrophoneSettings::shared().recordingResolution().fellBackToDefault;
    }
    audio::MicrophoneTarget insuranceTarget() override { return audio::MicrophoneSettings::shared().insuranceTarget(); }
};

// The speech detector owns a classifier and a queue thread; build it when the first
// recording resets it, so commands that only list or upload never pay for it.
class LazySpeechDetector final : public audio::SpeechDetector {
public:
    void analyze(audio::PcmBufferPtr buffer) override {
        if (auto d = get(false)) d->analyze(std::move(buffer));
    }
    void reset() override { get(true)->reset(); }
    bool usable() const override {
        auto d = get(false);
        return d && d->usable();
    }
    std::optional<WallTime> lastSpeech() const override {
        auto d = get(false);
        return d ? d->lastSpeech() : std::nullopt;
    }

private:
    std::shared_ptr<audio::SpeechActivityDetector> get(bool create) const {
        std::lock_guard guard(lock_);
        if (!detector_ && create) detector_ = std::make_shared<audio::SpeechActivityDetector>();
        return detector_;
    }
    mutable std::mutex lock_;
    mutable std::shared_ptr<audio::SpeechActivityDetector> detector_;
};
}  // namespace

recording::RecorderParts recorderParts() {
    recording::RecorderParts parts;
    parts.microphone = audio::MicCapture::makeDefault();
    parts.chooser = std::make_shared<SharedMicrophoneChooser>();
    parts.systemAudio = std::make_shared<audio::SystemAudioTap>();
    parts.makeMixer = [](const std::filesystem::path& file, double sampleRate) -> std::unique_ptr<audio::RecordingMixer> {
        // The microphone is cleaned of the system audio's echo before the mix (and so before
        // speech detection), unless the user switched it off.
        applyEchoCancellationSetting(UserDefaults::standard());
        audio::RealtimeMixer::Options options;
        options.echo = &audio::EchoCancellation::shared();
        options.dropped = &audio::DroppedAudio::shared();
        auto metered = std::make_unique<MeteredMixer>(
            std::make_unique<audio::RealtimeMixer>(file, sampleRate, std::move(options)), inputLevels());
        return std::make_unique<live::SideMeteringMixer>(std::move(metered), sideLevelMeter());
    };
    parts.speech = std::make_shared<LazySpeechDetector>();
    // Asked on the main executor when a recording starts.
    parts.accountID = [] { return core().accountID(); };
    parts.hasServiceSession = [] { return core().client().hasSessionCookie(); };
    // The live advisor: a live session while a recording runs with a service session.
    auto& advisor = liveAdvisor();
    parts.liveSegments = advisor.writer();
    parts.liveAdvisor = advisor.hooks();
    parts.liveAdvisor.begin = [begin = parts.liveAdvisor.begin](const std::string& recordingID) {
        attachLiveAdvisor(recording::RecorderService::shared());
        return begin(recordingID);
    };
    return parts;
}

void installComposition() {
    installPlatformBindings();
    recording::RecorderService::setSharedPartsProvider(&recorderParts);
}

namespace {
// The autostart entry starts whichever front end is installed beside this program: the tray
// when there is one, the headless host otherwise.
std::string autostartCommand() {
    std::error_code ec;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) return "vell daemon";
    const auto tray = self.parent_path() / "vell-tray";
    if (std::filesystem::exists(tray, ec)) return tray.string();
    return (self.parent_path() / "vell").string() + " daemon";
}
}  // namespace

Host& host() {
    static Host* made = [] {
        HostPorts ports;
        ports.notifications = dbus::DesktopNotifications::connect();
        ports.sleep = dbus::LogindSleepEvents::connect();
        ports.loginItem = std::make_shared<XdgAutostartLoginItem>(paths::autostartEntry(),
                                                                  autostartCommand());
        HostServices services;
        // Each long-lived service joins the launch sequence here, at its place.
        services.startInsuranceRecorder = [] { insurance::InsuranceRecorder::shared().launch(&host().asleep); };
        services.startAgentPoller = [] { startAgentRequests(host()); };
        services.shutdownInsurance = [](std::function<void()> done) { insurance::InsuranceRecorder::shared().shutdown(std::move(done)); };
        services.startCallRecorder = [] { startCallRecorder(host()); };
        services.startDiscardedPurge = [] {
            startDiscardedPurge();
            // Beside the purge of discarded live sessions: the advisor follows uploads and
            // discards, and the results of every upload are fetched as they are processed.
            attachLiveAdvisor(core().recorder());
            followRecordingResults(core().recorder());
        };
        services.startCalendarRecorder = &startCalendarRecorder;
        return new Host(core(), std::move(ports), std::move(services), UserDefaults::standard(), runtime::main());
    }();
    return *made;
}

CoreServices& core() {
    // Never destroyed: transfers and timers may still complete while the process ends.
    static CoreServices* made = new CoreServices(
        *new service::APIClient(), []() -> recording::RecorderService& { return recording::RecorderService::shared(); },
        UserDefaults::standard(), runtime::main(), runtime::clock());
    return *made;
}

}  // namespace vell::app
