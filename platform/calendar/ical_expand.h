#pragma once
// iCalendar text to the meetings of a time window, with libical: time zones (VTIMEZONE or
// the system's zone data for a TZID), recurrences expanded (RRULE, RDATE, EXDATE and
// instances moved or changed by RECURRENCE-ID), all-day events, cancelled events and the
// user's own declined invitations. Every text taken from the file is made valid UTF-8 here.
// Pure function; any thread (libical's zone cache is
// guarded here).
#include <string>
#include <string_view>
#include <vector>

#include "automation/calendar_meeting.h"
#include "base/expected.h"

namespace vell::calendar {

// Bigger calendars are refused rather than parsed: a subscription that grew this large is
// almost certainly not a calendar (or not one we can read every 15 s).
inline constexpr std::size_t kMaximumCalendarBytes = 16 * 1024 * 1024;
// A rule that would go on producing instances past this many is cut off there.
inline constexpr int kMaximumInstancesPerRule = 20'000;
// And all the rules of one calendar together stop past this many: a file of thousands of
// runaway rules would otherwise cost minutes of CPU at every refresh.
inline constexpr int kMaximumInstancesPerCalendar = 100'000;
// Components nest three deep in real calendars (a calendar, an event, its alarm); a file
// nesting deeper is refused before libical sees it, whose parse and free recurse per level.
inline constexpr int kMaximumNesting = 8;
// An event that excludes more dates than this is skipped rather than expanded.
inline constexpr int kMaximumExclusionsPerEvent = 10'000;

struct ExpandedCalendar {
    std::vector<automation::CalendarMeeting> meetings;  // file order, instances in time order
    std::vector<std::string> problems;                  // events skipped, and why
    int events = 0;                                     // VEVENTs read
};

// Whether the text looks like iCalendar at all (not HTML, not empty).
bool looksLikeICalendar(std::string_view text);

// myAddresses: the user's own addresses (lower-case, without "mailto:"); an attendee with
// one of them is the user.
Expected<ExpandedCalendar, std::string> expandCalendar(std::string_view text, WallTime from, WallTime to,
                                                      const std::vector<std::string>& myAddresses);

}  // namespace vell::calendar
