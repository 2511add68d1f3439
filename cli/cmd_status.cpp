// vell status [--json] [--watch]: what Vell is doing: whether a host runs, the account, the
// recording with its elapsed time and levels, and the last message.
#include <fmt/format.h>

#include <chrono>
#include <iostream>
#include <nlohmann/json.hpp>
#include <thread>

#include "app/app_state.h"
#include "app/composition.h"
#include "app/core_services.h"
#include "audio/capture_messages.h"
#include "app/echo_cancel_setting.h"
#include "base/user_defaults.h"
#include "cli/command.h"
#include "cli/echo_messages.h"
#include "cli/help_messages.h"
#include "cli/host_client.h"
#include "cli/runtime_scope.h"
#include "cli/signal_watcher.h"

namespace vell::cli {

namespace {

inline constexpr Text kHostRunning{"Host: running", "Anfitrión: en marcha"};
inline constexpr Text kHostNotRunning{"Host: not running", "Anfitrión: no está en marcha"};
inline constexpr Text kAccount{"Account: ", "Cuenta: "};
inline constexpr Text kSignedOut{"signed out", "sin sesión"};
inline constexpr Text kChecking{"checking the stored session", "verificando la sesión guardada"};
inline constexpr Text kCodeAsked{"waiting for the two-step code", "esperando el código de verificación"};
inline constexpr Text kRecordingNo{"Recording: no", "Grabando: no"};
inline constexpr Text kRecordingYes{"Recording: ", "Grabando: "};
inline constexpr Text kMeeting{"Meeting: ", "Reunión: "};
inline constexpr Text kLastMessage{"Last message: ", "Último mensaje: "};
inline constexpr Text kCallers{"In a call: ", "En llamada: "};
inline constexpr Text kMicrophone{"Microphone: ", "Micrófono: "};
inline constexpr Text kUsingDefault{" (recording from the system default)", " (se graba con el predeterminado del sistema)"};

// The programs the call recorder sees in a call right now (through the host).
std::vector<std::string> activeCallers(const dbus::ControlClient* host) {
    std::vector<std::string> names;
    if (!host) return names;
    auto calls = host->callsStatus();
    if (!calls) return names;
    auto json = nlohmann::json::parse(*calls, nullptr, false);
    if (!json.is_object() || !json.contains("activeCallers") || !json["activeCallers"].is_array()) return names;
    for (const auto& name : json["activeCallers"])
        if (name.is_string()) names.push_back(name.get<std::string>());
    return names;
}

// Echo cancellation as the host sees it; without a host, the stored switch and no recording.
nlohmann::json echoStatus(const dbus::ControlClient* host) {
    std::string answer;
    if (host) {
        auto read = host->echoCancelStatus();
        if (read) answer = *read;
    } else {
        answer = app::echoCancellationStatusJson(UserDefaults::standard());
    }
    auto json = nlohmann::json::parse(answer, nullptr, false);
    return json.is_object() ? json : nlohmann::json::object();
}

nlohmann::ordered_json toJson(bool hostRunning, const dbus::HostStatus& s, const std::vector<std::string>& callers,
                              bool microphoneFellBack, const nlohmann::json& echoJson) {
    return {{"activeCallers", callers}, {"echoCancellation", echoJson},{"host", hostRunning},       {"phase", s.phase},         {"userEmail", s.userEmail},
            {"userID", s.userID},        {"recording", s.recording}, {"recordingID", s.recordingID},
            {"elapsed", s.elapsed},      {"microphoneLevel", s.microphoneLevel},
            {"systemLevel", s.systemLevel},
            {"droppedSeconds", {{"microphone", s.microphoneDropped}, {"system", s.systemDropped}}},
            {"lastError", s.lastError}, {"microphoneFellBack", microphoneFellBack},
            {"meetingTitle", s.meetingTitle.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(s.meetingTitle)}};
}

void printText(bool hostRunning, const dbus::HostStatus& s, const std::vector<std::string>& callers,
               bool microphoneFellBack, const nlohmann::json& echoJson) {
    std::cout << (hostRunning ? kHostRunning : kHostNotRunning).str() << "\n" << kAccount.str();
    if (s.phase == "signedIn") std::cout << s.userEmail;
    else if (s.phase == "mfaRequired") std::cout << kCodeAsked.str();
    else if (s.phase == "launching") std::cout << kChecking.str();
    else std::cout << kSignedOut.str();
    std::cout << "\n";
    if (s.recording) {
        const int whole = int(s.elapsed);
        std::cout << kRecordingYes.str() << s.recordingID
                  << fmt::format(", {:02}:{:02}:{:02}, mic {:.2f}, system {:.2f}", whole / 3600, whole / 60 % 60, whole % 60,
                                 s.microphoneLevel, s.systemLevel)
                  << "\n";
        if (!s.meetingTitle.empty()) std::cout << kMeeting.str() << s.meetingTitle << "\n";
        if (microphoneFellBack)
            std::cout << kMicrophone.str() << audio::messages::kDisconnectedMicrophone.str() << kUsingDefault.str() << "\n";
        std::cout << echo::kNow.str() << echo::stateText(echoJson) << "\n";
    } else {
        std::cout << kRecordingNo.str() << "\n";
    }
    if (!callers.empty()) {
        std::cout << kCallers.str();
        for (std::size_t i = 0; i < callers.size(); ++i) std::cout << (i ? ", " : "") << callers[i];
        std::cout << "\n";
    }
    if (!s.lastError.empty()) std::cout << kLastMessage.str() << s.lastError << "\n";
}

// Without a host nothing records: only the account is worth asking the service about.
dbus::HostStatus inProcessStatus(Context& context, bool& ok) {
    dbus::HostStatus s;
    s.phase = "signedOut";
    auto scope = RuntimeScope::enter(context, {.ownsDataDirectories = false});
    if (!scope) return ok = false, s;
    auto& core = app::core();
    core.bootstrap([&scope](const std::optional<service::APIError>&) { scope->stop(); });
    scope->run();
    auto& state = core.appState();
    using Phase = app::AppState::Phase;
    switch (state.phase.get()) {
        case Phase::launching: s.phase = "launching"; break;
        case Phase::signedOut: s.phase = "signedOut"; break;
        case Phase::mfaRequired: s.phase = "mfaRequired"; break;
        case Phase::signedIn: s.phase = "signedIn"; break;
    }
    if (auto me = state.me.get()) s.userEmail = me->email, s.userID = me->id;
    ok = true;
    return s;
}

int status(Context& context, bool json, bool watch) {
    SignalWatcher signals;
    std::atomic<bool> stop{false};
    signals.watch([&stop] { stop = true; });
    std::optional<dbus::HostStatus> local;  // asked once: nothing changes without a host
    do {
        auto host = runningHost();
        dbus::HostStatus s;
        if (host) {
            auto read = host->status();
            if (!read) return reportHostError(read.error());
            s = *read;
        } else {
            if (!local) {
                bool ok = false;
                local = inProcessStatus(context, ok);
                if (!ok) return context.exitCode;
            }
            s = *local;
        }
        const auto callers = activeCallers(host.get());
        // Only a running recording has a microphone that can have fallen back.
        bool fellBack = false;
        if (host && s.recording) {
            auto read = host->microphoneFellBack();
            fellBack = read && *read;
        }
        const auto echoJson = echoStatus(host.get());
        if (json) std::cout << toJson(host != nullptr, s, callers, fellBack, echoJson).dump() << std::endl;
        else printText(host != nullptr, s, callers, fellBack, echoJson), std::cout << std::flush;
        for (int i = 0; watch && i < 10 && !stop; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (watch && !json && !stop) std::cout << "\n";
    } while (watch && !stop);
    return kExitOK;
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("status", help::kStatus.str());
    auto json = std::make_shared<bool>(false);
    auto watch = std::make_shared<bool>(false);
    cmd->add_flag("--json", *json, help::kJson.str());
    cmd->add_flag("--watch", *watch, help::kWatch.str());
    cmd->callback([&context, json, watch] { context.exitCode = status(context, *json, *watch); });
}

}  // namespace

VELL_COMMAND(22, setup);

}  // namespace vell::cli
