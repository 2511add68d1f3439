#pragma once
// The tray as a front end of another host (`vell daemon`, or another tray) over the
// control interface. Every call runs on one worker thread that owns the bus connection, so
// the GUI thread never waits on the bus; answers come back on the GUI thread. The host's
// state is polled twice a second (the pending list and the automations less often; the
// live advice while a recording runs and a little after).
#include <QTimer>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "app/app_preferences.h"
#include "tray/backend.h"

namespace vell::dbus {
class ControlClient;
}

namespace vell::tray {

class RemoteBackend final : public Backend {
    Q_OBJECT
public:
    // Takes a connected client (made by ControlClient::connect()).
    explicit RemoteBackend(std::unique_ptr<dbus::ControlClient> client);
    ~RemoteBackend() override;

    const TrayState& state() const override { return state_; }
    bool remote() const override { return true; }
    // The host stopped answering (it quit).
    bool lost() const { return lost_; }

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
    void cancelSecondFactor() override {}
    void signOut() override;
    void setCallsEnabled(bool enabled) override;
    void setCalendarEnabled(bool enabled) override;
    void addCalendarSource(const std::string& source, Reply done) override;
    void removeCalendarSource(const std::string& source, Reply done) override;
    // This user's own settings, kept on this computer whoever hosts the recordings.
    void setShowsDockIcon(bool shows) override;
    void setOpensAtLogin(bool opens) override;
    void setMicrophone(bool, const std::string&) override {}
    void recoverChoose(RecoveryRange range, int customMinutes) override;
    void recoverClose() override;
    const RecoveryView& recovery() const override { return recovery_; }
    void recoverCopy(const std::string& selectedText) override;
    void recoverPlay() override {}
    void recoverPause() override {}
    void listRecordings(Answer<std::vector<ResultItem>> done) override;
    void recordingDetail(const std::string& id, Answer<ResultItem> done) override;
    void renameSpeakers(const std::string& id, const std::map<int, std::string>& names,
                        Answer<results::RecordingResult> done) override;
    void shareRecording(const std::string& id, Answer<SharedLink> done) override;
    void quit(std::function<void()> done) override;
    void quitHost(std::function<void()> done) override;

signals:
    void hostLost();

private:
    using Job = std::function<void(dbus::ControlClient&)>;
    // Runs job on the worker; its answer is handed to the GUI thread with onGui().
    void enqueue(Job job);
    void onGui(std::function<void()> work);
    void poll();
    void pollRecovery();
    void simple(std::function<void(dbus::ControlClient&)> call);

    void readPreferences();

    std::unique_ptr<dbus::ControlClient> client_;
    std::shared_ptr<app::LoginItemService> loginItem_;
    std::unique_ptr<app::AppPreferences> preferences_;
    TrayState state_;
    RecoveryView recovery_;
    int recoveryRun_ = 0;
    bool polling_ = false, lost_ = false, quittingHost_ = false;
    int polls_ = 0;
    // Polls that still read the live advice after a recording ended (its last cues).
    int liveTail_ = 0;
    long uploadedSeen_ = -1;
    QTimer timer_, recoveryTimer_;

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Job> jobs_;
    bool stopping_ = false;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
    std::thread worker_;
};

}  // namespace vell::tray
