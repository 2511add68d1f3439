#pragma once
// What `vell calendar list|upcoming|status` shows, as JSON, built the same way by the host
// (over the control interface) and in-process when no host runs. Main executor.
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "automation/meeting_rules.h"
#include "platform/calendar/ics_calendar_source.h"

namespace vell::calendar {

inline constexpr double kUpcomingDays = 7;
inline constexpr std::size_t kUpcomingLimit = 20;

const char* accessName(automation::CalendarAccess access);

// {"enabled","access","sources":[{"source","remote","readable","error","events","loadedAt"}],
//  "upcoming":[{"id","title","start","end","allDay","qualifies","reason"}] (with upcoming)}
// Times are ISO 8601 in UTC. A meeting qualifies as judged at its own start.
nlohmann::json calendarReport(IcsCalendarSource& source, bool enabled, const automation::HandledMeetings& handled,
                              WallTime now, bool withUpcoming);

std::string isoTime(WallTime t);

}  // namespace vell::calendar
