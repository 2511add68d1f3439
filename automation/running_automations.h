#pragma once
// The automations the host runs, for the parts that serve their controls (the control
// interface, the tray). Set by the composition root when the launch starts them; null
// before, and in processes that are not the host. Main executor only.
namespace vell::automation {

class CalendarAutoRecorder;
class CalendarEventSource;
class DiscardedRecordings;

struct RunningAutomations {
    CalendarAutoRecorder* calendar = nullptr;
    CalendarEventSource* calendarSource = nullptr;
    DiscardedRecordings* discards = nullptr;
};

RunningAutomations& runningAutomations();

}  // namespace vell::automation
