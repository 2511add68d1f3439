// vell calls [status|on|off] [--json]: automatic call recording: whether it is switched on,
// whether the host is watching, the callers seen now and where the decision stands. With
// no host running, the switch is written for the next launch and the callers are looked
// up once here.
#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

#include "automation/automatic_call_recorder.h"
#include "base/preference_keys.h"
#include "base/user_defaults.h"
#include "cli/command.h"
#include "cli/help_messages.h"
#include "cli/host_client.h"
#include "cli/runtime_scope.h"
#include "platform/pulse/call_scan.h"

namespace vell::cli {

namespace {

inline constexpr Text kCallsHelp{"Automatic call recording: status, or switch it on or off",
                                 "Grabación automática de llamadas: estado, o activarla o desactivarla"};
inline constexpr Text kCallsActionHelp{"status, on or off", "status, on u off"};
inline constexpr Text kSwitch{"Record calls automatically: ", "Grabar llamadas automáticamente: "};
inline constexpr Text kOn{"on", "activado"};
inline constexpr Text kOff{"off", "desactivado"};
inline constexpr Text kMonitoring{"Watching for calls: ", "Atento a llamadas: "};
inline constexpr Text kYes{"yes", "sí"};
inline constexpr Text kNo{"no", "no"};
inline constexpr Text kCallers{"Callers: ", "Llamadas: "};
inline constexpr Text kNone{"none", "ninguna"};
inline constexpr Text kPresence{"Call: ", "Llamada: "};
inline constexpr Text kNoSoundServer{"The sound server could not be read.", "No se pudo leer el servidor de sonido."};
inline constexpr Text kInCall{"in progress", "en curso"};
inline constexpr Text kNoCall{"none", "ninguna"};
inline constexpr Text kEnding{"maybe over (the call application still holds the microphone, nothing plays)",
                              "quizás terminó (la aplicación de llamadas sigue con el micrófono y no suena nada)"};
inline constexpr Text kUnknownCall{"unknown", "no se sabe"};

using Json = nlohmann::ordered_json;

// The call as scripts see it: "inCall", "noCall", "ending" or "unknown", from the
// recorder's own sample names (which stay internal).
std::string callWord(const std::string& presence) {
    if (presence == "active") return "inCall";
    if (presence == "weaklyAbsent") return "noCall";
    if (presence == "stronglyAbsent") return "ending";
    return "unknown";
}

// The documented status: the switch, the watch, the callers, the call and whether the
// call recorder owns the running recording, and whether it waits for this call to end
// before it starts again (the user stopped its recording).
Json publicStatus(const Json& status) {
    const Json state = status.value("state", Json::object());
    Json out{{"enabled", status.value("enabled", false)},
             {"monitoring", status.value("monitoring", false)},
             {"activeCallers", status.value("activeCallers", Json::array())},
             {"callers", status.value("callers", Json::array())},
             {"call", callWord(status.value("presence", "unknown"))},
             {"recording", state.value("ownsRecording", false)},
             {"waitingForCallEnd", state.value("suppressedUntilIdle", false)}};
    return out;
}

const Text& callText(const std::string& call) {
    if (call == "inCall") return kInCall;
    if (call == "noCall") return kNoCall;
    if (call == "ending") return kEnding;
    return kUnknownCall;
}

void printText(const Json& j) {
    std::cout << kSwitch.str() << (j.value("enabled", false) ? kOn : kOff).str() << "\n";
    std::cout << kMonitoring.str() << (j.value("monitoring", false) ? kYes : kNo).str() << "\n";
    std::cout << kCallers.str();
    const auto& callers = j["activeCallers"];
    if (callers.empty()) std::cout << kNone.str();
    for (size_t i = 0; i < callers.size(); ++i) std::cout << (i ? ", " : "") << callers[i].get<std::string>();
    std::cout << "\n" << kPresence.str() << callText(j.value("call", "unknown")).str() << "\n";
}

// Without a host: the stored switch and one look at who uses audio now.
int inProcess(Context& context, const std::string& action, bool json) {
    auto scope = RuntimeScope::enter(context, {.ownsDataDirectories = false});
    if (!scope) return context.exitCode;
    auto& defaults = UserDefaults::standard();
    if (action != "status") defaults.set(prefs::kAutoRecordCalls, action == "on");
    Json j{{"enabled", defaults.boolValue(prefs::kAutoRecordCalls).value_or(prefs::kAutoRecordCallsDefault)},
           {"monitoring", false},
           {"activeCallers", Json::array()},
           {"callers", Json::array()},
           {"presence", "unknown"}};
    pulse::PulseCallScanner scanner;
    auto scan = scanner.scanNow();
    if (!scan) {
        std::cerr << "vell: " << kNoSoundServer.str() << "\n";
    } else {
        std::vector<std::string> names;
        for (const auto& c : scan->callers) {
            names.push_back(c.displayName);
            j["callers"].push_back({{"bundleID", c.bundleID},
                                    {"displayName", c.displayName},
                                    {"isRunningOutput", c.isRunningOutput},
                                    {"outputKnown", c.outputKnown}});
        }
        std::sort(names.begin(), names.end());
        j["activeCallers"] = names;
    }
    if (json) std::cout << publicStatus(j).dump() << "\n";
    else printText(publicStatus(j));
    return kExitOK;
}

int calls(Context& context, const std::string& action, bool json) {
    if (auto host = runningHost()) {
        auto result = action == "status" ? host->callsStatus() : host->setCallsEnabled(action == "on");
        if (!result) return reportHostError(result.error());
        auto j = Json::parse(*result, nullptr, false);
        if (j.is_discarded()) std::cout << *result << "\n";
        else if (json) std::cout << publicStatus(j).dump() << "\n";
        else printText(publicStatus(j));
        return kExitOK;
    }
    return inProcess(context, action, json);
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("calls", kCallsHelp.str());
    auto action = std::make_shared<std::string>("status");
    auto json = std::make_shared<bool>(false);
    cmd->add_option("action", *action, kCallsActionHelp.str())->check(CLI::IsMember({"status", "on", "off"}));
    cmd->add_flag("--json", *json, help::kJson.str());
    cmd->callback([&context, action, json] { context.exitCode = calls(context, *action, *json); });
}

}  // namespace

VELL_COMMAND(64, setup);

}  // namespace vell::cli
