#include "app/notification_categories.h"

#include "app/app_messages.h"

namespace vell::app {

const std::vector<NotificationCategory>& notificationCategories() {
    using namespace notifications;
    static const std::vector<NotificationCategory> categories = {
        {kAutoRecordingActive, {{kStopAutoRecording, messages::kActionStop, /*bringsToFront=*/true, false}}},
        {kCallEnded,
         {{kFinishRecording, messages::kActionFinishRecording, false, false},
          {kKeepRecording, messages::kActionKeepRecording, false, false}}},
        {kMeetingRecording, {{kDeleteRecording, messages::kActionDelete, false, /*destructive=*/true}}},
    };
    return categories;
}

}  // namespace vell::app
