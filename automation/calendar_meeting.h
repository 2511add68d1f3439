#pragma once
// A meeting as the calendar automation sees it, whatever calendar it came from, and the
// port through which the calendar is read. Plain values: the rules that decide whether a
// meeting starts a recording run without any calendar behind them.
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"

namespace vell::automation {

struct CalendarMeeting {
    std::string id;     // the event identifier (one per occurrence of a recurring event)
    std::string title;  // trimmed; "Meeting" when empty
    WallTime start{};
    WallTime end{};
    bool isAllDay = false;
    bool isCanceled = false;
    bool declined = false;           // the current user's attendee has declined
    bool hasOtherAttendees = false;  // some attendee is not the current user
    std::string linkText;            // the event's URL, location and notes, joined

    bool operator==(const CalendarMeeting&) const = default;
};

// Leading and trailing white space and newlines removed; "Meeting" when nothing is left.
std::string meetingTitle(std::string_view raw);

enum class CalendarAccess { notDetermined, granted, denied };

// The calendars the user gave us. Called on the main executor; must not block on the
// network (remote calendars are read from their cached copy).
class CalendarEventSource {
public:
    virtual ~CalendarEventSource() = default;
    // granted when at least one calendar is configured and readable.
    virtual CalendarAccess access() = 0;
    // Every event overlapping [from, to), recurrences expanded, in a stable order.
    virtual std::vector<CalendarMeeting> events(WallTime from, WallTime to) = 0;
};

}  // namespace vell::automation
