#include "tests/automation/automation_rig.h"

#include "base/preference_keys.h"

namespace vell::automation {
namespace {

using test_rig::meetingAt;
using Status = recording::PendingRecording::Status;

class CalendarAutoRecorderTest : public test_rig::AutomationTest {};

TEST_F(CalendarAutoRecorderTest, DisabledByDefaultAndEnablingPersistsAndTicksAtOnceThenEvery15Seconds) {
    auto& cal = makeCalendar();
    cal.start();
    EXPECT_FALSE(cal.isEnabled.get());
    EXPECT_FALSE(cal.timerRunning());
    exec.advance(60);
    EXPECT_EQ(source.fetches, 0);

    cal.setEnabled(true);
    EXPECT_EQ(defaults().boolValue(prefs::kAutoRecordCalendar), true);
    EXPECT_EQ(source.fetches, 1);
    // One day back, 60 s ahead.
    EXPECT_EQ(source.lastFrom, clock.now() - std::chrono::seconds(86'400));
    EXPECT_EQ(source.lastTo, clock.now() + std::chrono::seconds(60));
    exec.advance(14.9);
    EXPECT_EQ(source.fetches, 1);
    exec.advance(0.1);
    EXPECT_EQ(source.fetches, 2);

    cal.setEnabled(false);
    exec.advance(60);
    EXPECT_EQ(source.fetches, 2);
    EXPECT_EQ(defaults().boolValue(prefs::kAutoRecordCalendar), false);
}

TEST_F(CalendarAutoRecorderTest, AMeetingStartsOnceWhenItBeginsWithItsTitleAndNotification) {
    defaults().set(prefs::kAutoRecordCalendar, true);
    source.meetings = {meetingAt(clock.now(), "evt-1", 30, 1800)};
    auto& cal = makeCalendar();
    cal.start();
    exec.runPending();
    // Fetched (it starts within the minute ahead) but not begun yet.
    EXPECT_EQ(source.fetches, 1);
    EXPECT_FALSE(recorder->state.isRecording.get());
    exec.advance(15);
    EXPECT_FALSE(recorder->state.isRecording.get());
    exec.advance(15);  // the tick at +30 s: it has begun
    ASSERT_TRUE(waitRecording());
    EXPECT_TRUE(recorder->isAutomaticRecording());
    EXPECT_EQ(recorder->state.calendarMeetingTitle.get(), "Design review");
    ASSERT_EQ(posted.size(), 1u);
    EXPECT_EQ(posted[0].identifier, "app.quillon.mac.meetingRecording." + *recorder->currentID());
    EXPECT_EQ(posted[0].category, "app.quillon.mac.meetingRecording");
    EXPECT_EQ(posted[0].title, "Recording \u201cDesign review\u201d");
    EXPECT_EQ(posted[0].body, "Started from your calendar. Delete it if it's the wrong moment.");
    EXPECT_TRUE(cal.handled().contains("evt-1"));

    // Stopped by the user while the meeting goes on: it never starts again, not even after
    // a restart.
    recorder->stop();
    exec.advance(45);
    EXPECT_FALSE(recorder->state.isRecording.get());
    calendar.reset();
    auto& again = makeCalendar();
    again.start();
    exec.advance(30);
    EXPECT_FALSE(recorder->state.isRecording.get());
    EXPECT_EQ(posted.size(), 1u);
}

TEST_F(CalendarAutoRecorderTest, AMeetingThatBeginsDuringARecordingIsMarkedHandledAndNeverStartsLater) {
    defaults().set(prefs::kAutoRecordCalendar, true);
    ASSERT_TRUE(startAndWait());
    const auto manual = *recorder->currentID();
    source.meetings = {meetingAt(clock.now(), "evt-busy", -10, 1800)};
    auto& cal = makeCalendar();
    cal.start();
    // Saved before the start is even considered.
    auto saved = defaults().dictionary(prefs::kCalendarHandledMeetings);
    ASSERT_TRUE(saved);
    EXPECT_TRUE(saved->contains("evt-busy"));
    EXPECT_EQ(recorder->currentID(), manual);

    recorder->stop();
    exec.advance(60);
    EXPECT_FALSE(recorder->state.isRecording.get());
    EXPECT_TRUE(posted.empty());
}

TEST_F(CalendarAutoRecorderTest, OverlappingMeetingsTheEarlierFirstTheOtherOnlyOnceIdle) {
    defaults().set(prefs::kAutoRecordCalendar, true);
    source.meetings = {meetingAt(clock.now(), "second", -60, 1800, "Second"),
                       meetingAt(clock.now(), "first", -120, 1800, "First")};
    auto& cal = makeCalendar();
    cal.start();
    ASSERT_TRUE(waitRecording());
    EXPECT_EQ(recorder->state.calendarMeetingTitle.get(), "First");
    EXPECT_FALSE(cal.handled().contains("second"));

    // While it records, the later one is marked handled on the next tick and never starts.
    exec.advance(15);
    EXPECT_TRUE(cal.handled().contains("second"));
    recorder->stop();
    exec.advance(60);
    EXPECT_FALSE(recorder->state.isRecording.get());
}

TEST_F(CalendarAutoRecorderTest, NothingStartsWithoutAccessOrBeforeTheApplicationIsReady) {
    defaults().set(prefs::kAutoRecordCalendar, true);
    source.accessValue = CalendarAccess::denied;
    source.meetings = {meetingAt(clock.now(), "evt", -10, 1800)};
    auto& cal = makeCalendar();
    cal.start();
    EXPECT_EQ(cal.access.get(), CalendarAccess::denied);
    EXPECT_EQ(source.fetches, 0);

    // Access given later takes effect within one tick; not ready: handled, not started.
    source.accessValue = CalendarAccess::granted;
    ready = false;
    exec.advance(15);
    EXPECT_EQ(cal.access.get(), CalendarAccess::granted);
    exec.runPending();
    EXPECT_FALSE(recorder->state.isRecording.get());
    EXPECT_TRUE(cal.handled().contains("evt"));
}

TEST_F(CalendarAutoRecorderTest, DeleteFromTheNotificationDiscardsThatRecordingOnly) {
    defaults().set(prefs::kAutoRecordCalendar, true);
    source.meetings = {meetingAt(clock.now(), "evt", -10, 1800)};
    auto& cal = makeCalendar();
    cal.start();
    ASSERT_TRUE(waitRecording());
    const auto id = *recorder->currentID();
    cal.deleteFromNotification("app.quillon.mac.meetingRecording.SOMETHING-ELSE");
    EXPECT_TRUE(recorder->state.isRecording.get());
    cal.deleteFromNotification(posted.at(0).identifier);
    EXPECT_FALSE(recorder->state.isRecording.get());
    EXPECT_EQ(entry(id)->status, Status::discarded);
}

}  // namespace
}  // namespace vell::automation
