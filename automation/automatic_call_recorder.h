#pragma once
// Records calls by themselves. Once a second it looks at which programs use audio (an
// injected scanner, off the main executor), decides whether a call is going on, starts an
// automatic recording when one begins and stops it when the call is over. A recording the
// user started is never stopped here: once the call seen during it has ended, the user is
// offered to finish it. The decision (apply) is a pure state machine over counters and
// flags, driven by the injected clock. Main executor only; long-lived.
#include <climits>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "automation/call_recorder_ports.h"
#include "automation/call_scan.h"
#include "base/clock.h"
#include "base/executor.h"
#include "base/published.h"
#include "base/user_defaults.h"

namespace vell::automation {

struct AutomaticCallState {
    int activeSamples = 0;      // consecutive active polls while a start is possible
    int weakIdleSamples = 0;    // consecutive weaklyAbsent polls
    int strongIdleSamples = 0;  // consecutive stronglyAbsent polls
    bool ownsRecording = false;
    bool suppressedUntilIdle = false;
    bool startInFlight = false;
    bool warmEndMayResume = false;
    int retrySamples = 0;
    bool operator==(const AutomaticCallState&) const = default;
};

enum class CallPresence { active, weaklyAbsent, stronglyAbsent, unknown };
const char* presenceName(CallPresence presence);

struct CallEndOfferState {
    bool sawCaller = false;
    int goneSamples = 0;
    int strongSamples = 0;
    bool offered = false;
    bool operator==(const CallEndOfferState&) const = default;
};

// A counter that would overflow is a broken invariant, not a value to wrap: the process ends.
void countUp(int& counter);

class AutomaticCallRecorder {
public:
    static constexpr double kPollSeconds = 1.0;
    static constexpr double kGapSeconds = 10.0;
    static constexpr double kScanHungSeconds = 10.0;
    static constexpr double kSystemAudioProbeSeconds = 30.0;
    static constexpr int kStartSamples = 2;
    static constexpr int kWeakIdleStopSamples = 20;
    static constexpr int kStrongIdleStopSamples = 60;
    static constexpr int kOfferGoneSamples = 8;
    static constexpr int kOfferStrongSamples = 60;
    static constexpr int kRetrySamples = 5;

    static constexpr std::string_view kStartedPrefix = "app.quillon.mac.autoRecording.";
    static constexpr std::string_view kOfferIdentifier = "app.quillon.mac.callEnded.offer";

    struct Ports {
        std::shared_ptr<CallScanner> scanner;
        std::shared_ptr<CallRecorderControl> recorder;
        std::shared_ptr<CallNotifier> notifier;
        std::function<bool()> signedIn;
    };

    AutomaticCallRecorder(Ports ports, UserDefaults& defaults, Executor& main, const Clock& clock);
    ~AutomaticCallRecorder();
    AutomaticCallRecorder(const AutomaticCallRecorder&) = delete;
    AutomaticCallRecorder& operator=(const AutomaticCallRecorder&) = delete;

    // The process's instance, once the composition root made it (else nullptr).
    static AutomaticCallRecorder* shared();
    static void setShared(AutomaticCallRecorder* recorder);

    Published<std::vector<std::string>> activeCallers;  // display names, sorted
    Published<bool> isMonitoring{false};
    Published<bool> callEnded{false};
    Published<bool> isEnabled{true};

    // Monitoring: one poll at once, then every second.
    void start();
    void stop();
    // Writes the preference and starts or stops monitoring.
    void setEnabled(bool enabled);
    // Sleeping machines take no samples; the first poll after waking forgets every streak.
    void setAsleep(bool asleep);

    // One poll: looks (unless a look is still under way) and applies the result.
    void tick();
    // The state machine for one poll; nothing means no usable scan.
    void apply(const std::optional<CallerScan>& scan);

    // The user's answer to one of this recorder's notifications.
    void handleAction(std::string_view action);

    // For status and tests.
    const AutomaticCallState& state() const { return state_; }
    const CallEndOfferState& offer() const { return offer_; }
    CallPresence lastPresence() const { return lastPresence_; }
    bool lastStartEligible() const { return lastStartEligible_; }
    const std::vector<Caller>& lastCallers() const { return lastCallers_; }
    // enabled, monitoring, callers, presence, eligibility, counters and flags, as JSON text.
    std::string statusJson() const;

private:
    void forgetStreaks();
    void startRecording();
    void stopAutomaticRecording(CallPresence presence);
    void runOffer(CallPresence presence, bool callersPresent);
    bool systemSilent() const;

    Ports ports_;
    UserDefaults& defaults_;
    Executor& main_;
    const Clock& clock_;

    AutomaticCallState state_;
    CallEndOfferState offer_;
    std::optional<std::string> offerSeenCurrentID_;
    TimerHandle timer_;
    std::optional<WallTime> lastSystemAudioProbeAt_;
    std::optional<std::string> pendingStartToken_;
    bool lastStartEligible_ = false;
    CallPresence lastPresence_ = CallPresence::unknown;
    std::optional<WallTime> lastPollAt_;
    bool wasRecording_ = false;
    bool scanInFlight_ = false;
    WallTime scanStartedAt_{};
    bool asleep_ = false;
    bool forgetOnNextPoll_ = false;
    std::vector<Caller> lastCallers_;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace vell::automation
