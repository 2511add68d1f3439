#include "tests/automation/automation_rig.h"

#include "base/preference_keys.h"

namespace vell::automation {
namespace {

using Status = recording::PendingRecording::Status;
using test_rig::meetingAt;

class DiscardedRecordingsTest : public test_rig::AutomationTest {
protected:
    std::string recordAndDiscard() {
        EXPECT_TRUE(startAndWait());
        const auto id = *recorder->currentID();
        recorder->stop(true, true);
        return id;
    }
};

TEST_F(DiscardedRecordingsTest, UndoWithinTheWindowRestoresTheRecordingAsReady) {
    auto& d = makeDiscards();
    EXPECT_FALSE(d.timerRunning());
    const auto id = recordAndDiscard();
    ASSERT_TRUE(d.latest.get());
    EXPECT_EQ(d.latest.get()->takeID, id);
    EXPECT_EQ(d.latest.get()->reason, DiscardReason::user);
    EXPECT_TRUE(d.timerRunning());
    // A live session's server copy is queued for the purge, and kept when undone.
    EXPECT_EQ(d.purgeList(), std::vector<std::string>{"live-9"});

    serviceDown = true;
    exec.advance(299);
    EXPECT_DOUBLE_EQ(d.secondsLeft(), 1.0);
    ASSERT_TRUE(d.undo());
    EXPECT_EQ(entry(id)->status, Status::ready);
    EXPECT_FALSE(entry(id)->discardedAt);
    EXPECT_FALSE(d.latest.get());
    EXPECT_TRUE(d.purgeList().empty());
    EXPECT_EQ(restoredCalls, 1);
    EXPECT_TRUE(std::filesystem::exists(entry(id)->fileURL));

    // Nothing left that may expire: the 1 s timer ends.
    exec.advance(2);
    EXPECT_FALSE(d.timerRunning());
}

TEST_F(DiscardedRecordingsTest, AtThreeHundredSecondsTheDiscardIsGoneForGood) {
    auto& d = makeDiscards();
    const auto id = recordAndDiscard();
    const auto file = entry(id)->fileURL;
    exec.advance(299);
    EXPECT_TRUE(d.latest.get());
    EXPECT_TRUE(entry(id));
    exec.advance(1);
    EXPECT_FALSE(d.latest.get());
    EXPECT_FALSE(entry(id));
    EXPECT_FALSE(std::filesystem::exists(file));

    // Undo has nothing to offer any more.
    EXPECT_FALSE(d.undo());
    EXPECT_FALSE(recorder->state.lastError.get());
}

TEST_F(DiscardedRecordingsTest, UndoAfterTheRecordingWentSaysItIsTooLate) {
    auto& d = makeDiscards();
    const auto id = recordAndDiscard();
    recorder->remove(id);  // gone behind the panel's back
    EXPECT_FALSE(d.undo());
    EXPECT_EQ(recorder->state.lastError.get(), "Too late to undo: the recording is gone.");
    EXPECT_FALSE(d.latest.get());
}

TEST_F(DiscardedRecordingsTest, ANewerDiscardReplacesTheOlderAndRestartsTheWindow) {
    auto& d = makeDiscards();
    const auto first = recordAndDiscard();
    exec.advance(200);
    const auto second = recordAndDiscard();
    EXPECT_EQ(d.latest.get()->takeID, second);
    exec.advance(100);  // the first one's window is over
    EXPECT_FALSE(entry(first));
    ASSERT_TRUE(d.latest.get());
    ASSERT_TRUE(d.undo());
    EXPECT_EQ(entry(second)->status, Status::ready);
}

TEST_F(DiscardedRecordingsTest, DiscardsWhoseWindowEndedWhileVellWasNotRunningAreRemovedAtStart) {
    const auto id = recordAndDiscard();
    exec.advance(301);
    auto& d = makeDiscards();
    EXPECT_FALSE(entry(id));
    EXPECT_FALSE(d.latest.get());
}

TEST_F(DiscardedRecordingsTest, AMeetingRecordingNobodySpokeInIsDiscardedWithItsNotification) {
    defaults().set(prefs::kAutoRecordCalendar, true);
    auto& d = makeDiscards();
    source.meetings = {meetingAt(clock.now(), "evt", -10, 7200, "Weekly")};
    makeCalendar().start();
    ASSERT_TRUE(waitRecording());
    const auto id = *recorder->currentID();
    // Nobody speaks: the 10-minute stop ends it, and it is not kept.
    exec.advance(600);
    EXPECT_FALSE(recorder->state.isRecording.get());
    EXPECT_EQ(entry(id)->status, Status::discarded);
    ASSERT_TRUE(d.latest.get());
    EXPECT_EQ(d.latest.get()->reason, DiscardReason::nobodySpoke);
    EXPECT_EQ(d.latest.get()->meeting, "Weekly");
    ASSERT_EQ(posted.size(), 2u);
    EXPECT_EQ(posted[1].identifier, "app.quillon.mac.silentMeeting." + id);
    EXPECT_EQ(posted[1].title, "Nobody spoke, so nothing was kept");
    EXPECT_EQ(posted[1].body, "Undo from the Vell icon in the panel within 5 minutes.");
    ASSERT_TRUE(d.undo());
    EXPECT_EQ(entry(id)->status, Status::ready);
}

TEST_F(DiscardedRecordingsTest, RecordingsWithSpeechOrNotFromTheCalendarAreKept) {
    makeDiscards();
    // A manual recording nobody spoke in stays.
    ASSERT_TRUE(startAndWait());
    auto id = *recorder->currentID();
    recorder->stop();
    EXPECT_EQ(entry(id)->status, Status::ready);

    // A meeting recording in which someone spoke stays.
    ASSERT_TRUE(startAndWait({.automatic = true, .calendarMeetingTitle = "Weekly"}));
    id = *recorder->currentID();
    rig.speech->heard = clock.now() + std::chrono::seconds(5);
    exec.advance(10);
    recorder->stop();
    EXPECT_EQ(entry(id)->status, Status::ready);
}

TEST_F(DiscardedRecordingsTest, PurgesSurviveRestartsUntilTheServiceConfirms) {
    defaults().set(prefs::kPendingLiveSessionPurges, std::vector<std::string>{"s1", "s2", "s1"});
    serviceDown = true;
    makeDiscards();
    EXPECT_EQ(purgeCalls, (std::vector<std::string>{"s1", "s2", "s1"}));
    EXPECT_TRUE(logged("Vell delete: server clean-up for s1 will retry: The service cannot be reached."));
    exec.advance(29);
    EXPECT_EQ(purgeCalls.size(), 3u);
    exec.advance(1);  // retried after 30 s
    EXPECT_EQ(purgeCalls.size(), 6u);

    // A restart keeps the list; once the service answers, every copy of an id goes.
    discards.reset();
    serviceDown = false;
    purgeCalls.clear();
    auto& d = makeDiscards();
    EXPECT_TRUE(d.purgeList().empty());
    EXPECT_EQ(purgeCalls, (std::vector<std::string>{"s1", "s2"}));
}

}  // namespace
}  // namespace vell::automation

namespace vell::automation {
namespace {

class DiscardAcrossRestartsTest : public test_rig::AutomationTest {};

TEST_F(DiscardAcrossRestartsTest, TheNewestDiscardInsideItsWindowStaysUndoableAfterARestart) {
    ASSERT_TRUE(startAndWait());
    const auto older = *recorder->currentID();
    recorder->stop(true, true);
    exec.advance(10);
    ASSERT_TRUE(startAndWait());
    const auto newer = *recorder->currentID();
    recorder->stop(true, true);
    exec.advance(100);
    auto& d = makeDiscards();
    ASSERT_TRUE(d.latest.get());
    EXPECT_EQ(d.latest.get()->takeID, newer);
    EXPECT_DOUBLE_EQ(d.secondsLeft(), 200.0);
    EXPECT_TRUE(posted.empty());
    ASSERT_TRUE(d.undo());
    EXPECT_EQ(entry(newer)->status, Status::ready);
    EXPECT_EQ(entry(older)->status, Status::discarded);
}

}  // namespace
}  // namespace vell::automation
