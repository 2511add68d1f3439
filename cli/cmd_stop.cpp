// vell stop [--discard]: stops the recording of the process that owns the data folder (the
// host, or a `vell record` in another terminal).
#include <fmt/format.h>

#include <iostream>
#include <nlohmann/json.hpp>

#include "app/app_messages.h"
#include "cli/command.h"
#include "cli/help_messages.h"
#include "cli/host_client.h"
#include "cli/record_messages.h"
#include "cli/units.h"

namespace vell::cli {

namespace {

int stop(bool discard) {
    auto host = runningHost();
    if (!host) {
        // Nobody owns the folder, so nothing can be recording.
        std::cerr << "vell: " << app::messages::kNothingRecording.str() << "\n";
        return kExitFailure;
    }
    auto stopped = host->stopRecording(discard);
    if (!stopped) return reportHostError(stopped.error());
    const double length = lengthOf(nlohmann::json::parse(*stopped, nullptr, false));
    if (!discard) std::cout << record_messages::kSaved.str() << fmt::format("{:.1f}", length) << " s\n";
    else std::cout << record_messages::kDiscarded.str() << "\n";
    return kExitOK;
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("stop", help::kStop.str());
    auto discard = std::make_shared<bool>(false);
    cmd->add_flag("--discard", *discard, help::kStopDiscard.str());
    cmd->callback([&context, discard] { context.exitCode = stop(*discard); });
}

}  // namespace

VELL_COMMAND(21, setup);

}  // namespace vell::cli
