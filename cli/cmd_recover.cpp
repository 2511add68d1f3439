// vell recover [--last 1|5|MINUTES|all] [--json]: the words of the newest buffered audio,
// through the running host; drafts redrawn on standard error while the service works.
#include <chrono>
#include <iostream>
#include <nlohmann/json.hpp>
#include <thread>

#include "cli/command.h"
#include "cli/host_client.h"
#include "cli/insurance_messages.h"
#include "cli/terminal.h"
#include "insurance/insurance_messages.h"

namespace vell::cli {
namespace {

int recover(const std::string& last, bool json) {
    auto host = runningHost();
    if (!host) {
        std::cerr << insurance_messages::kNeedsHost.str() << "\n";
        return kExitFailure;
    }
    std::string range = "custom";
    int minutes = 0;
    if (last == "1") range = "minute";
    else if (last == "5") range = "five";
    else if (last == "all") range = "all";
    else {
        try {
            minutes = std::stoi(last);
        } catch (...) {
            std::cerr << "--last: 1, 5, a number of minutes or all\n";
            return kExitUsage;
        }
    }
    auto run = host->recoverStart(range, minutes);
    if (!run) return reportHostError(run.error());
    if (*run == 0) {
        std::cerr << insurance::messages::kNothingSelected.str() << "\n";
        return kExitFailure;
    }
    const bool draw = !json && fancyTerminal();
    std::string shown;
    for (;;) {
        auto answer = host->recoverProgress(*run);
        if (!answer) return reportHostError(answer.error());
        auto progress = nlohmann::json::parse(*answer, nullptr, false);
        const std::string phase = progress.value("phase", "");
        if (phase == "failed" || phase == "stale") {
            if (draw && !shown.empty()) std::cerr << "\r\033[K";
            std::cerr << progress.value("message", std::string("")) << "\n";
            return kExitFailure;
        }
        if (phase == "idle" && progress.contains("transcript")) {
            if (draw && !shown.empty()) std::cerr << "\r\033[K";
            if (json) std::cout << progress["transcript"].dump() << "\n";
            else std::cout << progress["transcript"].value("text", "") << "\n";
            return kExitOK;
        }
        const std::string display = progress.value("display", "");
        if (display != shown) {
            if (draw) std::cerr << "\r\033[K" << display << std::flush;
            else if (!json) std::cerr << display << "\n";
            shown = display;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

inline constexpr Text kRecoverHelp{"Transcribe the newest audio of the insurance buffer (through the running host)",
                                   "Transcribe el audio más reciente del respaldo (a través del anfitrión)"};
inline constexpr Text kLastHelp{"1, 5, a number of minutes, or all", "1, 5, una cantidad de minutos, o all (todo)"};
inline constexpr Text kJsonHelp{"Print the transcript as JSON", "Imprime la transcripción en JSON"};

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("recover", kRecoverHelp.str());
    auto last = std::make_shared<std::string>("1");
    auto json = std::make_shared<bool>(false);
    cmd->add_option("--last", *last, kLastHelp.str());
    cmd->add_flag("--json", *json, kJsonHelp.str());
    cmd->callback([&context, last, json] { context.exitCode = recover(*last, *json); });
}
}  // namespace

VELL_COMMAND(52, setup);

}  // namespace vell::cli
