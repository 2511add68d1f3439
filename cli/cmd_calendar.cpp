// vell calendar add|remove|list|on|off|upcoming|status: the calendars the host reads to
// record meetings as they begin. Through the host when one runs (it owns the defaults
// store in memory), else in this process.
#include <fmt/format.h>

#include <ctime>
#include <iostream>
#include <nlohmann/json.hpp>

#include "automation/meeting_rules.h"
#include "base/paths.h"
#include "base/preference_keys.h"
#include "base/runtime.h"
#include "base/user_defaults.h"
#include "cli/calendar_messages.h"
#include "cli/command.h"
#include "cli/host_client.h"
#include "cli/json_output.h"
#include "cli/runtime_scope.h"
#include "platform/calendar/calendar_report.h"
#include "platform/calendar/ics_calendar_source.h"

namespace vell::cli {

namespace {
namespace msg = calendar_messages;
using Json = nlohmann::json;

std::unique_ptr<calendar::IcsCalendarSource> localSource() {
    return std::make_unique<calendar::IcsCalendarSource>(
        UserDefaults::standard(), paths::vellDataDirectory() / "Calendars",
        [] { return UserDefaults::standard().stringList(prefs::kCalendarAddresses).value_or(std::vector<std::string>{}); },
        runtime::main(), runtime::clock());
}

// The report from the host, or made here; nothing (and the exit code set) on failure.
std::optional<Json> fetchReport(Context& context, bool upcoming) {
    if (auto host = runningHost()) {
        auto text = host->calendarReport(upcoming);
        if (!text) {
            context.exitCode = reportHostError(text.error());
            return std::nullopt;
        }
        return Json::parse(*text, nullptr, false);
    }
    auto scope = RuntimeScope::enter(context, {.ownsDataDirectories = false});
    if (!scope) return std::nullopt;
    auto source = localSource();
    source->refreshNow();
    auto& defaults = UserDefaults::standard();
    auto report = calendar::calendarReport(
        *source, defaults.boolValue(prefs::kAutoRecordCalendar).value_or(prefs::kAutoRecordCalendarDefault),
        automation::HandledMeetings::load(defaults), runtime::clock().now(), upcoming);
    report["recordingMeeting"] = nullptr;
    report["undo"] = Json::object();
    return report;
}

std::string localTime(const std::string& iso, const char* format) {
    std::tm tm{};
    if (!strptime(iso.c_str(), "%Y-%m-%dT%H:%M:%SZ", &tm)) return iso;
    std::time_t t = timegm(&tm);
    std::tm local{};
    ::localtime_r(&t, &local);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, format, &local);
    return buffer;
}

std::string text(const Json& j, const char* key) {
    return j.contains(key) && j[key].is_string() ? j[key].get<std::string>() : std::string();
}

void printSources(const Json& report) {
    std::cout << (report.value("enabled", false) ? msg::kEnabled : msg::kDisabled).str() << "\n";
    const auto& sources = report["sources"];
    if (sources.empty()) {
        std::cout << msg::kNoSources.str() << "\n";
        return;
    }
    int n = 0;
    for (const auto& s : sources) {
        std::string line = fmt::format("{}. {}  ", ++n, text(s, "source"));
        const std::string error = text(s, "error");
        if (s.value("readable", false)) {
            line += msg::kReadable.str() + " (" + std::to_string(s.value("events", 0)) + msg::kEvents.str() + ")";
            if (!error.empty()) line += "; " + error + msg::kLastGoodCopy.str();
        } else {
            line += msg::kNotReadable.str() + (error.empty() ? "" : ": " + error);
        }
        std::cout << line << "\n";
    }
}

int list(Context& context, bool json) {
    auto report = fetchReport(context, false);
    if (!report) return context.exitCode ? context.exitCode : kExitFailure;
    if (json) {
        auto sources = (*report)["sources"];
        for (auto& s : sources) s["loadedAt"] = isoFromUTC(s.value("loadedAt", Json()));
        std::cout << sources.dump(2) << "\n";
    } else {
        printSources(*report);
    }
    return kExitOK;
}

int upcoming(Context& context, bool json) {
    auto report = fetchReport(context, true);
    if (!report) return context.exitCode ? context.exitCode : kExitFailure;
    const auto& meetings = (*report)["upcoming"];
    if (json) {
        auto out = meetings;
        for (auto& m : out) {
            m["start"] = isoFromUTC(m.value("start", Json()));
            m["end"] = isoFromUTC(m.value("end", Json()));
        }
        std::cout << out.dump(2) << "\n";
        return kExitOK;
    }
    if (meetings.empty()) std::cout << msg::kNoUpcoming.str() << "\n";
    for (const auto& m : meetings) {
        std::cout << localTime(text(m, "start"), "%a %d %b %H:%M") << "-" << localTime(text(m, "end"), "%H:%M") << "  "
                  << text(m, "title") << "  "
                  << (m.value("qualifies", false) ? msg::kWouldRecord.str() : text(m, "reason")) << "\n";
    }
    return kExitOK;
}

int status(Context& context, bool json) {
    auto report = fetchReport(context, false);
    if (!report) return context.exitCode ? context.exitCode : kExitFailure;
    if (json) {
        Json out{{"enabled", (*report)["enabled"]}, {"access", (*report)["access"]},
                 {"recordingMeeting", (*report)["recordingMeeting"]}, {"undo", (*report)["undo"]}};
        std::cout << out.dump(2) << "\n";
        return kExitOK;
    }
    std::cout << ((*report).value("enabled", false) ? msg::kEnabled : msg::kDisabled).str() << "\n";
    if (auto title = text(*report, "recordingMeeting"); !title.empty()) std::cout << msg::kRecordingMeeting.str() << title << "\n";
    const auto& undo = (*report)["undo"];
    if (undo.is_object() && undo.contains("takeID")) {
        std::cout << msg::kUndoAvailable.str() << static_cast<int>(undo.value("secondsLeft", 0.0)) << msg::kSecondsSuffix.str()
                  << (undo["meeting"].is_string() ? undo["meeting"].get<std::string>() : text(undo, "takeID")) << "\n";
    }
    return kExitOK;
}

int add(Context& context, const std::string& source) {
    std::string stored;
    if (auto host = runningHost()) {
        auto added = host->calendarAdd(source);
        if (!added) return reportHostError(added.error());
        stored = *added;
    } else {
        auto added = calendar::addSource(UserDefaults::standard(), source);
        if (!added) {
            std::cerr << "vell: " << added.error() << "\n";
            return kExitFailure;
        }
        stored = *added;
    }
    std::cout << msg::kAdded.str() << stored << "\n";
    // Said at once when the calendar cannot be read, rather than at the first meeting.
    if (auto report = fetchReport(context, false)) {
        for (const auto& s : (*report)["sources"]) {
            if (text(s, "source") != stored) continue;
            // A subscription the host is still downloading has no error yet.
            if (!s.value("readable", false) && !text(s, "error").empty()) {
                std::cerr << "vell: " << msg::kAddedButUnreadable.str() << text(s, "error") << "\n";
            }
        }
    }
    context.exitCode = kExitOK;
    return kExitOK;
}

int remove(const std::string& source) {
    Expected<std::string, std::string> removed = unexpected(std::string());
    if (auto host = runningHost()) {
        auto r = host->calendarRemove(source);
        if (!r) return reportHostError(r.error());
        removed = *r;
    } else {
        removed = calendar::removeSource(UserDefaults::standard(), source);
    }
    if (!removed) {
        std::cerr << "vell: " << removed.error() << "\n";
        return kExitFailure;
    }
    std::cout << msg::kRemoved.str() << *removed << "\n";
    return kExitOK;
}

int setEnabled(bool enabled) {
    if (auto host = runningHost()) {
        auto done = host->calendarSetEnabled(enabled);
        if (!done) return reportHostError(done.error());
    } else {
        UserDefaults::standard().set(prefs::kAutoRecordCalendar, enabled);
    }
    std::cout << (enabled ? msg::kEnabled : msg::kDisabled).str() << "\n";
    return kExitOK;
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("calendar", msg::kDescription.str());
    cmd->require_subcommand(1);
    auto source = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);

