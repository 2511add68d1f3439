#pragma once
// What the tray's widgets show and what they can ask for, whoever hosts the services: this
// process (LocalBackend, over the core on the GUI thread) or another host reached over the
// control interface (RemoteBackend). Widgets read state() when changed() fires and call the
// actions; answers that take time come back through callbacks, always on the GUI thread.
#include <QObject>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/expected.h"
#include "insurance/agent_answer.h"
#include "live/live_api.h"
#include "results/recording_result.h"

namespace vell::live {
struct LiveAdvice;
}

namespace vell::tray {

enum class SignInPhase { launching, signedOut, mfaRequired, signedIn };

struct PendingRow {
    std::string id;
    std::string status;  // the stored status name: recording, ready, uploading, uploaded, failed, discarded
    WallTime startedAt{};
    std::optional<WallTime> finishedAt;
    std::string lastError;
    long long attempts = 0;
    std::optional<double> progress;  // 0...1 while it uploads
    bool operator==(const PendingRow&) const = default;
};

struct MicrophoneOption {
    std::string encoded;  // "default", "builtin" or "uid:" + UID
    std::string label;
    bool bluetooth = false;
    bool operator==(const MicrophoneOption&) const = default;
};

// The live advice of the running recording (or of the last one, once it stopped).
struct LiveState {
    std::string sessionID;          // empty: no live session for the running or last recording
    std::vector<live::Tile> tiles;  // the latest advice, heaviest first
    std::string message;            // what is wrong with live advice right now, if anything
    bool closed = false;            // the recording ended and the service was told
    bool operator==(const LiveState&) const = default;
};

// What the live advisor (here or in another host) says, as the widgets show it.
LiveState liveStateOf(const live::LiveAdvice& advice);

// One recording as the service (or the copy kept on this computer) tells it.
struct ResultItem {
    results::RecordingResult result;
    std::string offline;  // set when this is the copy kept here: why the service was not asked
};

// The link of a shared recording, and whether it is on the clipboard now.
struct SharedLink {
    std::string url;
    bool copied = false;
};

struct TrayState {
    SignInPhase phase = SignInPhase::launching;
    std::string email;

    bool recording = false;
    bool starting = false;
    double elapsed = 0;
    double microphoneLevel = 0, systemLevel = 0;  // 0...1
    std::string microphone;                       // the microphone a recording opens
    bool microphoneDisconnected = false;          // the chosen one is not connected
    std::string calendarMeeting;                  // the meeting being recorded, if any
    std::string lastError;

    std::vector<std::string> callers;
    std::vector<PendingRow> pending;

    bool undoAvailable = false;
    std::string undoMeeting;
    double undoSecondsLeft = 0;

    bool insuranceEnabled = false, insuranceListening = false, privacyAccepted = false;
    int insuranceWindowMinutes = 15;
    double bufferedSeconds = 0;
    std::string insuranceDevice, insuranceError;
    std::vector<insurance::AgentAnswer> agentRequests;  // the host's newest answers, oldest first

    bool callsEnabled = true, calendarEnabled = false;
    std::vector<std::string> calendarSources;
    bool showsDockIcon = true, opensAtLogin = false, loginNeedsApproval = false, loginItemMissing = false;
    std::vector<MicrophoneOption> microphones;
    std::string recordingMicrophone = "default", insuranceMicrophone = "default";
    int microphoneCount = -1;  // input devices found; -1 when this front end cannot tell

    LiveState live;

    // A recording waits after a failed upload (and is not on its way now).
    bool uploadTrouble() const;
};

enum class RecoveryRange { lastMinute, lastFive, custom, all };

struct RecoveryView {
    enum class Phase { idle, transcribing, improving, failed };
    Phase phase = Phase::idle;
    std::string display;           // the draft (behind its prefix) or the final text
    std::string message;           // why it failed
    std::string copyConfirmation;  // "Copied", ...
    bool hasSelection = false;
    bool finished = false;         // a final text is shown
    bool canPlay = false;          // preview playback is offered by this host
    bool playing = false;
    double position = 0;           // seconds into the preview
};

class Backend : public QObject {
    Q_OBJECT
public:
    using Reply = std::function<void(std::optional<std::string> error)>;
    // The answer, or why there is none as one sentence in the interface language.
    template <class T>
    using Answer = std::function<void(Expected<T, std::string>)>;

    ~Backend() override = default;

    virtual const TrayState& state() const = 0;
    // Another process hosts the services; settings kept by that host are read-only here.
    virtual bool remote() const = 0;

    virtual void startRecording() = 0;
    virtual void stopRecording(bool discard) = 0;
    // Uploads now whatever waits (a failed recording is tried again at once).
    virtual void retryUploads() = 0;
    virtual void undo() = 0;

    virtual void enableInsurance() = 0;  // also accepts the privacy explanation
    virtual void disableInsurance() = 0;
    virtual void setInsuranceWindow(int minutes) = 0;

    // done: true when a second factor is asked for, or the error's sentence.
    virtual void signIn(const std::string& email, const std::string& password,
                        std::function<void(Expected<bool, std::string>)> done) = 0;
    // Six digits are a time-based code; anything else a backup code.
    virtual void verifyCode(const std::string& code, Reply done) = 0;
    virtual void cancelSecondFactor() = 0;
    virtual void signOut() = 0;

    virtual void setCallsEnabled(bool enabled) = 0;
    virtual void setCalendarEnabled(bool enabled) = 0;
    virtual void addCalendarSource(const std::string& source, Reply done) = 0;
    virtual void removeCalendarSource(const std::string& source, Reply done) = 0;
    virtual void setShowsDockIcon(bool shows) = 0;
    virtual void setOpensAtLogin(bool opens) = 0;
    virtual void setMicrophone(bool insurance, const std::string& encoded) = 0;
    // Looks for microphones again.
    virtual void refreshMicrophones() {}

    virtual void recoverChoose(RecoveryRange range, int customMinutes) = 0;
    virtual void recoverClose() = 0;
    virtual const RecoveryView& recovery() const = 0;
    // Copies the shown text (or the given selection of it) and confirms.
    virtual void recoverCopy(const std::string& selectedText) = 0;
    virtual void recoverPlay() = 0;
    virtual void recoverPause() = 0;

    // What the service made of the recordings: the account's list, one recording in full,
    // its speakers named ({number -> name}; an empty name restores the default) and a link
    // to its summary and transcript, which is put on the clipboard.
    virtual void listRecordings(Answer<std::vector<ResultItem>> done) = 0;
    virtual void recordingDetail(const std::string& id, Answer<ResultItem> done) = 0;
    virtual void renameSpeakers(const std::string& id, const std::map<int, std::string>& names,
                                Answer<results::RecordingResult> done) = 0;
    virtual void shareRecording(const std::string& id, Answer<SharedLink> done) = 0;

    // Stop and quit: a recording stops and stays ready for upload; done once the host
    // let go (a front end of another host only closes itself).
    virtual void quit(std::function<void()> done) = 0;
    // The same, and the host quits too (a front end's "stop and quit"); a host is itself.
    virtual void quitHost(std::function<void()> done) { quit(std::move(done)); }

signals:
    void changed();
    void recoveryChanged();
    // A discard that can be undone has just happened.
    void discarded();
    // The recordings' results may have moved on (one was uploaded or processed): a shown
    // list is worth asking for again.
    void resultsChanged();
};

}  // namespace vell::tray
