#pragma once
// Starts a recording when a meeting in the user's calendar begins. Every 15 s while
// enabled it reads the calendar from one day back (meetings already under way) to 60 s
// ahead, picks the qualifying meeting not handled yet, marks it handled before anything
// else (so it never triggers twice, even across restarts), and, when the recorder is idle
// and the application ready, records it under the meeting's title and posts the meeting
// notification, whose Delete discards that recording. Main executor only.
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "automation/calendar_meeting.h"
#include "automation/meeting_rules.h"
#include "base/executor.h"
#include "base/published.h"
#include "base/user_defaults.h"

namespace vell::recording {
class RecorderService;
}

namespace vell::automation {

// A notification the automation asks the host to post.
struct AutomationNotice {
    std::string identifier;
    std::string category;  // empty: no actions
    std::string title;
    std::string body;
};

class CalendarAutoRecorder {
public:
    static constexpr double kTickSeconds = 15.0;
    static constexpr double kLookBackSeconds = 86'400;
    static constexpr double kLookAheadSeconds = 60;

    struct Ports {
        // The application can record now (signed in, launch check done).
        std::function<bool()> readyToRecord;
        std::function<void(const AutomationNotice&)> post;
    };

    CalendarAutoRecorder(CalendarEventSource& source, recording::RecorderService& recorder, UserDefaults& defaults,
                         Executor& main, const Clock& clock, Ports ports);
    ~CalendarAutoRecorder();
    CalendarAutoRecorder(const CalendarAutoRecorder&) = delete;
    CalendarAutoRecorder& operator=(const CalendarAutoRecorder&) = delete;

    Published<bool> isEnabled{false};
    Published<CalendarAccess> access{CalendarAccess::notDetermined};

    // Starts the timer when enabled (the launch step).
    void start();
    // Writes the preference and starts or stops the timer.
    void setEnabled(bool enabled);
    void tick();
    // The Delete action of a meeting notification: discards the recording it announced, if
    // it still runs.
    void deleteFromNotification(const std::string& notificationIdentifier);

    const HandledMeetings& handled() const { return handled_; }
    bool timerRunning() const { return static_cast<bool>(timer_); }

private:
    void startTimer();
    void startRecording(const CalendarMeeting& meeting);

    CalendarEventSource& source_;
    recording::RecorderService& recorder_;
    UserDefaults& defaults_;
    Executor& main_;
    const Clock& clock_;
    Ports ports_;
    HandledMeetings handled_;
    std::optional<TimerHandle> timer_;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace vell::automation
