// The automatic call recorder driven sample by sample: a scan per poll, a virtual clock,
// a recorder and a notifier whose state the test sets and reads.
#include "automation/automatic_call_recorder.h"

#include <gtest/gtest.h>

#include "automation/call_messages.h"
#include "base/manual_executor.h"
#include "base/preference_keys.h"
#include "base/user_defaults.h"
#include "tests/automation/call_fakes.h"
#include "tests/support/temp_home.h"

namespace vell::automation {
namespace {

using test::FakeCallNotifier;
using test::FakeCallRecorder;
using test::FakeCallScanner;
using Scan = std::optional<CallerScan>;

CallAudioProcess process(std::string id, bool input, std::optional<bool> output) {
    return {std::move(id), input, output, ""};
}
Scan scanOf(std::vector<CallAudioProcess> processes, bool classified = true) {
    return callersFrom(processes, classified);
}
// Zoom in a call: microphone and speakers.
const Scan kCall = scanOf({process("us.zoom.xos", true, true)});
// Zoom holds the microphone, nothing plays (muted far end, or a call that is over).
const Scan kMicHeld = scanOf({process("us.zoom.xos", true, false)});
// Nobody uses the microphone; every process was read.
const Scan kNobody = scanOf({});
// Nobody seen, but some process could not be read.
const Scan kPartial = scanOf({}, false);
const Scan kFailed = std::nullopt;

class CallRecorderTest : public ::testing::Test {
protected:
    CallRecorderTest() {
        calls = std::make_unique<AutomaticCallRecorder>(
            AutomaticCallRecorder::Ports{scanner, recorder, notifier, [this] { return signedIn; }}, home.defaults(),
            exec, clock);
    }
    // Monitoring starts with one poll at once.
    void begin(const Scan& first) {
        scanner->next = first;
        calls->start();
        exec.runPending();
    }
    void poll(const Scan& scan, int times = 1) {
        for (int i = 0; i < times; ++i) {
            scanner->next = scan;
            exec.advance(AutomaticCallRecorder::kPollSeconds);
        }
    }
    // Starts an automatic recording from a call: two active polls.
    void callStartsRecording() {
        begin(kCall);
        poll(kCall);
        ASSERT_EQ(recorder->starts, 1);
        ASSERT_TRUE(calls->state().ownsRecording);
    }

