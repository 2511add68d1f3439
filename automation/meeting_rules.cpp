#include "automation/meeting_rules.h"

#include <algorithm>
#include <cctype>

#include "automation/automation_messages.h"
#include "base/preference_keys.h"

namespace vell::automation {

std::string meetingTitle(std::string_view raw) {
    auto space = [](unsigned char c) { return std::isspace(c) != 0; };
    while (!raw.empty() && space(raw.front())) raw.remove_prefix(1);
    while (!raw.empty() && space(raw.back())) raw.remove_suffix(1);
    if (raw.empty()) return messages::kUntitledMeeting.str();
    return std::string(raw);
}

bool containsMeetingLink(std::string_view linkText) {
    std::string lower(linkText);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    for (auto host : kMeetingLinkHosts) {
        if (lower.find(host) != std::string::npos) return true;
    }
    return false;
}

HandledMeetings HandledMeetings::load(const UserDefaults& defaults) {
    HandledMeetings handled;
    auto dictionary = defaults.dictionary(prefs::kCalendarHandledMeetings);
    if (!dictionary) return handled;
    for (auto it = dictionary->begin(); it != dictionary->end(); ++it) {
        if (it.value().is_number()) handled.entries[it.key()] = fromSecondsSinceReferenceDate(it.value().get<double>());
    }
    return handled;
}

void HandledMeetings::save(UserDefaults& defaults) const {
    nlohmann::json dictionary = nlohmann::json::object();
    for (const auto& [id, when] : entries) dictionary[id] = secondsSinceReferenceDate(when);
    defaults.set(prefs::kCalendarHandledMeetings, std::move(dictionary));
}

void HandledMeetings::trim(WallTime now) {
    std::erase_if(entries, [&](const auto& entry) {
        return std::chrono::duration<double>(now - entry.second).count() > kKeepSeconds;
    });
}

MeetingVerdict judgeMeeting(const CalendarMeeting& m, WallTime now, const HandledMeetings& handled) {
    if (m.isAllDay) return MeetingVerdict::allDay;
    if (m.isCanceled) return MeetingVerdict::canceled;
    if (m.declined) return MeetingVerdict::declined;
    if (!(m.end > m.start)) return MeetingVerdict::badTimes;
    if (!m.hasOtherAttendees && !containsMeetingLink(m.linkText)) return MeetingVerdict::noOthersOrLink;
    if (now < m.start) return MeetingVerdict::notStarted;
    if (!(now < m.end)) return MeetingVerdict::ended;
    if (handled.contains(m.id)) return MeetingVerdict::handled;
    return MeetingVerdict::qualifies;
}

std::string verdictText(MeetingVerdict verdict) {
    switch (verdict) {
        case MeetingVerdict::qualifies: return {};
        case MeetingVerdict::allDay: return messages::kVerdictAllDay.str();
        case MeetingVerdict::canceled: return messages::kVerdictCanceled.str();
        case MeetingVerdict::declined: return messages::kVerdictDeclined.str();
        case MeetingVerdict::badTimes: return messages::kVerdictBadTimes.str();
        case MeetingVerdict::noOthersOrLink: return messages::kVerdictNoOthers.str();
        case MeetingVerdict::notStarted: return messages::kVerdictNotStarted.str();
        case MeetingVerdict::ended: return messages::kVerdictEnded.str();
        case MeetingVerdict::handled: return messages::kVerdictHandled.str();
    }
    return {};
}

std::optional<std::size_t> chooseMeeting(const std::vector<CalendarMeeting>& meetings, WallTime now,
                                         const HandledMeetings& handled) {
    std::optional<std::size_t> chosen;
    for (std::size_t i = 0; i < meetings.size(); ++i) {
        if (judgeMeeting(meetings[i], now, handled) != MeetingVerdict::qualifies) continue;
        // Strictly earlier only: on equal starts the first in order stays.
        if (!chosen || meetings[i].start < meetings[*chosen].start) chosen = i;
    }
    return chosen;
}

}  // namespace vell::automation
