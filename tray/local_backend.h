#pragma once
// The tray as the host: its widgets read the core services of this process directly (on
// the GUI thread, which is the main executor) and act on them. Parts that the host has not
// made (no insurance recorder in a test, the automations before the launch) show as off.
#include <QTimer>
#include <functional>
#include <memory>

#include "app/app_preferences.h"
#include "base/published.h"
#include "tray/backend.h"

namespace vell {
class UserDefaults;
}
namespace vell::app {
class Host;
}
namespace vell::audio {
class MicrophoneSettings;
}
namespace vell::automation {
class AutomaticCallRecorder;
}
namespace vell::insurance {
class InsuranceAgentRequests;
class InsuranceRecorder;
class InsuranceRecoveryController;
}
namespace vell::live {
class LiveAdvisor;
}
namespace vell::results {
class RecordingResults;
}

namespace vell::tray {

struct LocalParts {
    app::Host* host = nullptr;
    UserDefaults* defaults = nullptr;
    std::shared_ptr<app::LoginItemService> loginItem;
    std::function<insurance::InsuranceRecorder*()> insurance;  // null while there is none
    std::function<insurance::InsuranceAgentRequests*()> agentRequests;  // null while there is none
    std::function<audio::MicrophoneSettings*()> microphones;
    std::function<automation::AutomaticCallRecorder*()> calls;
    // The live advisor and the recording results the launch makes; null before (or without).
    std::function<live::LiveAdvisor*()> advisor;
    std::function<results::RecordingResults*()> results;
    // Puts text on the clipboard; false when it was refused.
    std::function<bool(const std::string&)> copy;
    // Another reader (the control interface) takes the input peaks on its own tick; the
    // tray then only looks at them.
    bool levelsTakenElsewhere = false;
};

// The production parts: the process's host and shared services.
LocalParts processParts();
// This program's start-up entry in the desktop's autostart folder.
std::shared_ptr<app::LoginItemService> desktopLoginItem();

class LocalBackend final : public Backend {
    Q_OBJECT
public:
    explicit LocalBackend(LocalParts parts);
    ~LocalBackend() override;

    const TrayState& state() const override { return state_; }
    bool remote() const override { return false; }

    void startRecording() override;
    void stopRecording(bool discard) override;
    void retryUploads() override;
    void undo() override;
    void enableInsurance() override;
    void disableInsurance() override;
    void setInsuranceWindow(int minutes) override;
    void signIn(const std::string& email, const std::string& password,
                std::function<void(Expected<bool, std::string>)> done) override;
    void verifyCode(const std::string& code, Reply done) override;
    void cancelSecondFactor() override;
    void signOut() override;
    void setCallsEnabled(bool enabled) override;
    void setCalendarEnabled(bool enabled) override;
    void addCalendarSource(const std::string& source, Reply done) override;
    void removeCalendarSource(const std::string& source, Reply done) override;
    void setShowsDockIcon(bool shows) override;
    void setOpensAtLogin(bool opens) override;
    void setMicrophone(bool insurance, const std::string& encoded) override;
    void refreshMicrophones() override;
    void recoverChoose(RecoveryRange range, int customMinutes) override;
    void recoverClose() override;
    const RecoveryView& recovery() const override { return recovery_; }
    void recoverCopy(const std::string& selectedText) override;
    void recoverPlay() override;
    void recoverPause() override;
    void listRecordings(Answer<std::vector<ResultItem>> done) override;
    void recordingDetail(const std::string& id, Answer<ResultItem> done) override;
    void renameSpeakers(const std::string& id, const std::map<int, std::string>& names,
                        Answer<results::RecordingResult> done) override;
    void shareRecording(const std::string& id, Answer<SharedLink> done) override;
    void quit(std::function<void()> done) override;

    // Rebuilds the state now (tests; the widgets get it on the next turn of the loop).
    void rebuild();
    // Whether another reader takes the input peaks (see LocalParts).
    void setLevelsTakenElsewhere(bool taken) { parts_.levelsTakenElsewhere = taken; }

private:
    void watch();
    void watchLate();
    void scheduleRebuild();
    void rebuildRecovery();
    void refreshLoginItem();
    insurance::InsuranceRecoveryController* recoveryController();
    results::RecordingResults* recordingResults() const;
    // No results here (yet): says so on a later turn of the loop, as the services answer.
    template <class T>
    void unavailable(Answer<T> done);

    LocalParts parts_;
    TrayState state_;
    RecoveryView recovery_;
    std::unique_ptr<app::AppPreferences> preferences_;
    std::unique_ptr<insurance::InsuranceRecoveryController> recovery_controller_;
    std::vector<Subscription> watches_, lateWatches_, recoveryWatches_;
    bool insuranceWatched_ = false, callsWatched_ = false, calendarWatched_ = false, discardsWatched_ = false;
    bool adviceWatched_ = false, resultsWatched_ = false, agentWatched_ = false;
    std::map<std::string, std::string> resultStates_;  // id -> processing state, of the results kept
    std::optional<std::string> lastDiscard_;
    bool rebuildPosted_ = false;
    long long sinceLaunch_ = 0, sinceLoginCheck_ = 0;  // milliseconds of ticks
    bool loginItemMissing_ = false;
    QTimer tick_;
};

}  // namespace vell::tray
