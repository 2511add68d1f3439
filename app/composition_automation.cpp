#include "app/composition_automation.h"

#include "app/composition.h"
#include "app/core_services.h"
#include "app/host.h"
#include "automation/calendar_auto_recorder.h"
#include "automation/discarded_recordings.h"
#include "automation/running_automations.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/preference_keys.h"
#include "base/runtime.h"
#include "base/user_defaults.h"
#include "platform/calendar/ics_calendar_source.h"
#include "recording/recorder_service.h"
#include "service/api_client.h"

namespace vell::app {

namespace {

Notification toNotification(const automation::AutomationNotice& notice) {
    return Notification{notice.identifier, notice.category, notice.title, notice.body};
}

// The attendee addresses that are the user: the signed-in account's and those listed.
std::vector<std::string> myAddresses() {
    auto list = UserDefaults::standard().stringList(prefs::kCalendarAddresses).value_or(std::vector<std::string>{});
    if (auto me = core().appState().me.get(); me && !me->email.empty()) list.push_back(me->email);
    return list;
}

calendar::IcsCalendarSource& calendarSource() {
    static auto* made = new calendar::IcsCalendarSource(UserDefaults::standard(), paths::vellDataDirectory() / "Calendars",
                                                         &myAddresses, runtime::main(), runtime::clock());
    return *made;
}

automation::DiscardedRecordings& discardedRecordings() {
    static auto* made = [] {
        automation::DiscardedRecordings::Ports ports;
        ports.post = [](const automation::AutomationNotice& notice) { host().post(toNotification(notice)); };
        ports.restored = [] { core().uploads().wake(); };
        ports.purgeServerCopy = [](const std::string& liveSessionID,
                                   std::function<void(std::optional<std::string>)> done) {
            auto& client = core().client();
            client.async<service::Json>(
                [&client, liveSessionID] {
                    service::ApiRequest request;
                    request.method = "DELETE";
                    request.path = "api/recordings/live/" + liveSessionID;
                    return client.send(request);
                },
                [done](Expected<service::Json, service::APIError> result) {
                    // Already gone on the service counts as purged.
                    if (result || (result.error().kind == service::APIError::Kind::http && result.error().status == 404)) {
                        return done(std::nullopt);
                    }
                    done(result.error().description());
                });
        };
        return new automation::DiscardedRecordings(core().recorder(), UserDefaults::standard(), runtime::main(),
                                                   runtime::clock(), std::move(ports));
    }();
    return *made;
}

automation::CalendarAutoRecorder& calendarAutoRecorder() {
    static auto* made = [] {
        automation::CalendarAutoRecorder::Ports ports;
        // Recordings belong to an account: a meeting starts one once the user is signed in,
        // or at launch while the stored session's account is being checked.
        ports.readyToRecord = [] { return core().accountID().has_value(); };
        ports.post = [](const automation::AutomationNotice& notice) { host().post(toNotification(notice)); };
        return new automation::CalendarAutoRecorder(calendarSource(), core().recorder(), UserDefaults::standard(),
                                                    runtime::main(), runtime::clock(), std::move(ports));
    }();
    return *made;
}

}  // namespace

void startDiscardedPurge() {
    auto& discards = discardedRecordings();
    automation::runningAutomations().discards = &discards;
    discards.start();
}

void startCalendarRecorder() {
    auto& recorder = calendarAutoRecorder();
    automation::runningAutomations().calendar = &recorder;
    automation::runningAutomations().calendarSource = &calendarSource();
    host().handleResponses(std::string(notifications::kMeetingRecording), [](const NotificationResponse& response) {
        if (response.action == notifications::kDeleteRecording) calendarAutoRecorder().deleteFromNotification(response.identifier);
    });
    recorder.start();
}

}  // namespace vell::app
