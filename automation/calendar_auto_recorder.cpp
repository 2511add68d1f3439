#include "automation/calendar_auto_recorder.h"

#include "automation/automation_messages.h"
#include "base/log.h"
#include "base/preference_keys.h"
#include "recording/recorder_service.h"

namespace vell::automation {

namespace {
const log::Logger kLog("CalendarAutoRecorder");
constexpr std::string_view kMeetingCategory = "app.quillon.mac.meetingRecording";
constexpr std::string_view kMeetingPrefix = "app.quillon.mac.meetingRecording.";

std::chrono::system_clock::duration seconds(double s) {
    return std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::duration<double>(s));
}
}  // namespace

CalendarAutoRecorder::CalendarAutoRecorder(CalendarEventSource& source, recording::RecorderService& recorder,
                                           UserDefaults& defaults, Executor& main, const Clock& clock, Ports ports)
    : source_(source), recorder_(recorder), defaults_(defaults), main_(main), clock_(clock), ports_(std::move(ports)) {
    isEnabled.set(defaults_.boolValue(prefs::kAutoRecordCalendar).value_or(prefs::kAutoRecordCalendarDefault));
    handled_ = HandledMeetings::load(defaults_);
}

CalendarAutoRecorder::~CalendarAutoRecorder() {
    if (timer_) timer_->cancel();
}

void CalendarAutoRecorder::start() {
    if (isEnabled.get()) startTimer();
}

void CalendarAutoRecorder::setEnabled(bool enabled) {
    defaults_.set(prefs::kAutoRecordCalendar, enabled);
    isEnabled.set(enabled);
    if (enabled) {
        startTimer();
    } else if (timer_) {
        timer_->cancel();
        timer_.reset();
    }
}

void CalendarAutoRecorder::startTimer() {
    if (timer_) return;
    std::weak_ptr<int> alive = alive_;
    timer_ = main_.repeat(kTickSeconds, [this, alive] {
        if (!alive.expired()) tick();
    });
    tick();
}

void CalendarAutoRecorder::tick() {
    if (!isEnabled.get()) return;
    access.set(source_.access());
    if (access.get() != CalendarAccess::granted) return;

    const WallTime now = clock_.now();
    const auto meetings = source_.events(now - seconds(kLookBackSeconds), now + seconds(kLookAheadSeconds));
    const auto chosen = chooseMeeting(meetings, now, handled_);
    if (!chosen) return;
    const CalendarMeeting& meeting = meetings[*chosen];

    // Handled before anything else: a meeting that begins while a recording runs is never
    // started later, and a crash right after the start cannot start it twice.
    handled_.entries[meeting.id] = now;
    handled_.trim(now);
    handled_.save(defaults_);

    const bool idle = !recorder_.state.isRecording.get() && !recorder_.isStarting();
    if (!idle) {
        kLog.info("meeting \"" + meeting.title + "\" began while a recording runs; not started");
        return;
    }
    if (ports_.readyToRecord && !ports_.readyToRecord()) {
        kLog.info("meeting \"" + meeting.title + "\" began before Vell was ready to record; not started");
        return;
    }
    startRecording(meeting);
}

void CalendarAutoRecorder::startRecording(const CalendarMeeting& meeting) {
    kLog.info("meeting \"" + meeting.title + "\" began; recording it");
    std::weak_ptr<int> alive = alive_;
    const std::string title = meeting.title;
    recorder_.start({.automatic = true, .calendarMeetingTitle = title}, [this, alive, title](bool started) {
        if (alive.expired() || !started) return;
        const auto id = recorder_.currentID();
        if (!id || !ports_.post) return;
        AutomationNotice notice;
        notice.identifier = std::string(kMeetingPrefix) + *id;
        notice.category = std::string(kMeetingCategory);
        notice.title = messages::kRecordingMeetingPrefix.str() + title + messages::kRecordingMeetingSuffix.str();
        notice.body = messages::kMeetingNotificationBody.str();
        ports_.post(notice);
    });
}

void CalendarAutoRecorder::deleteFromNotification(const std::string& notificationIdentifier) {
    if (notificationIdentifier.rfind(kMeetingPrefix, 0) != 0) return;
    const std::string recordingID = notificationIdentifier.substr(kMeetingPrefix.size());
    const auto current = recorder_.currentID();
    if (!recorder_.state.isRecording.get() || !current || *current != recordingID) {
        kLog.info("Delete for a meeting recording that no longer runs; nothing to discard");
        return;
    }
    kLog.info("the meeting recording is deleted from its notification");
    recorder_.stop(true, true);
}

}  // namespace vell::automation
