#pragma once
// Which calendar meetings start a recording, and which one when several could: pure
// functions over CalendarMeeting values and the meetings already handled.
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "automation/calendar_meeting.h"
#include "base/language.h"
#include "base/user_defaults.h"

namespace vell::automation {

// Hosts of the meeting links of twelve video services (Teams has two).
inline constexpr std::string_view kMeetingLinkHosts[] = {
    "zoom.us",                 // Zoom
    "meet.google.com",         // Google Meet
    "teams.microsoft.com",     // Microsoft Teams
    "teams.live.com",          // Microsoft Teams (personal)
    "webex.com",               // Webex
    "whereby.com",             // Whereby
    "around.co",               // Around
    "meet.jit.si",             // Jitsi Meet
    "facetime.apple.com",      // FaceTime
    "chime.aws",               // Amazon Chime
    "gotomeeting.com",         // GoToMeeting
    "bluejeans.com",           // BlueJeans
};

bool containsMeetingLink(std::string_view linkText);

// Meetings already acted on, by identifier, with when; saved so that none starts twice,
// even across restarts.
struct HandledMeetings {
    static constexpr double kKeepSeconds = 172'800;  // two days
    std::map<std::string, WallTime> entries;

    // An absent or unreadable value gives no entries.
    static HandledMeetings load(const UserDefaults& defaults);
    void save(UserDefaults& defaults) const;
    // Drops every entry older than two days.
    void trim(WallTime now);
    bool contains(const std::string& id) const { return entries.count(id) != 0; }
};

// The first rule a meeting fails, in the order they are tested; qualifies when none.
enum class MeetingVerdict { qualifies, allDay, canceled, declined, badTimes, noOthersOrLink, notStarted, ended, handled };

MeetingVerdict judgeMeeting(const CalendarMeeting& meeting, WallTime now, const HandledMeetings& handled);
// Why a meeting does not start a recording, for the user; empty when it qualifies.
std::string verdictText(MeetingVerdict verdict);

// Among the qualifying meetings, the earliest start; on equal starts the first in order.
std::optional<std::size_t> chooseMeeting(const std::vector<CalendarMeeting>& meetings, WallTime now,
                                         const HandledMeetings& handled);

}  // namespace vell::automation
