#pragma once
// The controller of insurance mode: while the user's switch is on it keeps a dedicated
// microphone capture running into the chunk writer, keeps the buffer folder within the
// chosen window and byte cap, and heals itself when the microphone stalls, the chosen
// device changes or the computer sleeps and wakes. Independent of the conversation recorder.
//
// Main executor: all published state, timers and decisions. The microphone queue
// ("app.quillon.mac.insurance.mic"): every start and stop of the microphone, the seal after
// a stop, the pause of a restart and the wipe of the folder. The capture thread: the
// writer's append.
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "audio/ports.h"
#include "base/clock.h"
#include "base/executor.h"
#include "base/published.h"
#include "insurance/insurance_buffer_store.h"
#include "insurance/insurance_chunk_writer.h"

namespace vell {
class UserDefaults;
}

namespace vell::insurance {

inline constexpr double kWatchdogSeconds = 5;
inline constexpr double kStallSeconds = 8;
inline constexpr double kWakeRestartSeconds = 2;
inline constexpr double kRestartPauseSeconds = 0.3;
inline constexpr double kShutdownWaitSeconds = 2;

// Below 1 (or missing): 15; otherwise 5...60.
int clampWindowMinutes(long long minutes);
// The larger of (the larger of the window and 1) × 2 MB and 32 MB.
std::int64_t byteCap(int windowMinutes);

// The insurance microphone as the user's choice resolves now.
struct InsuranceDevice {
    audio::MicrophoneTarget target;     // empty: the system default
    std::optional<std::string> uid;     // the device's unique ID, when one was resolved
    std::optional<std::string> name;    // for display
};

struct InsuranceRecorderParts {
    std::shared_ptr<audio::MicrophoneInput> microphone;
    std::function<InsuranceDevice()> resolveDevice;                    // main executor
    std::function<std::optional<std::string>()> defaultInputName;      // main executor
    // Calls back on the main executor when the list of microphones, the default or the
    // insurance choice changed.
    std::function<Subscription(std::function<void()>)> watchDevices;
    std::shared_ptr<Executor> micQueue;
    std::function<void(double seconds)> pause;  // blocks the microphone queue
    media::AacWriterFactory writerFactory;      // empty: the process default
    std::filesystem::path directory;            // empty: the standard buffer folder
};

class InsuranceRecorder {
public:
    InsuranceRecorder(InsuranceRecorderParts parts, UserDefaults& defaults);
    ~InsuranceRecorder();
    InsuranceRecorder(const InsuranceRecorder&) = delete;
    InsuranceRecorder& operator=(const InsuranceRecorder&) = delete;

    // The process's recorder on the installed microphone engines and the shared microphone
    // settings; main executor.
    static InsuranceRecorder& shared();
    static InsuranceRecorderParts defaultParts();

    Published<bool> isEnabled{false};
    Published<int> windowMinutes{15};
    Published<bool> isListening{false};
    Published<std::optional<std::string>> lastError;
    Published<std::optional<std::string>> listeningDeviceName;

    // Once: prunes, follows sleep and wake and device changes, starts when enabled.
    void launch(Published<bool>* asleep);
    void acceptPrivacyAndEnable();
    // Stops listening and erases the whole buffer.
    void disable();
    // At quit, whatever the mode: stops the microphone (waiting at most 2 s), erases the
    // buffer, then calls done on the main executor.
    void shutdown(std::function<void()> done);
    // Stores the clamped value, prunes, and returns what was kept.
    int setWindowMinutes(long long minutes);
    bool privacyAccepted() const;
    void prune();

    InsuranceBufferStore& store() { return *store_; }
    InsuranceChunkWriter& writer() { return *writer_; }
    std::optional<WallTime> listeningSince() const { return listeningSince_; }
    bool starting() const { return starting_; }

private:
    struct StartOutcome {
        bool ok = false;
        bool fellBack = false;
        bool permissionDenied = false;
        std::string error;
    };
    void startListening();
    void finishStart(const StartOutcome& outcome, const InsuranceDevice& device, std::uint64_t stopsAtStart);
    void stopListening();
    void restart();
    void scheduleRestart();
    void watchdogTick();
    void devicesChanged();

    InsuranceRecorderParts parts_;
    UserDefaults& defaults_;
    std::shared_ptr<InsuranceBufferStore> store_;
    std::shared_ptr<InsuranceChunkWriter> writer_;
    bool starting_ = false;
    bool launched_ = false;
    bool asleep_ = false;
    std::uint64_t stops_ = 0;  // counts stops, so a start that a stop overtook is not taken
    TimerHandle pendingRestart_;
    TimerHandle watchdog_;
    Subscription sleepWatch_;
    Subscription deviceWatch_;
    std::optional<std::string> listeningDeviceUID_;
    std::optional<WallTime> listeningSince_;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace vell::insurance
