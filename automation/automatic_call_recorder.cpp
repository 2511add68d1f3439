#include "automation/automatic_call_recorder.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "automation/call_messages.h"
#include "base/log.h"
#include "base/preference_keys.h"
#include "base/uuid.h"

namespace vell::automation {

namespace {
const log::Logger kLog("AutomaticCallRecorder");
std::atomic<AutomaticCallRecorder*> sharedRecorder{nullptr};

double secondsBetween(WallTime from, WallTime to) { return std::chrono::duration<double>(to - from).count(); }
}  // namespace

const char* presenceName(CallPresence presence) {
    switch (presence) {
        case CallPresence::active: return "active";
        case CallPresence::weaklyAbsent: return "weaklyAbsent";
        case CallPresence::stronglyAbsent: return "stronglyAbsent";
        case CallPresence::unknown: return "unknown";
    }
    return "unknown";
}

void countUp(int& counter) {
    if (__builtin_add_overflow(counter, 1, &counter)) {
        kLog.error("a call sample counter overflowed");
        std::abort();
    }
}

AutomaticCallRecorder* AutomaticCallRecorder::shared() { return sharedRecorder.load(); }
void AutomaticCallRecorder::setShared(AutomaticCallRecorder* recorder) { sharedRecorder.store(recorder); }

AutomaticCallRecorder::AutomaticCallRecorder(Ports ports, UserDefaults& defaults, Executor& main, const Clock& clock)
    : ports_(std::move(ports)), defaults_(defaults), main_(main), clock_(clock) {
    isEnabled.set(defaults_.boolValue(prefs::kAutoRecordCalls).value_or(prefs::kAutoRecordCallsDefault));
}

AutomaticCallRecorder::~AutomaticCallRecorder() {
    timer_.cancel();
    if (shared() == this) setShared(nullptr);
}

void AutomaticCallRecorder::start() {
    if (timer_.active()) return;
    isMonitoring.set(true);
    tick();
    std::weak_ptr<int> alive = alive_;
    timer_ = main_.repeat(kPollSeconds, [this, alive] {
        if (!alive.expired()) tick();
    });
}

void AutomaticCallRecorder::stop() {
    timer_.cancel();
    timer_ = {};
    isMonitoring.set(false);
}

void AutomaticCallRecorder::setEnabled(bool enabled) {
    defaults_.set(prefs::kAutoRecordCalls, enabled);
    isEnabled.set(enabled);
    if (enabled) start();
    else stop();
}

void AutomaticCallRecorder::setAsleep(bool asleep) {
    if (asleep_ && !asleep) forgetOnNextPoll_ = true;
    asleep_ = asleep;
}

void AutomaticCallRecorder::tick() {
    if (asleep_) return;
    const auto now = clock_.now();
    if (scanInFlight_) {
        // A look that never came back counts as failed; it is not started again meanwhile.
        if (secondsBetween(scanStartedAt_, now) > kScanHungSeconds) apply(std::nullopt);
        return;
    }
    scanInFlight_ = true;
    scanStartedAt_ = now;
    std::weak_ptr<int> alive = alive_;
    ports_.scanner->scan([this, alive](std::optional<CallerScan> scan) {
        main_.post([this, alive, scan = std::move(scan)] {
            if (alive.expired()) return;
            scanInFlight_ = false;
            apply(scan);
        });
    });
}

void AutomaticCallRecorder::forgetStreaks() {
    pendingStartToken_.reset();
    state_.startInFlight = false;
    state_.activeSamples = state_.weakIdleSamples = state_.strongIdleSamples = 0;
    offer_.goneSamples = offer_.strongSamples = 0;
}

bool AutomaticCallRecorder::systemSilent() const { return ports_.recorder->systemAudioSilent(); }

void AutomaticCallRecorder::apply(const std::optional<CallerScan>& scan) {
    auto& recorder = *ports_.recorder;
    auto& s = state_;
    const auto now = clock_.now();

    // 1. A machine that slept, a stalled timer or a clock set back: half-counted streaks
    //    say nothing about now.
    if (forgetOnNextPoll_ ||
        (lastPollAt_ && (secondsBetween(*lastPollAt_, now) > kGapSeconds || now < *lastPollAt_))) {
        forgetStreaks();
    }
    forgetOnNextPoll_ = false;
    lastPollAt_ = now;

    // 2. System-audio probe, never more often than every 30 s.
    if (!lastSystemAudioProbeAt_ || secondsBetween(*lastSystemAudioProbeAt_, now) >= kSystemAudioProbeSeconds) {
        lastSystemAudioProbeAt_ = now;
        recorder.refreshSystemAudio();
    }

    // 3. Callers and presence.
    lastCallers_.clear();
    if (scan) lastCallers_.assign(scan->callers.begin(), scan->callers.end());
    std::vector<std::string> names;
    for (const auto& c : lastCallers_) names.push_back(c.displayName);
    std::sort(names.begin(), names.end());
    if (names != activeCallers.get()) activeCallers.set(names);

    const bool recording = recorder.isRecording();
    const bool callersPresent = !lastCallers_.empty();
    CallPresence presence;
    if (!scan) {
        presence = CallPresence::unknown;
    } else if (!callersPresent) {
        presence = scan->allProcessesClassified ? CallPresence::weaklyAbsent : CallPresence::unknown;
    } else if (std::any_of(lastCallers_.begin(), lastCallers_.end(), [](const Caller& c) { return c.isRunningOutput; })) {
        presence = CallPresence::active;
    } else if (recording && systemSilent()) {
        // The call app still holds the microphone but nothing plays: maybe the call is over.
        presence = scan->allProcessesClassified ? CallPresence::stronglyAbsent : CallPresence::unknown;
    } else {
        presence = CallPresence::active;
    }
    lastPresence_ = presence;
    const bool eligible = std::any_of(lastCallers_.begin(), lastCallers_.end(),
                                      [](const Caller& c) { return c.outputKnown && c.isRunningOutput; });
    lastStartEligible_ = eligible;
    const bool enabled = isEnabled.get();

    // 4. No start is possible.
    if (!eligible || !enabled) {
        pendingStartToken_.reset();
        s.startInFlight = false;
        s.activeSamples = 0;
    }

    // 5. A recording ended while callers were still around (most likely the user stopped
    //    it during the call): it must not restart at once.
    if (!recording && wasRecording_ && !s.suppressedUntilIdle && (callersPresent || presence == CallPresence::unknown)) {
        s.suppressedUntilIdle = true;
        s.warmEndMayResume = false;
        s.activeSamples = s.weakIdleSamples = s.strongIdleSamples = 0;
    }
    wasRecording_ = recording;

    // 6. Ownership: the recording we started is gone or was replaced by the user's.
    if (s.ownsRecording && (!recording || !recorder.isAutomaticRecording())) {
        s.ownsRecording = false;
        s.suppressedUntilIdle = true;
        s.warmEndMayResume = false;
    }

    [&] {
        // 7. Nothing is counted on partial knowledge; the retry wait does not run down either.
        if (presence == CallPresence::unknown) {
            s.activeSamples = s.weakIdleSamples = s.strongIdleSamples = 0;
            return;
        }
        // 8. After a failed start.
        if (s.retrySamples > 0) {
            --s.retrySamples;
            s.activeSamples = 0;
            return;
        }
        // 9. Suppressed until the call apps go idle (or a warm end resumes).
        if (s.suppressedUntilIdle) {
            if (presence == CallPresence::weaklyAbsent) {
                s.activeSamples = 0;
                countUp(s.weakIdleSamples);
                if (s.weakIdleSamples >= kWeakIdleStopSamples) {
                    s.suppressedUntilIdle = false;
                    s.warmEndMayResume = false;
                    s.weakIdleSamples = s.strongIdleSamples = 0;
                }
            } else if (presence == CallPresence::active && !recording && eligible && enabled && s.warmEndMayResume &&
                       !s.startInFlight) {
                s.weakIdleSamples = 0;
                countUp(s.activeSamples);
                if (s.activeSamples >= kStartSamples) {
                    s.suppressedUntilIdle = false;
                    s.startInFlight = true;
                    s.warmEndMayResume = false;
                    s.activeSamples = 0;
                    startRecording();
                }
            } else {
                s.activeSamples = s.weakIdleSamples = 0;
            }
            return;
        }
        // 10. Not suppressed.
        if (presence == CallPresence::active) {
            s.weakIdleSamples = s.strongIdleSamples = 0;
            if (recording || !eligible || !enabled || s.startInFlight) {
                s.activeSamples = 0;
            } else {
                countUp(s.activeSamples);
                if (s.activeSamples >= kStartSamples) {
                    s.activeSamples = 0;
                    s.startInFlight = true;
                    startRecording();
                }
            }
            return;
        }
        s.activeSamples = 0;
        if (!(recording && s.ownsRecording)) {
            s.weakIdleSamples = s.strongIdleSamples = 0;
            return;
        }
        // No process holds the microphone: 20 polls; the call app still holds it but
        // nothing plays: 60 polls.
        if (presence == CallPresence::weaklyAbsent) {
            countUp(s.weakIdleSamples);
            s.strongIdleSamples = 0;
            if (s.weakIdleSamples >= kWeakIdleStopSamples) stopAutomaticRecording(presence);
        } else {
            countUp(s.strongIdleSamples);
            s.weakIdleSamples = 0;
            if (s.strongIdleSamples >= kStrongIdleStopSamples) stopAutomaticRecording(presence);
        }
    }();

    // 11.
    runOffer(presence, callersPresent);
}

void AutomaticCallRecorder::stopAutomaticRecording(CallPresence presence) {
    auto& s = state_;
    s.weakIdleSamples = s.strongIdleSamples = 0;
    s.ownsRecording = false;
    s.suppressedUntilIdle = s.warmEndMayResume = (presence == CallPresence::stronglyAbsent);
    kLog.info("the call is over: the automatic recording stops");
    ports_.recorder->stopAutomatic();
}

void AutomaticCallRecorder::startRecording() {
    const auto token = newUUIDString();
    pendingStartToken_ = token;
    kLog.info("a call is going on: starting an automatic recording");
    std::weak_ptr<int> alive = alive_;
    main_.post([this, alive, token] {
        if (alive.expired()) return;
        ports_.recorder->startAutomatic([this, alive, token](bool started) {
            if (alive.expired()) return;
            auto& s = state_;
            auto& recorder = *ports_.recorder;
            if (pendingStartToken_ == token && s.startInFlight) {
                s.startInFlight = false;
                if (!started && recorder.isRecording()) {
                    // Someone else's recording took the place of ours.
                    s.ownsRecording = false;
                    s.suppressedUntilIdle = true;
                    s.warmEndMayResume = false;
                    s.activeSamples = s.weakIdleSamples = s.strongIdleSamples = 0;
                } else {
                    s.ownsRecording = started && recorder.isRecording();
                    s.retrySamples = s.ownsRecording ? 0 : kRetrySamples;
                    if (s.ownsRecording) {
                        CallNotification n;
                        n.identifier = std::string(kStartedPrefix) + recorder.currentID().value_or("");
                        n.category = std::string(ids::kAutoRecordingActive);
                        n.title = messages::kRecordingTheCall.str();
                        if (!ports_.signedIn || !ports_.signedIn()) n.body = messages::kSavedLocally.str();
                        ports_.notifier->post(n);
                    } else {
                        kLog.error("the automatic recording did not start; trying again later");
                    }
                }
            } else if (started) {
                // A stale attempt whose recording did start: it is not ours to stop.
                s.ownsRecording = false;
                s.suppressedUntilIdle = true;
                s.warmEndMayResume = false;
                s.activeSamples = s.weakIdleSamples = s.strongIdleSamples = 0;
            }
            if (pendingStartToken_ == token) pendingStartToken_.reset();
        });
    });
}

void AutomaticCallRecorder::runOffer(CallPresence presence, bool callersPresent) {
    auto& recorder = *ports_.recorder;
    const auto id = recorder.currentID();
    if (id != offerSeenCurrentID_) {
        offer_ = {};
        offerSeenCurrentID_ = id;
        if (callEnded.get()) callEnded.set(false);
    }
    if (!recorder.isRecording() || recorder.isAutomaticRecording()) return;
    if (presence == CallPresence::unknown) {
        offer_.goneSamples = offer_.strongSamples = 0;
        return;
    }
    if (callersPresent && presence == CallPresence::active) {
        offer_.sawCaller = true;
        offer_.goneSamples = offer_.strongSamples = 0;
        if (offer_.offered) {
            offer_.offered = false;
            callEnded.set(false);
            ports_.notifier->withdraw(std::string(kOfferIdentifier));
        }
        return;
    }
    if (!offer_.sawCaller || offer_.offered) return;
    bool offerNow = false;
    if (presence == CallPresence::weaklyAbsent) {
        countUp(offer_.goneSamples);
        offer_.strongSamples = 0;
        offerNow = offer_.goneSamples >= kOfferGoneSamples;
    } else if (presence == CallPresence::stronglyAbsent) {
        countUp(offer_.strongSamples);
        offer_.goneSamples = 0;
        offerNow = offer_.strongSamples >= kOfferStrongSamples;
    }
    if (!offerNow) return;
    offer_.offered = true;
    offer_.goneSamples = offer_.strongSamples = 0;
    callEnded.set(true);
    kLog.info("the call seen during the recording ended: offering to finish it");
    ports_.notifier->post({std::string(kOfferIdentifier), std::string(ids::kCallEnded),
                           messages::kCallEndedTitle.str(), messages::kCallEndedBody.str()});
}

void AutomaticCallRecorder::handleAction(std::string_view action) {
    if (action == ids::kStopAutoRecording || action == ids::kFinishRecording) {
        if (ports_.recorder->isRecording()) ports_.recorder->finishByUser();
    }
    // "Keep recording" changes nothing.
}

std::string AutomaticCallRecorder::statusJson() const {
    nlohmann::ordered_json callers = nlohmann::ordered_json::array();
    for (const auto& c : lastCallers_) {
        callers.push_back({{"bundleID", c.bundleID},
                           {"displayName", c.displayName},
                           {"isRunningOutput", c.isRunningOutput},
                           {"outputKnown", c.outputKnown}});
    }
    const auto& s = state_;
    nlohmann::ordered_json j{
        {"enabled", isEnabled.get()},
        {"monitoring", isMonitoring.get()},
        {"activeCallers", activeCallers.get()},
        {"callers", callers},
        {"presence", lastPollAt_ ? presenceName(lastPresence_) : "unknown"},
        {"startEligible", lastStartEligible_},
        {"callEnded", callEnded.get()},
        {"state",
         {{"activeSamples", s.activeSamples},
          {"weakIdleSamples", s.weakIdleSamples},
          {"strongIdleSamples", s.strongIdleSamples},
          {"ownsRecording", s.ownsRecording},
          {"suppressedUntilIdle", s.suppressedUntilIdle},
          {"startInFlight", s.startInFlight},
          {"warmEndMayResume", s.warmEndMayResume},
          {"retrySamples", s.retrySamples}}},
        {"offer",
         {{"sawCaller", offer_.sawCaller},
          {"goneSamples", offer_.goneSamples},
          {"strongSamples", offer_.strongSamples},
          {"offered", offer_.offered}}},
    };
    return j.dump();
}

}  // namespace vell::automation