    auto* addCmd = cmd->add_subcommand("add", msg::kAdd.str());
    addCmd->add_option("source", *source, msg::kSourceArgument.str())->required();
    addCmd->callback([&context, source] { context.exitCode = add(context, *source); });

    auto* removeCmd = cmd->add_subcommand("remove", msg::kRemove.str());
    removeCmd->add_option("source", *source, msg::kSourceArgument.str())->required();
    removeCmd->callback([&context, source] { context.exitCode = remove(*source); });

    auto* listCmd = cmd->add_subcommand("list", msg::kList.str());
    listCmd->add_flag("--json", *json, msg::kJsonOption.str());
    listCmd->callback([&context, json] { context.exitCode = list(context, *json); });

    cmd->add_subcommand("on", msg::kOn.str())->callback([&context] { context.exitCode = setEnabled(true); });
    cmd->add_subcommand("off", msg::kOff.str())->callback([&context] { context.exitCode = setEnabled(false); });

    auto* upcomingCmd = cmd->add_subcommand("upcoming", msg::kUpcoming.str());
    upcomingCmd->add_flag("--json", *json, msg::kJsonOption.str());
    upcomingCmd->callback([&context, json] { context.exitCode = upcoming(context, *json); });

    auto* statusCmd = cmd->add_subcommand("status", msg::kStatus.str());
    statusCmd->add_flag("--json", *json, msg::kJsonOption.str());
    statusCmd->callback([&context, json] { context.exitCode = status(context, *json); });
}

}  // namespace

VELL_COMMAND(60, setup);

}  // namespace vell::cli