    test::TempHome home;
    ManualClock clock;
    ManualExecutor exec{clock};
    std::shared_ptr<FakeCallScanner> scanner = std::make_shared<FakeCallScanner>();
    std::shared_ptr<FakeCallRecorder> recorder = std::make_shared<FakeCallRecorder>();
    std::shared_ptr<FakeCallNotifier> notifier = std::make_shared<FakeCallNotifier>();
    bool signedIn = false;
    std::unique_ptr<AutomaticCallRecorder> calls;
};

TEST_F(CallRecorderTest, TwoActivePollsStartARecordingAndTellTheUser) {
    begin(kCall);
    EXPECT_EQ(recorder->starts, 0) << "one poll alone does not start";
    EXPECT_EQ(calls->activeCallers.get(), std::vector<std::string>{"Zoom"});
    poll(kCall);
    ASSERT_EQ(recorder->starts, 1);
    EXPECT_TRUE(recorder->recording && recorder->automatic);
    EXPECT_TRUE(calls->state().ownsRecording);
    EXPECT_FALSE(calls->state().startInFlight);
    ASSERT_EQ(notifier->posted.size(), 1u);
    const auto& n = notifier->posted[0];
    EXPECT_EQ(n.identifier, "app.quillon.mac.autoRecording." + *recorder->id);
    EXPECT_EQ(n.category, "app.quillon.mac.autoRecordingActive");
    EXPECT_EQ(n.title, "Recording the call");
    EXPECT_EQ(n.body, "Saved on this computer. Sign in to sync it.");
    poll(kCall, 5);
    EXPECT_EQ(recorder->starts, 1) << "a running recording is not started again";
}

TEST_F(CallRecorderTest, SignedInUsersGetNoBodyAndSpanishReadsSpanish) {
    signedIn = true;
    setInterfaceLanguage(Language::Spanish);
    callStartsRecording();
    setInterfaceLanguage(Language::English);
    ASSERT_EQ(notifier->posted.size(), 1u);
    EXPECT_EQ(notifier->posted[0].title, "Grabando la llamada");
    EXPECT_EQ(notifier->posted[0].body, "");
}

TEST_F(CallRecorderTest, ToolsThatOnlyHoldTheMicrophoneNeverStart) {
    begin(kMicHeld);
    poll(kMicHeld, 10);
    // Dictation, assistants, this application and the desktop's meters, all with output.
    const Scan tools = scanOf({process("com.openai.chat", true, true), process("app.quillon.mac", true, true),
                               process("com.apple.dictation", true, true), process("pavucontrol", true, true),
                               process("speech-dispatcher", true, true)});
    poll(tools, 10);
    EXPECT_EQ(recorder->starts, 0);
    EXPECT_TRUE(calls->activeCallers.get().empty());
    // Output whose state could not be read counts as playing, but not as a reason to start.
    poll(scanOf({process("us.zoom.xos", true, std::nullopt)}, false), 5);
    EXPECT_EQ(recorder->starts, 0);
    EXPECT_EQ(calls->lastPresence(), CallPresence::active);
    // An unknown program with microphone and speakers is a caller.
    poll(scanOf({process("net.example.newcaller", true, true)}), 2);
    EXPECT_EQ(recorder->starts, 1);
}

TEST_F(CallRecorderTest, AGapInTheClockForgetsAHalfCountedStart) {
    begin(kCall);
    clock.jumpWallTime(AutomaticCallRecorder::kGapSeconds + 1);  // the machine slept
    poll(kCall);
    EXPECT_EQ(recorder->starts, 0);
    EXPECT_EQ(calls->state().activeSamples, 1);
    clock.jumpWallTime(-30);  // the clock was set back
    poll(kCall);
    EXPECT_EQ(recorder->starts, 0);
    poll(kCall);
    EXPECT_EQ(recorder->starts, 1);
}

TEST_F(CallRecorderTest, SleepAndWakeForgetStreaksAndTakeNoSamples) {
    begin(kCall);
    calls->setAsleep(true);
    poll(kCall, 3);
    EXPECT_EQ(recorder->starts, 0);
    calls->setAsleep(false);
    poll(kCall);
    EXPECT_EQ(recorder->starts, 0) << "the sample before sleep was forgotten";
    poll(kCall);
    EXPECT_EQ(recorder->starts, 1);
}

TEST_F(CallRecorderTest, TheCallEndingStopsAfterTwentyIdlePolls) {
    callStartsRecording();
    poll(kNobody, 19);
    EXPECT_EQ(recorder->automaticStops, 0);
    poll(kCall);  // the caller comes back: the streak starts over
    poll(kNobody, 19);
    EXPECT_EQ(recorder->automaticStops, 0);
    poll(kNobody);
    EXPECT_EQ(recorder->automaticStops, 1);
    EXPECT_FALSE(calls->state().ownsRecording);
    EXPECT_FALSE(calls->state().suppressedUntilIdle);
    // A new call starts a new recording.
    poll(kNobody);
    poll(kCall, 2);
    EXPECT_EQ(recorder->starts, 2);
}

TEST_F(CallRecorderTest, UnknownAndPartialScansCountNothing) {
    callStartsRecording();
    poll(kNobody, 15);
    poll(kFailed);
    poll(kNobody, 15);
    poll(kPartial);
    poll(kNobody, 19);
    EXPECT_EQ(recorder->automaticStops, 0);
    EXPECT_EQ(calls->lastPresence(), CallPresence::weaklyAbsent);
    poll(kNobody);
    EXPECT_EQ(recorder->automaticStops, 1);
}

TEST_F(CallRecorderTest, MicrophoneHeldInSilenceStopsAfterSixtyThenResumesWarm) {
    callStartsRecording();
    poll(kMicHeld, 10);
    EXPECT_EQ(calls->lastPresence(), CallPresence::active) << "system audio not silent: still a call";
    recorder->silent = true;
    poll(kMicHeld, 59);
    EXPECT_EQ(calls->lastPresence(), CallPresence::stronglyAbsent);
    EXPECT_EQ(recorder->automaticStops, 0);
    poll(kMicHeld);
    ASSERT_EQ(recorder->automaticStops, 1);
    EXPECT_TRUE(calls->state().suppressedUntilIdle);
    EXPECT_TRUE(calls->state().warmEndMayResume);
    // The call comes back: two active polls restart without waiting for idle.
    poll(kCall);
    EXPECT_EQ(recorder->starts, 1);
    poll(kCall);
    EXPECT_EQ(recorder->starts, 2);
    EXPECT_TRUE(calls->state().ownsRecording);
}

TEST_F(CallRecorderTest, AUserWhoStopsDuringTheCallIsNotOverruled) {
    callStartsRecording();
    recorder->finishByUser();
    poll(kCall, 10);
    EXPECT_EQ(recorder->starts, 1);
    EXPECT_TRUE(calls->state().suppressedUntilIdle);
    poll(kNobody, 19);
    poll(kCall, 3);
    EXPECT_EQ(recorder->starts, 1) << "idle was not long enough";
    poll(kNobody, 20);
    EXPECT_FALSE(calls->state().suppressedUntilIdle);
    poll(kCall, 2);
    EXPECT_EQ(recorder->starts, 2);
}

TEST_F(CallRecorderTest, EndingAManualRecordingDuringACallDoesNotStartOne) {
    recorder->begin(false);
    begin(kCall);
    poll(kCall, 3);
    recorder->end();
    poll(kCall, 10);
    EXPECT_EQ(recorder->starts, 0);
    EXPECT_TRUE(calls->state().suppressedUntilIdle);
}

TEST_F(CallRecorderTest, AUserRecordingThatReplacesOursIsNotStopped) {
    callStartsRecording();
    recorder->finishByUser();
    recorder->begin(false);  // the user starts their own between two polls
    poll(kCall);
    EXPECT_FALSE(calls->state().ownsRecording);
    poll(kNobody, 30);
    EXPECT_EQ(recorder->automaticStops, 0);
    EXPECT_TRUE(recorder->recording);
}

TEST_F(CallRecorderTest, AFailedStartWaitsFivePollsNotCountingUnknownOnes) {
    recorder->startSucceeds = false;
    begin(kCall);
    poll(kCall);
    ASSERT_EQ(recorder->starts, 1);
    EXPECT_EQ(calls->state().retrySamples, 5);
    EXPECT_TRUE(notifier->posted.empty());
    recorder->startSucceeds = true;
    poll(kFailed, 3);
    EXPECT_EQ(calls->state().retrySamples, 5);
    poll(kCall, 5);
    EXPECT_EQ(recorder->starts, 1);
    poll(kCall, 2);
    EXPECT_EQ(recorder->starts, 2);
}

TEST_F(CallRecorderTest, AStaleStartAnswerDoesNotOwnItsRecording) {
    recorder->answerLater = true;
    begin(kCall);
    poll(kCall);
    ASSERT_EQ(recorder->starts, 1);
    EXPECT_TRUE(calls->state().startInFlight);
    clock.jumpWallTime(AutomaticCallRecorder::kGapSeconds + 5);
    poll(kCall);  // the gap forgets the attempt
    recorder->answerPending(true);
    exec.runPending();
    EXPECT_FALSE(calls->state().ownsRecording);
    EXPECT_TRUE(calls->state().suppressedUntilIdle);
    poll(kNobody, 25);
    EXPECT_EQ(recorder->automaticStops, 0);
}

TEST_F(CallRecorderTest, AHungScanIsTreatedAsFailedAfterTenSeconds) {
    callStartsRecording();
    poll(kNobody, 5);
    scanner->hang = true;
    const int before = scanner->scans;
    poll(kNobody, 11);  // the look starts at the first of these, ten seconds pass
    EXPECT_EQ(scanner->scans, before + 1) << "one look at a time";
    EXPECT_EQ(calls->state().weakIdleSamples, 5);
    poll(kNobody);
    EXPECT_EQ(calls->lastPresence(), CallPresence::unknown);
    EXPECT_EQ(calls->state().weakIdleSamples, 0);
}

TEST_F(CallRecorderTest, SystemAudioIsProbedEveryThirtySeconds) {
    begin(kNobody);
    EXPECT_EQ(recorder->probes, 1);
    poll(kNobody, 29);
    EXPECT_EQ(recorder->probes, 1);
    poll(kNobody);
    EXPECT_EQ(recorder->probes, 2);
}

TEST_F(CallRecorderTest, AManualRecordingIsOfferedToFinishEightPollsAfterTheCall) {
    recorder->begin(false);
    begin(kCall);
    poll(kCall, 3);
    EXPECT_EQ(recorder->starts, 0);
    poll(kNobody, 7);
    EXPECT_TRUE(notifier->posted.empty());
    poll(kNobody);
    ASSERT_EQ(notifier->posted.size(), 1u);
    EXPECT_TRUE(calls->callEnded.get());
    const auto& n = notifier->posted[0];
    EXPECT_EQ(n.identifier, "app.quillon.mac.callEnded.offer");
    EXPECT_EQ(n.category, "app.quillon.mac.callEnded");
    EXPECT_EQ(n.title, "The call ended");
    EXPECT_EQ(n.body, "Finish the recording?");
    poll(kNobody, 20);
    EXPECT_EQ(notifier->posted.size(), 1u) << "offered once";
    // The caller comes back: the offer is taken away.
    poll(kCall);
    EXPECT_FALSE(calls->callEnded.get());
    EXPECT_EQ(notifier->withdrawn, std::vector<std::string>{"app.quillon.mac.callEnded.offer"});
    poll(kNobody, 8);
    ASSERT_EQ(notifier->posted.size(), 2u);
    calls->handleAction(ids::kKeepRecording);
    EXPECT_TRUE(recorder->recording);
    calls->handleAction(ids::kFinishRecording);
    EXPECT_FALSE(recorder->recording);
    EXPECT_EQ(recorder->userStops, 1);
    EXPECT_EQ(recorder->automaticStops, 0);
}

TEST_F(CallRecorderTest, OffersNeedACallerAndStartAfreshWithEachRecording) {
    recorder->begin(false);
    begin(kNobody);
    poll(kNobody, 30);
    EXPECT_TRUE(notifier->posted.empty()) << "no caller was seen during this recording";
    poll(kCall);
    poll(kNobody, 4);
    recorder->end();
    recorder->begin(false);  // a new recording: what was seen before does not count
    poll(kNobody, 10);
    EXPECT_TRUE(notifier->posted.empty());
    // Held microphone in silence: 60 polls.
    poll(kCall);
    recorder->silent = true;
    poll(kMicHeld, 59);
    EXPECT_TRUE(notifier->posted.empty());
    poll(kMicHeld);
    EXPECT_EQ(notifier->posted.size(), 1u);
}

TEST_F(CallRecorderTest, StopFromTheStartedNotificationEndsTheRecording) {
    callStartsRecording();
    calls->handleAction(ids::kStopAutoRecording);
    EXPECT_EQ(recorder->userStops, 1);
    poll(kCall, 5);
    EXPECT_EQ(recorder->starts, 1) << "stopped by the user during the call";
}

TEST_F(CallRecorderTest, TheSwitchIsKeptAndStopsMonitoring) {
    EXPECT_TRUE(calls->isEnabled.get()) << "on when never set";
    begin(kCall);
    EXPECT_TRUE(calls->isMonitoring.get());
    calls->setEnabled(false);
    EXPECT_FALSE(calls->isMonitoring.get());
    EXPECT_EQ(home.defaults().boolValue(prefs::kAutoRecordCalls), false);
    const int scans = scanner->scans;
    poll(kCall, 5);
    EXPECT_EQ(scanner->scans, scans);
    EXPECT_EQ(recorder->starts, 0);
    AutomaticCallRecorder again({scanner, recorder, notifier, {}}, home.defaults(), exec, clock);
    EXPECT_FALSE(again.isEnabled.get());
    calls->setEnabled(true);
    poll(kCall);
    EXPECT_EQ(recorder->starts, 1);
}

TEST(CallCounters, OverflowIsFatal) {
    int counter = INT_MAX - 1;
    countUp(counter);
    EXPECT_EQ(counter, INT_MAX);
    EXPECT_DEATH(countUp(counter), "");
}

}  // namespace
}  // namespace vell::automation
