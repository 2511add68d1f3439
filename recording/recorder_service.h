#pragma once
// Owns a user recording from the start request until the file is a ready pending entry:
// opens the microphone and the system audio into the mixer, runs the 0.5 s ticker with
// the two automatic stops (5 hours, 10 minutes without speech), stops on a write error,
// reopens a microphone that went away, and keeps the pending list (it is the
// PendingRecordingStore). Creating it loads the list and adopts recordings an
// interrupted run left behind. Lives on the main executor.
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "audio/digital_silence_tracker.h"
#include "base/executor.h"
#include "base/paths.h"
#include "base/published.h"
#include "base/serial_queue.h"
#include "recording/pending_list.h"
#include "recording/pending_recording.h"
#include "recording/recorder_parts.h"

namespace vell::recording {

// How the last recording ended, for the program that asked for it.
struct RecordingStopOutcome {
    std::string id;
    bool kept = true;          // false: nothing was saved, or the file was deleted; the entry is gone
    double savedSeconds = 0;   // audio in the file (whole frames), or the recording's duration
};

struct RecordingStartOptions {
    bool automatic = false;                           // started by an automatic recorder
    std::optional<std::string> calendarMeetingTitle;  // the meeting that started it
    // The microphone of this recording only, instead of the one chosen in the settings.
    std::optional<audio::MicrophoneTarget> microphone;
};

class RecorderService final : public PendingRecordingStore {
public:
    static constexpr double kSampleRate = 44'100;
    static constexpr double kTickSeconds = 0.5;
    // A microphone that could not be reopened is tried again this often while the
    // recording runs (a sound server restarting, a headset reconnecting).
    static constexpr double kMicRetrySeconds = 2.0;
    static constexpr double kMaximumSeconds = 18'000;   // 5 hours
    static constexpr double kSilenceLimitSeconds = 600;  // 10 minutes

    using StartOptions = RecordingStartOptions;

    // What the interface observes; changed on the main executor only.
    struct State {
        Published<bool> isRecording{false};
        Published<double> elapsed{0.0};
        Published<std::optional<std::string>> lastError;
        Published<std::vector<PendingRecording>> pending;
        Published<std::optional<std::string>> calendarMeetingTitle;
        // The recording runs on the system default because the chosen microphone is not
        // connected (or no engine could open it on its own): "Disconnected microphone".
        Published<bool> microphoneFellBack{false};
    };

    explicit RecorderService(RecorderParts parts, std::filesystem::path directory = paths::recordingsDirectory());
    ~RecorderService() override;
    RecorderService(const RecorderService&) = delete;
    RecorderService& operator=(const RecorderService&) = delete;

    // The process's recorder, made on first use from the installed parts provider.
    static RecorderService& shared();
    static void setSharedPartsProvider(std::function<RecorderParts()> provider);

    State state;

    // Asynchronous: the microphone opens on its own queue. `done` runs on the main
    // executor with whether the recording started (false also when a start was ignored).
    void start(StartOptions options = {}, std::function<void(bool started)> done = {});
    void stop(bool userInitiated = true, bool discard = false);
    // Asked as a recording stops without a discard: true discards it instead (a meeting
    // recording nobody spoke in). heardSpeech: the speech detector heard someone since the
    // start (without a usable detector: meaningful audio arrived). Main executor.
    std::function<bool(const std::string& id, bool heardSpeech)> discardAtStop;

    // One-time adoption of recordings made before accounts were tracked.
    int assignAccountToUnowned(const std::string& accountID);
    // Gives the account to the entries this run added without one: audio files recovered
    // at start-up, and recordings started before the signed-in account was known. They
    // were made on this computer by whoever is signed in on it, so they must not wait for
    // an adoption that has already been decided.
    int assignAccountToThisRun(const std::string& accountID);

    // The last stop; nothing before the first one.
    const std::optional<RecordingStopOutcome>& lastStop() const { return lastStop_; }

    bool isStarting() const { return starting_; }
    bool isAutomaticRecording() const { return isAutomaticRecording_; }
    const std::optional<std::string>& currentID() const { return currentID_; }
    bool heardMeaningfulAudio() const { return heardMeaningfulAudio_; }
    std::optional<WallTime> lastMeaningfulAudioAt() const { return lastMeaningfulAudioAt_; }
    std::optional<WallTime> systemSilentSince() const { return systemTapSilence_->silentSince(); }
    const std::filesystem::path& directory() const { return listFile_.directory(); }

    // PendingRecordingStore
    std::vector<PendingRecording> pending() const override { return list_; }
    bool update(const std::string& id, const std::function<void(PendingRecording&)>& change) override;
    void add(PendingRecording recording) override;
    bool remove(const std::string& id) override;
    std::optional<std::string> saveFailure() const override { return saveFailure_; }

private:
    struct Session;

    void loadAndRecover();
    // Saves the list and publishes it; false (and saveFailure()) when the file was not written.
    bool commitList();
    void stopOnWriteError();
    // After a write error: keeps the saved part, or drops the entry when nothing usable is
    // left (the file was deleted, or it holds no whole frame). Sets the message.
    bool keepAfterWriteError(const std::filesystem::path& file);
    // The microphone a session opens: its own, else the one chosen in the settings now.
    audio::MicrophoneTarget chooseTarget(const Session* session);
    // Publishes whether the open microphone is the default standing in for the chosen one.
    void showMicrophoneFallback();
    void startOnMicQueue(std::shared_ptr<Session> session, audio::MicrophoneTarget target, StartOptions options,
                         std::optional<std::string> liveSessionID, std::function<void(bool)> done);
    void startMic(const std::shared_ptr<Session>& session, const audio::MicrophoneTarget& target, bool restart);
    void reopenMic(const std::weak_ptr<Session>& weak, const audio::MicrophoneTarget& target, bool retrying = false);
    void installMixerCallbacks(const std::shared_ptr<Session>& session);
    // False when the recording could not be entered in the pending list (it is then undone).
    bool finishStart(const std::shared_ptr<Session>& session, const StartOptions& options,
                     const std::optional<std::string>& liveSessionID);
    void closeSession(const std::shared_ptr<Session>& session);
    void failStart(const std::string& message);
    void tick();
    std::optional<WallTime> silenceReference() const;
    void markMeaningfulAudio(const std::string& recordingID);
    void stopAutomatically(const std::string& message);

    RecorderParts parts_;
    PendingListFile listFile_;
    std::vector<PendingRecording> list_;

    bool starting_ = false;
    bool chosenFellBack_ = false;  // what the chooser said at the last chooseTarget()
    bool isAutomaticRecording_ = false;
    bool autoStopping_ = false;
    bool rotatingAtLimit_ = false;
    bool heardMeaningfulAudio_ = false;
    std::optional<std::string> currentID_;
    std::set<std::string> unownedThisRun_;
    std::optional<std::string> saveFailure_;
    bool stoppingOnWriteError_ = false;
    std::optional<RecordingStopOutcome> lastStop_;
    std::optional<WallTime> startedAt_;
    std::optional<WallTime> lastMeaningfulAudioAt_;
    std::shared_ptr<Session> session_;
    TimerHandle ticker_;
    std::shared_ptr<audio::DigitalSilenceTracker> systemTapSilence_ = std::make_shared<audio::DigitalSilenceTracker>();
    // Tasks posted to the main executor check it, so none touches a destroyed service.
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
    // Last member: destroyed first, so its thread finishes while everything else exists.
    std::unique_ptr<SerialQueue> micQueue_;
};

}  // namespace vell::recording
