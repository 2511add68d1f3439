#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <nlohmann/json.hpp>

#include "base/files.h"
#include "base/utf8.h"
#include "platform/calendar/ical_expand.h"

namespace vell::calendar {
namespace {

using automation::CalendarMeeting;

WallTime utc(int y, int mo, int d, int h, int mi) {
    std::tm tm{};
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    tm.tm_hour = h;
    tm.tm_min = mi;
    return std::chrono::system_clock::from_time_t(timegm(&tm));
}

std::string fixture(const std::string& name) {
    std::error_code ec;
    auto text = files::read(std::filesystem::path(VELL_SOURCE_DIR) / "tests/platform/calendars" / name, ec);
    EXPECT_TRUE(text) << name;
    return text.value_or("");
}

ExpandedCalendar expand(const std::string& name, WallTime from, WallTime to, std::vector<std::string> me = {}) {
    auto result = expandCalendar(fixture(name), from, to, me);
    EXPECT_TRUE(result) << (result ? "" : result.error());
    return result ? *result : ExpandedCalendar{};
}

std::vector<const CalendarMeeting*> withTitlePrefix(const ExpandedCalendar& c, const std::string& prefix) {
    std::vector<const CalendarMeeting*> out;
    for (auto& m : c.meetings)
        if (m.title.rfind(prefix, 0) == 0) out.push_back(&m);
    return out;
}

TEST(CalendarParser, WeeklySeriesKeepsItsLocalTimeAcrossDaylightSavingWithExceptionsAndAMovedDeclinedInstance) {
    auto cal = expand("google.ics", utc(2026, 3, 1, 0, 0), utc(2026, 4, 21, 0, 0), {"ANA@example.com"});
    auto sync = withTitlePrefix(cal, "Weekly sync");
    ASSERT_EQ(sync.size(), 5u);
    // 10:00 in Berlin: 09:00 UTC in winter, 08:00 UTC from the last Sunday of March.
    EXPECT_EQ(sync[0]->start, utc(2026, 3, 16, 9, 0));
    EXPECT_EQ(sync[0]->end, utc(2026, 3, 16, 9, 30));
    // 23 March is excluded.
    EXPECT_EQ(sync[1]->start, utc(2026, 3, 30, 8, 0));
    EXPECT_EQ(sync[2]->start, utc(2026, 4, 13, 8, 0));
    EXPECT_EQ(sync[3]->start, utc(2026, 4, 20, 8, 0));
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(sync[i]->title, "Weekly sync");
        EXPECT_FALSE(sync[i]->declined);
        EXPECT_TRUE(sync[i]->hasOtherAttendees);
        EXPECT_NE(sync[i]->linkText.find("https://meet.google.com/abc-defg-hij"), std::string::npos);
    }
    // The 6 April instance moved to 14:00 and was declined; it keeps the instance's identifier.
    const CalendarMeeting& moved = *sync[4];
    EXPECT_EQ(moved.title, "Weekly sync (moved)");
    EXPECT_EQ(moved.start, utc(2026, 4, 6, 12, 0));
    EXPECT_TRUE(moved.declined);
    EXPECT_EQ(moved.id, "weekly-sync@google.com/" + std::to_string(std::chrono::system_clock::to_time_t(utc(2026, 4, 6, 8, 0))));
    std::set<std::string> ids;
    for (auto* m : sync) ids.insert(m->id);
    EXPECT_EQ(ids.size(), 5u);

    // Someone else's view of the same file: nobody declined.
    auto other = expand("google.ics", utc(2026, 4, 6, 0, 0), utc(2026, 4, 7, 0, 0), {"carla@example.com"});
    ASSERT_EQ(withTitlePrefix(other, "Weekly sync").size(), 1u);
    EXPECT_FALSE(withTitlePrefix(other, "Weekly sync")[0]->declined);

