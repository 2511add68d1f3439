#pragma once
// The notification categories registered once at launch, with their actions in order.
#include <string_view>
#include <vector>

#include "base/language.h"

namespace vell::app {

namespace notifications {
inline constexpr std::string_view kAutoRecordingActive = "app.quillon.mac.autoRecordingActive";
inline constexpr std::string_view kCallEnded = "app.quillon.mac.callEnded";
inline constexpr std::string_view kMeetingRecording = "app.quillon.mac.meetingRecording";
// Per-meeting notification identifiers begin with this.
inline constexpr std::string_view kMeetingRecordingPrefix = "app.quillon.mac.meetingRecording.";
// Audio sent to an outside agent: this, then the request's id (no category, no actions).
inline constexpr std::string_view kAgentUploadPrefix = "app.quillon.mac.agentUpload.";

inline constexpr std::string_view kStopAutoRecording = "app.quillon.mac.stopAutoRecording";
inline constexpr std::string_view kFinishRecording = "app.quillon.mac.finishRecording";
inline constexpr std::string_view kKeepRecording = "app.quillon.mac.keepRecording";
inline constexpr std::string_view kDeleteRecording = "app.quillon.mac.deleteRecording";
}  // namespace notifications

struct NotificationAction {
    std::string_view identifier;
    Text title;
    bool bringsToFront = false;
    bool destructive = false;
};

struct NotificationCategory {
    std::string_view identifier;
    std::vector<NotificationAction> actions;
};

// All three categories, in registration order.
const std::vector<NotificationCategory>& notificationCategories();

}  // namespace vell::app
