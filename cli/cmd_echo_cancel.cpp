// vell echo-cancel [status|on|off] [--json]: echo cancellation of the recording's
// microphone against the system audio: the switch, and what it does in the recording
// running now. With no host running, the switch is written for the next recording.
#include <fmt/format.h>

#include <iostream>
#include <nlohmann/json.hpp>

#include "app/echo_cancel_setting.h"
#include "base/user_defaults.h"
#include "cli/command.h"
#include "cli/echo_messages.h"
#include "cli/help_messages.h"
#include "cli/host_client.h"
#include "cli/runtime_scope.h"

namespace vell::cli {

namespace {

using Json = nlohmann::ordered_json;

void printText(const Json& j) {
    std::cout << echo::kSwitch.str() << (j.value("enabled", true) ? echo::kOn : echo::kOff).str() << "\n";
    std::cout << echo::kNow.str() << echo::stateText(j) << "\n";
    if (j.contains("output") && !j["output"].value("device", "").empty()) {
        std::cout << echo::kOutput.str() << j["output"].value("device", "") << " (" << j["output"].value("kind", "")
                  << ")\n";
    }
    if (j.contains("erleDb") && j["erleDb"].is_number()) {
        std::cout << echo::kReduction.str() << fmt::format("{:.1f} dB", j["erleDb"].get<double>()) << "\n";
    }
}

int echoCancel(Context& context, const std::string& action, bool json) {
    std::string answer;
    if (auto host = runningHost()) {
        auto result = action == "status" ? host->echoCancelStatus() : host->setEchoCancelEnabled(action == "on");
        if (!result) return reportHostError(result.error());
        answer = *result;
    } else {
        auto scope = RuntimeScope::enter(context, {.ownsDataDirectories = false});
        if (!scope) return context.exitCode;
        auto& defaults = UserDefaults::standard();
        if (action != "status") app::setEchoCancellationEnabled(defaults, action == "on");
        answer = app::echoCancellationStatusJson(defaults);
    }
    auto j = Json::parse(answer, nullptr, false);
    if (json || j.is_discarded()) std::cout << answer << "\n";
    else printText(j);
    return kExitOK;
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("echo-cancel", echo::kHelp.str());
    auto action = std::make_shared<std::string>("status");
    auto json = std::make_shared<bool>(false);
    cmd->add_option("action", *action, echo::kActionHelp.str())->check(CLI::IsMember({"status", "on", "off"}));
    cmd->add_flag("--json", *json, help::kJson.str());
    cmd->callback([&context, action, json] { context.exitCode = echoCancel(context, *action, *json); });
}

}  // namespace

VELL_COMMAND(43, setup);

}  // namespace vell::cli