    auto offsite = withTitlePrefix(cal, "Team offsite");
    ASSERT_EQ(offsite.size(), 1u);
    EXPECT_TRUE(offsite[0]->isAllDay);
    EXPECT_EQ(offsite[0]->end - offsite[0]->start, std::chrono::hours(24));
}

TEST(CalendarParser, OutlookZonesLinksCancelledAndBrokenEvents) {
    auto cal = expand("outlook.ics", utc(2026, 3, 5, 0, 0), utc(2026, 3, 6, 0, 0));
    auto budget = withTitlePrefix(cal, "Budget review");
    ASSERT_EQ(budget.size(), 1u);
    // The Windows zone name resolves through the file's own VTIMEZONE (PST, -8).
    EXPECT_EQ(budget[0]->start, utc(2026, 3, 5, 17, 0));
    EXPECT_FALSE(budget[0]->hasOtherAttendees);
    // The folded description line is one link again.
    EXPECT_NE(budget[0]->linkText.find("teams.microsoft.com/l/meetup-join"), std::string::npos);
    EXPECT_NE(budget[0]->linkText.find("Microsoft Teams Meeting"), std::string::npos);

    auto canceled = withTitlePrefix(cal, "Canceled: Vendor call");
    ASSERT_EQ(canceled.size(), 1u);
    EXPECT_TRUE(canceled[0]->isCanceled);
    auto skew = withTitlePrefix(cal, "Clock skew");
    ASSERT_EQ(skew.size(), 1u);
    EXPECT_LT(skew[0]->end, skew[0]->start);

    // An unknown zone is reported and the event left out rather than guessed.
    EXPECT_TRUE(withTitlePrefix(cal, "Somewhere").empty());
    ASSERT_EQ(cal.problems.size(), 1u);
    EXPECT_NE(cal.problems[0].find("Mars/Olympus_Mons"), std::string::npos);
}

TEST(CalendarParser, NextcloudDailySeriesWithAnExtraDateAndARunawayRule) {
    auto cal = expand("nextcloud.ics", utc(2026, 3, 5, 0, 0), utc(2026, 3, 10, 0, 0));
    std::vector<WallTime> starts;
    for (auto& m : cal.meetings) {
        EXPECT_EQ(m.title, "Meeting");  // no summary
        EXPECT_EQ(m.end - m.start, std::chrono::minutes(15));
        starts.push_back(m.start);
    }
    // Thursday, Friday, the extra Saturday at 11:00, Monday (Buenos Aires is UTC-3).
    EXPECT_EQ(starts, (std::vector<WallTime>{utc(2026, 3, 5, 12, 30), utc(2026, 3, 6, 12, 30), utc(2026, 3, 7, 14, 0),
                                             utc(2026, 3, 9, 12, 30)}));
    // The every-second rule from 2000 is cut off, not expanded forever.
    ASSERT_EQ(cal.problems.size(), 1u);
    EXPECT_NE(cal.problems[0].find("Runaway"), std::string::npos);
}

TEST(CalendarParser, AnOpenEndedSeriesFromLongAgoStillReachesToday) {
    // Every 30 minutes since 1990: far more instances than any rule may walk.
    const std::string text =
        "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nBEGIN:VEVENT\r\nUID:old\r\nSUMMARY:Pomodoro\r\n"
        "DTSTART:19900101T000000Z\r\nDTEND:19900101T002500Z\r\nRRULE:FREQ=MINUTELY;INTERVAL=30\r\n"
        "ATTENDEE:mailto:x@example.com\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";
    auto cal = expandCalendar(text, utc(2026, 3, 5, 10, 10), utc(2026, 3, 5, 11, 10), {});
    ASSERT_TRUE(cal);
    EXPECT_TRUE(cal->problems.empty());
    std::vector<WallTime> starts;
    for (auto& m : cal->meetings) starts.push_back(m.start);
    EXPECT_EQ(starts, (std::vector<WallTime>{utc(2026, 3, 5, 10, 0), utc(2026, 3, 5, 10, 30), utc(2026, 3, 5, 11, 0)}));
}

TEST(CalendarParser, RunawayRulesShareOneBudgetAndTheRestOfTheCalendarStays) {
    // Six every-second rules: five use up the calendar's budget, the sixth is not walked at
    // all, and a plain event after them is still read.
    std::string text = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\n";
    for (int i = 1; i <= 6; ++i)
        text += "BEGIN:VEVENT\r\nUID:r" + std::to_string(i) + "\r\nSUMMARY:Runaway " + std::to_string(i) +
                "\r\nDTSTART:20000101T000000Z\r\nDTEND:20000101T000001Z\r\nRRULE:FREQ=SECONDLY\r\nEND:VEVENT\r\n";
    text += "BEGIN:VEVENT\r\nUID:plain\r\nSUMMARY:Review\r\nDTSTART:20260305T100000Z\r\n"
            "DTEND:20260305T103000Z\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";
    auto cal = expandCalendar(text, utc(2026, 3, 5, 0, 0), utc(2026, 3, 6, 0, 0), {});
    ASSERT_TRUE(cal);
    static_assert(kMaximumInstancesPerCalendar == 5 * kMaximumInstancesPerRule);
    ASSERT_EQ(cal->problems.size(), 6u);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(cal->problems[i], "\"Runaway " + std::to_string(i + 1) + "\": repeat rule cut off after 20000 instances");
    EXPECT_EQ(cal->problems[5], "\"Runaway 6\": repeat rule not expanded, the calendar's rules already walked 100000 instances");
    EXPECT_EQ(withTitlePrefix(*cal, "Review").size(), 1u);
}

TEST(CalendarParser, WhatIsNotACalendarIsRefusedWithoutCrashing) {
    const WallTime from = utc(2026, 3, 1, 0, 0), to = utc(2026, 3, 2, 0, 0);
    EXPECT_FALSE(expandCalendar(fixture("not-a-calendar.html"), from, to, {}));
    EXPECT_FALSE(expandCalendar("", from, to, {}));
    std::string huge = "BEGIN:VCALENDAR\r\n" + std::string(kMaximumCalendarBytes, 'x');
    auto tooBig = expandCalendar(huge, from, to, {});
    ASSERT_FALSE(tooBig);
    EXPECT_NE(tooBig.error().find("MB"), std::string::npos);
    // Truncated and mangled files give what can be read, or nothing.
    const auto google = fixture("google.ics");
    for (std::size_t cut : {std::size_t{20}, google.size() / 3, google.size() / 2, google.size() - 20}) {
        auto partial = expandCalendar(google.substr(0, cut), utc(2026, 3, 1, 0, 0), utc(2026, 5, 1, 0, 0), {});
        if (partial) EXPECT_LE(partial->meetings.size(), 8u);
    }
    auto junk = expandCalendar("BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nDTSTART:garbage\r\nRRULE:FREQ=NOPE\r\n", from, to, {});
    if (junk) EXPECT_TRUE(junk->meetings.empty());
}

TEST(CalendarParser, HostileCalendarsAreBoundedAndTheirTextMadeValid) {
    const WallTime from = utc(2026, 3, 1, 0, 0), to = utc(2026, 4, 1, 0, 0);
    const std::string head = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\n";
    auto daily = [](const std::string& extra) {
        return "BEGIN:VEVENT\r\nUID:daily\r\nSUMMARY:Daily\r\nDTSTART:20260301T090000Z\r\nDTEND:20260301T093000Z\r\n"
               "RRULE:FREQ=DAILY\r\n" + extra + "END:VEVENT\r\n";
    };
    std::string manyDates, tooManyDates;
    for (int i = 0; i < 9'000; ++i) manyDates += "EXDATE;VALUE=DATE:20260302\r\n";
    for (int i = 0; i < 20'000; ++i) tooManyDates += "EXDATE:20260302T090000Z\r\n";
    std::string deep = head;
    for (int i = 0; i < 200'000; ++i) deep += "BEGIN:VEVENT\r\n";
    struct Case {
        const char* name;
        std::string text;
        std::size_t meetings;   // in March
        const char* refusal;    // part of the error, or nothing when it reads
        const char* problem;    // part of the first problem, or nothing
    } cases[] = {
        {"title and UID not UTF-8",
         head + "BEGIN:VEVENT\r\nUID:id-\xff\xfe\r\nSUMMARY:Plan \xc3\x28 \xed\xa0\x80 ok\r\nDTSTART:20260305T100000Z\r\n"
                "LOCATION:Room \x80\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n",
         1, nullptr, nullptr},
        {"nested 200,000 deep", deep, 0, "nests", nullptr},
        {"9,000 excluded days", head + daily(manyDates) + "END:VCALENDAR\r\n", 30, nullptr, nullptr},
        {"20,000 excluded times", head + daily(tooManyDates) + "END:VCALENDAR\r\n", 0, nullptr, "excluded dates"},
    };
    for (const auto& c : cases) {
        const auto started = std::chrono::steady_clock::now();
        auto cal = expandCalendar(c.text, from, to, {});
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2)) << c.name;
        if (c.refusal) {
            ASSERT_FALSE(cal) << c.name;
            EXPECT_NE(cal.error().find(c.refusal), std::string::npos) << c.name << ": " << cal.error();
            continue;
        }
        ASSERT_TRUE(cal) << c.name << ": " << cal.error();
        EXPECT_EQ(cal->meetings.size(), c.meetings) << c.name;
        if (c.problem) {
            ASSERT_FALSE(cal->problems.empty()) << c.name;
            EXPECT_NE(cal->problems[0].find(c.problem), std::string::npos) << cal->problems[0];
        }
        for (const auto& m : cal->meetings) {
            EXPECT_TRUE(isValidUtf8(m.id) && isValidUtf8(m.title) && isValidUtf8(m.linkText)) << c.name;
            const nlohmann::json stored = {{"id", m.id}, {"title", m.title}, {"link", m.linkText}};
            EXPECT_NO_THROW((void)stored.dump());
        }
    }
    // What stays readable stays: the replaced bytes only.
    auto text = expandCalendar(cases[0].text, from, to, {});
    ASSERT_TRUE(text && text->meetings.size() == 1);
    EXPECT_EQ(text->meetings[0].title, "Plan \xEF\xBF\xBD( \xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD ok");
    EXPECT_EQ(text->meetings[0].id, "id-\xEF\xBF\xBD\xEF\xBF\xBD");
    // The 2 March instance is the one the excluded day removes.
    auto days = expandCalendar(cases[2].text, from, to, {});
    ASSERT_TRUE(days && !days->meetings.empty());
    EXPECT_EQ(days->meetings[1].start, utc(2026, 3, 3, 9, 0));
}

}  // namespace
}  // namespace vell::calendar
