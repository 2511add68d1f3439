#include <gtest/gtest.h>

#include "automation/meeting_rules.h"
#include "base/language.h"
#include "base/preference_keys.h"
#include "tests/support/temp_home.h"

namespace vell::automation {
namespace {

using std::chrono::seconds;
const WallTime kNow{seconds{1'800'000'000}};

CalendarMeeting meeting(std::string id, int startOffset, int endOffset) {
    CalendarMeeting m;
    m.id = std::move(id);
    m.title = "Sync";
    m.start = kNow + seconds(startOffset);
    m.end = kNow + seconds(endOffset);
    m.hasOtherAttendees = true;
    return m;
}

TEST(MeetingRules, RulesAreTestedInOrderAndTheFirstFailureIsReported) {
    HandledMeetings none;
    auto m = meeting("a", -30, 1800);
    EXPECT_EQ(judgeMeeting(m, kNow, none), MeetingVerdict::qualifies);

    // An all-day, cancelled, declined event never qualifies, even when everything else holds.
    auto allDay = m;
    allDay.isAllDay = true;
    allDay.isCanceled = true;
    EXPECT_EQ(judgeMeeting(allDay, kNow, none), MeetingVerdict::allDay);
    auto canceled = m;
    canceled.isCanceled = true;
    canceled.declined = true;
    EXPECT_EQ(judgeMeeting(canceled, kNow, none), MeetingVerdict::canceled);
    auto declined = m;
    declined.declined = true;
    EXPECT_EQ(judgeMeeting(declined, kNow, none), MeetingVerdict::declined);

    // Ends before (or when) it starts.
    EXPECT_EQ(judgeMeeting(meeting("b", -30, -30), kNow, none), MeetingVerdict::badTimes);
    EXPECT_EQ(judgeMeeting(meeting("b", -30, -60), kNow, none), MeetingVerdict::badTimes);

    // The start is inclusive, the end exclusive.
    EXPECT_EQ(judgeMeeting(meeting("c", 0, 60), kNow, none), MeetingVerdict::qualifies);
    EXPECT_EQ(judgeMeeting(meeting("c", 30, 60), kNow, none), MeetingVerdict::notStarted);
    EXPECT_EQ(judgeMeeting(meeting("c", -60, 0), kNow, none), MeetingVerdict::ended);

    HandledMeetings handled;
    handled.entries["a"] = kNow;
    EXPECT_EQ(judgeMeeting(m, kNow, handled), MeetingVerdict::handled);
}

TEST(MeetingRules, AMeetingAloneQualifiesOnlyWithAKnownMeetingLink) {
    HandledMeetings none;
    auto alone = meeting("a", -30, 1800);
    alone.hasOtherAttendees = false;
    alone.linkText = "Room 4B\nBring the slides";
    EXPECT_EQ(judgeMeeting(alone, kNow, none), MeetingVerdict::noOthersOrLink);
    for (const char* link : {"https://US02WEB.ZOOM.US/j/123", "https://meet.google.com/abc-defg-hij",
                             "https://teams.microsoft.com/l/meetup-join/x", "https://teams.live.com/meet/9",
                             "https://acme.webex.com/meet/x", "https://whereby.com/room", "https://around.co/r/x",
                             "https://meet.jit.si/Standup", "https://facetime.apple.com/join#v=1",
                             "https://chime.aws/123", "https://global.gotomeeting.com/join/1",
                             "https://bluejeans.com/123"}) {
        alone.linkText = std::string("Room 4B ") + link;
        EXPECT_EQ(judgeMeeting(alone, kNow, none), MeetingVerdict::qualifies) << link;
    }
}

TEST(MeetingRules, ChoiceTakesTheEarliestStartAndTheFirstOnATie) {
    HandledMeetings handled;
    std::vector<CalendarMeeting> list{meeting("later", -10, 600), meeting("tie1", -60, 600), meeting("tie2", -60, 600),
                                      meeting("future", 30, 600)};
    EXPECT_EQ(chooseMeeting(list, kNow, handled), 1u);
    handled.entries["tie1"] = kNow;
    EXPECT_EQ(chooseMeeting(list, kNow, handled), 2u);
    handled.entries["tie2"] = kNow;
    EXPECT_EQ(chooseMeeting(list, kNow, handled), 0u);
    handled.entries["later"] = kNow;
    EXPECT_FALSE(chooseMeeting(list, kNow, handled));
}

TEST(MeetingRules, HandledMeetingsPersistAndKeepTwoDays) {
    test::TempHome home;
    UserDefaults defaults(home.configHome() / "d.json");
    EXPECT_TRUE(HandledMeetings::load(defaults).entries.empty());
    defaults.set(prefs::kCalendarHandledMeetings, "not a dictionary");
    EXPECT_TRUE(HandledMeetings::load(defaults).entries.empty());

    HandledMeetings h;
    h.entries["old"] = kNow - seconds(172'801);
    h.entries["edge"] = kNow - seconds(172'800);
    h.entries["new"] = kNow - seconds(10);
    h.trim(kNow);
    h.save(defaults);
    UserDefaults reread(home.configHome() / "d.json");
    auto loaded = HandledMeetings::load(reread);
    EXPECT_EQ(loaded.entries.size(), 2u);
    EXPECT_FALSE(loaded.contains("old"));
    EXPECT_EQ(loaded.entries["new"], kNow - seconds(10));
    // Stored as seconds since 2001-01-01.
    EXPECT_DOUBLE_EQ(reread.dictionary(prefs::kCalendarHandledMeetings)->at("new").get<double>(),
                     1'800'000'000 - 978'307'200 - 10);
}

TEST(MeetingRules, TitlesAreTrimmedAndUntitledMeetingsNamed) {
    setInterfaceLanguage(Language::English);
    EXPECT_EQ(meetingTitle("  \n Weekly sync\t\n"), "Weekly sync");
    EXPECT_EQ(meetingTitle(" \n\t"), "Meeting");
    setInterfaceLanguage(Language::Spanish);
    EXPECT_EQ(meetingTitle(""), "Reunión");
    setInterfaceLanguage(Language::English);
}

}  // namespace
}  // namespace vell::automation
