#pragma once
// A front end's side of the host's control interface (control_protocol.h): the command
// line uses it when a host owns the data folder. Calls block the caller.
#include <memory>
#include <string>
#include <utility>

#include "base/expected.h"

namespace sdbus {
class IConnection;
class IProxy;
}  // namespace sdbus

namespace vell::dbus {

struct ControlError {
    std::string name;     // the D-Bus error name
    std::string message;  // the host's sentence for the user
    bool signedOut() const;
    bool notRecording() const;
};

struct HostStatus {
    std::string phase, userEmail, userID, recordingID, lastError;
    std::string meetingTitle;  // the calendar meeting the recording was started for
    bool recording = false;
    double elapsed = 0, microphoneLevel = 0, systemLevel = 0;
    // Seconds of audio the recording dropped because the stream came faster than real time.
    double microphoneDropped = 0, systemDropped = 0;
};

class ControlClient {
public:
    // A client of the running host; nothing when no host answers on the session bus.
    static std::unique_ptr<ControlClient> connect();
    ~ControlClient();
    ControlClient(const ControlClient&) = delete;
    ControlClient& operator=(const ControlClient&) = delete;

    template <class T>
    using Result = Expected<T, ControlError>;

    Result<HostStatus> status() const;
    Result<std::string> pending() const;
    Result<std::string> upload() const;
    Result<std::pair<std::string, std::string>> startRecording() const;
    Result<std::string> stopRecording(bool discard) const;
    Result<std::string> signIn(const std::string& email, const std::string& password) const;
    Result<Unit> verifyCode(const std::string& code) const;
    Result<Unit> signOut() const;
    Result<std::string> whoAmI() const;
    Result<Unit> quit() const;
    Result<std::string> insuranceStatus() const;
    Result<std::string> insuranceEnable() const;
    Result<std::string> insuranceDisable() const;
    Result<int> insuranceSetWindow(int minutes) const;
    Result<std::string> insuranceChunks() const;
    Result<int> insuranceExport(int minutes, const std::string& path) const;
    Result<std::string> callsStatus() const;
    Result<std::string> setCallsEnabled(bool enabled) const;
    Result<std::string> calendarAdd(const std::string& source) const;
    Result<std::string> calendarRemove(const std::string& source) const;
    Result<Unit> calendarSetEnabled(bool enabled) const;
    Result<std::string> calendarReport(bool upcoming) const;
    Result<std::string> undo() const;
    Result<int> recoverStart(const std::string& range, int minutes) const;
    Result<std::string> recoverProgress(int run) const;
    // StartRecording with this recording's own microphone ("default", "builtin", "uid:NAME").
    Result<std::pair<std::string, std::string>> startRecordingOn(const std::string& microphone) const;
    Result<bool> microphoneFellBack() const;
    Result<std::string> echoCancelStatus() const;
    Result<std::string> setEchoCancelEnabled(bool enabled) const;
    Result<std::string> insuranceRequests() const;
    Result<std::string> recoverPlay() const;
    Result<Unit> recoverStopPlaying() const;
    Result<std::string> recoverCopy() const;
    // Live advice and recording results (JSON; see control_results.cpp).
    Result<std::string> liveAdvice() const;
    Result<std::string> recordings() const;
    Result<std::string> recordingDetail(const std::string& id) const;
    Result<std::string> renameSpeakers(const std::string& id, const std::string& namesJson) const;
    Result<std::string> shareRecording(const std::string& id) const;
    Result<bool> reopen(const std::string& window) const;

private:
    ControlClient() = default;
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IProxy> proxy_;
};

}  // namespace vell::dbus
