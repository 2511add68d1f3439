#include "platform/calendar/calendar_report.h"

#include <algorithm>
#include <ctime>

namespace vell::calendar {

const char* accessName(automation::CalendarAccess access) {
    switch (access) {
        case automation::CalendarAccess::notDetermined: return "notDetermined";
        case automation::CalendarAccess::granted: return "granted";
        case automation::CalendarAccess::denied: return "denied";
    }
    return "notDetermined";
}

std::string isoTime(WallTime t) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(t);
    std::tm tm{};
    ::gmtime_r(&seconds, &tm);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buffer;
}

nlohmann::json calendarReport(IcsCalendarSource& source, bool enabled, const automation::HandledMeetings& handled,
                              WallTime now, bool withUpcoming) {
    nlohmann::json report;
    report["enabled"] = enabled;
    report["access"] = accessName(source.access());
    auto sources = nlohmann::json::array();
    for (const auto& s : source.states()) {
        nlohmann::json j{{"source", s.source}, {"remote", s.remote}, {"readable", s.readable}, {"events", s.events}};
        j["error"] = s.error ? nlohmann::json(*s.error) : nlohmann::json(nullptr);
        j["loadedAt"] = s.loadedAt ? nlohmann::json(isoTime(*s.loadedAt)) : nlohmann::json(nullptr);
        sources.push_back(std::move(j));
    }
    report["sources"] = std::move(sources);
    if (!withUpcoming) return report;

    auto meetings = source.events(now - std::chrono::hours(24),
                                  now + std::chrono::hours(static_cast<int>(24 * kUpcomingDays)));
    std::erase_if(meetings, [&](const auto& m) { return m.end <= now && !(m.end < m.start); });
    std::stable_sort(meetings.begin(), meetings.end(), [](const auto& a, const auto& b) { return a.start < b.start; });
    if (meetings.size() > kUpcomingLimit) meetings.resize(kUpcomingLimit);
    auto upcoming = nlohmann::json::array();
    for (const auto& m : meetings) {
        const auto verdict = automation::judgeMeeting(m, std::max(now, m.start), handled);
        upcoming.push_back({{"id", m.id},
                            {"title", m.title},
                            {"start", isoTime(m.start)},
                            {"end", isoTime(m.end)},
                            {"allDay", m.isAllDay},
                            {"qualifies", verdict == automation::MeetingVerdict::qualifies},
                            {"reason", automation::verdictText(verdict)}});
    }
    report["upcoming"] = std::move(upcoming);
    return report;
}

}  // namespace vell::calendar
