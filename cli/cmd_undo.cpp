// vell undo [--json]: brings back the recording discarded in the last 5 minutes as an
// ordinary pending recording. Through the host when one runs; else in this process, from
// the pending list.
#include <iostream>
#include <nlohmann/json.hpp>

#include "app/composition.h"
#include "app/core_services.h"
#include "automation/automation_messages.h"
#include "automation/discarded_recordings.h"
#include "base/runtime.h"
#include "base/user_defaults.h"
#include "cli/calendar_messages.h"
#include "cli/command.h"
#include "cli/host_client.h"
#include "cli/runtime_scope.h"
#include "recording/recorder_service.h"

namespace vell::cli {

namespace {
using Json = nlohmann::json;

int undo(Context& context, bool json) {
    Json restored;
    if (auto host = runningHost()) {
        auto answer = host->undo();
        if (!answer) return reportHostError(answer.error());
        restored = Json::parse(*answer, nullptr, false);
    } else {
        auto scope = RuntimeScope::enter(context);
        if (!scope) return context.exitCode;
        auto& recorder = app::core().recorder();
        automation::DiscardedRecordings discards(recorder, UserDefaults::standard(), runtime::main(), runtime::clock(), {});
        discards.start();
        const auto latest = discards.latest.get();
        if (!latest) {
            std::cerr << "vell: " << automation::messages::kNothingToUndo.str() << "\n";
            return kExitFailure;
        }
        if (!discards.undo()) {
            std::cerr << "vell: " << recorder.state.lastError.get().value_or(automation::messages::kTooLateToUndo.str()) << "\n";
            return kExitFailure;
        }
        restored = Json{{"takeID", latest->takeID}, {"meeting", nullptr}};
    }
    if (json) {
        std::cout << restored.dump(2) << "\n";
    } else {
        const std::string what = restored["meeting"].is_string() ? restored["meeting"].get<std::string>()
                                                                  : restored.value("takeID", std::string());
        std::cout << calendar_messages::kRestored.str() << what << "\n";
    }
    return kExitOK;
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("undo", calendar_messages::kUndoDescription.str());
    auto json = std::make_shared<bool>(false);
    cmd->add_flag("--json", *json, calendar_messages::kJsonOption.str());
    cmd->callback([&context, json] { context.exitCode = undo(context, *json); });
}

}  // namespace

VELL_COMMAND(22, setup);

}  // namespace vell::cli
