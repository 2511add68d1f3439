#include "platform/dbus/control_calendar.h"

#include <nlohmann/json.hpp>

#include "app/core_services.h"
#include "automation/automation_messages.h"
#include "automation/calendar_auto_recorder.h"
#include "automation/discarded_recordings.h"
#include "automation/running_automations.h"
#include "base/user_defaults.h"
#include "platform/calendar/calendar_report.h"
#include "recording/recorder_service.h"

namespace vell::dbus {

namespace {

sdbus::Error failed(const std::string& sentence) { return sdbus::Error(errors::kFailed, sentence); }

calendar::IcsCalendarSource* icsSource() {
    return dynamic_cast<calendar::IcsCalendarSource*>(automation::runningAutomations().calendarSource);
}

nlohmann::json discardStatusJson(automation::DiscardedRecordings* discards) {
    if (!discards) return nlohmann::json::object();
    auto latest = discards->latest.get();
    if (!latest) return nlohmann::json::object();
    return {{"takeID", latest->takeID},
            {"meeting", latest->meeting ? nlohmann::json(*latest->meeting) : nlohmann::json(nullptr)},
            {"reason", latest->reason == automation::DiscardReason::user ? "user" : "nobodySpoke"},
            {"secondsLeft", discards->secondsLeft()}};
}

}  // namespace

void registerCalendarControl(ControlContext& context) {
    const char* I = kControlInterface;
    auto& object = context.object;
    ControlContext* ctx = &context;

    object.registerMethod("CalendarAdd").onInterface(I).implementedAs([ctx](sdbus::Result<std::string>&& result, std::string source) {
        if (refused(result, arguments::calendarSource(source))) return;
        ctx->onMain(std::move(result), [source](auto& r) {
            auto added = calendar::addSource(UserDefaults::standard(), source);
            if (!added) return r->returnError(failed(added.error()));
            // A new subscription starts downloading now (on its own queue) rather than at the
            // next tick.
            if (auto* ics = icsSource()) ics->access();
            r->returnResults(*added);
        });
    });
    object.registerMethod("CalendarRemove").onInterface(I).implementedAs([ctx](sdbus::Result<std::string>&& result, std::string source) {
        if (refused(result, arguments::calendarSource(source))) return;
        ctx->onMain(std::move(result), [source](auto& r) {
            auto removed = calendar::removeSource(UserDefaults::standard(), source);
            if (!removed) return r->returnError(failed(removed.error()));
            r->returnResults(*removed);
        });
    });
    object.registerMethod("CalendarSetEnabled").onInterface(I).implementedAs([ctx](sdbus::Result<>&& result, bool enabled) {
        ctx->onMain(std::move(result), [enabled](auto& r) {
            auto* recorder = automation::runningAutomations().calendar;
            if (!recorder) return r->returnError(failed("The calendar recorder is not running."));
            recorder->setEnabled(enabled);
            r->returnResults();
        });
    });
    object.registerMethod("CalendarReport").onInterface(I).implementedAs([ctx](sdbus::Result<std::string>&& result, bool upcoming) {
        ctx->onMain(std::move(result), [ctx, upcoming](auto& r) {
            auto& running = automation::runningAutomations();
            auto* ics = icsSource();
            if (!ics || !running.calendar) return r->returnError(failed("The calendar recorder is not running."));
            auto report = calendar::calendarReport(*ics, running.calendar->isEnabled.get(), running.calendar->handled(),
                                                   runtime::clock().now(), upcoming);
            auto title = ctx->host.core().recorder().state.calendarMeetingTitle.get();
            report["recordingMeeting"] = title ? nlohmann::json(*title) : nlohmann::json(nullptr);
            report["undo"] = discardStatusJson(running.discards);
            r->returnResults(report.dump());
        });
    });
    object.registerMethod("Undo").onInterface(I).implementedAs([ctx](sdbus::Result<std::string>&& result) {
        ctx->onMain(std::move(result), [ctx](auto& r) {
            auto* discards = automation::runningAutomations().discards;
            if (!discards || !discards->latest.get()) {
                return r->returnError(failed(automation::messages::kNothingToUndo.str()));
            }
            const auto entry = *discards->latest.get();
            if (!discards->undo()) {
                auto error = ctx->host.core().recorder().state.lastError.get();
                return r->returnError(failed(error.value_or(automation::messages::kTooLateToUndo.str())));
            }
            nlohmann::json j{{"takeID", entry.takeID},
                             {"meeting", entry.meeting ? nlohmann::json(*entry.meeting) : nlohmann::json(nullptr)}};
            r->returnResults(j.dump());
        });
    });
}

}  // namespace vell::dbus
