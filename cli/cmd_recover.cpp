// vell recover [--last-minute | --last-five | --minutes N | --all] [--copy] [--play] [--json]
// (or --last 1|5|MINUTES|all): the words of the newest buffered audio, through the running
// host; drafts redrawn on standard error while the service works. --copy puts the final text
// on the clipboard, --play plays the selection through the sound server afterwards.
#include <algorithm>
#include <array>
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

inline constexpr Text kPlaying{"Playing ", "Reproduciendo "};

std::string clock(double seconds) {
    const int s = static_cast<int>(seconds);
    return std::to_string(s / 60) + ":" + (s % 60 < 10 ? "0" : "") + std::to_string(s % 60);
}

int copyText(dbus::ControlClient& host) {
    auto answer = host.recoverCopy();
    if (!answer) return reportHostError(answer.error());
    auto out = nlohmann::json::parse(*answer, nullptr, false);
    if (out.is_discarded()) return kExitFailure;
    std::cerr << out.value("confirmation", std::string()) << "\n";
    if (out.value("copied", false)) return kExitOK;
    if (out.contains("problem")) std::cerr << "vell: " << out.value("problem", std::string()) << "\n";
    return kExitFailure;
}

int playPreview(dbus::ControlClient& host, int run, bool draw) {
    auto answer = host.recoverPlay();
    if (!answer) return reportHostError(answer.error());
    auto started = nlohmann::json::parse(*answer, nullptr, false);
    if (started.is_discarded() || !started.value("playing", false)) {
        std::cerr << "vell: " << (started.is_discarded() ? std::string() : started.value("message", std::string())) << "\n";
        return kExitFailure;
    }
    for (;;) {
        auto progress = host.recoverProgress(run);
        if (!progress) return reportHostError(progress.error());
        auto p = nlohmann::json::parse(*progress, nullptr, false);
        if (p.is_discarded() || !p.value("playing", false)) break;
        if (draw) std::cerr << "\r\033[K" << kPlaying.str() << clock(p.value("position", 0.0)) << std::flush;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    if (draw) std::cerr << "\r\033[K";
    return kExitOK;
}

int recover(const std::string& last, bool json, bool copy, bool play) {
    auto host = runningHost();
    if (!host) {
        std::cerr << "vell: " << insurance_messages::kNeedsHost.str() << "\n";
        return kExitFailure;
    }
    std::string range = "custom";
    int minutes = 0;
    if (last == "1") range = "minute";
    else if (last == "5") range = "five";
    else if (last == "all") range = "all";
    else {
        minutes = std::stoi(last);  // checked by the option
    }
    auto run = host->recoverStart(range, minutes);
    if (!run) return reportHostError(run.error());
    if (*run == 0) {
        std::cerr << "vell: " << insurance::messages::kNothingSelected.str() << "\n";
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
            std::cerr << "vell: " << progress.value("message", std::string("")) << "\n";
            return kExitFailure;
        }
        if (phase == "idle" && progress.contains("transcript")) {
            if (draw && !shown.empty()) std::cerr << "\r\033[K";
            if (json) std::cout << progress["transcript"].dump() << "\n";
            else std::cout << progress["transcript"].value("text", "") << std::endl;
            int status = kExitOK;
            if (copy) status = std::max(status, copyText(*host));
            if (play) status = std::max(status, playPreview(*host, *run, fancyTerminal()));
            return status;
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

inline constexpr Text kRangeHeading{"Which audio (one of these)", "Qué audio (una de estas)"};
inline constexpr Text kLastMinuteHelp{"The last minute (the default)", "El último minuto (lo predeterminado)"};
inline constexpr Text kLastFiveHelp{"The last five minutes", "Los últimos cinco minutos"};
inline constexpr Text kMinutesHelp{"The last N minutes", "Los últimos N minutos"};
inline constexpr Text kAllHelp{"Everything buffered", "Todo lo guardado"};
inline constexpr Text kCopyHelp{"Copy the text to the clipboard", "Copia el texto al portapapeles"};
inline constexpr Text kPlayHelp{"Play the selected audio afterwards", "Reproduce después el audio elegido"};

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("recover", kRecoverHelp.str());
    auto last = std::make_shared<std::string>("1");
    auto minutes = std::make_shared<int>(0);
    auto flags = std::make_shared<std::array<bool, 6>>();  // minute, five, all, copy, play, json
    auto* range = cmd->add_option_group("range", kRangeHeading.str());
    range->add_option("--last", *last, kLastHelp.str())->check(CLI::Validator(
        [](std::string& text) -> std::string {
            if (text == "all") return {};
            const bool digits = !text.empty() && text.size() < 6 && text.find_first_not_of("0123456789") == std::string::npos;
            return digits && std::stoi(text) > 0 ? std::string() : kLastHelp.str();
        },
        ""));
    range->add_flag("--last-minute", (*flags)[0], kLastMinuteHelp.str());
    range->add_flag("--last-five", (*flags)[1], kLastFiveHelp.str());
    range->add_option("--minutes", *minutes, kMinutesHelp.str())->check(CLI::PositiveNumber);
    range->add_flag("--all", (*flags)[2], kAllHelp.str());
    range->require_option(0, 1);
    cmd->add_flag("--copy", (*flags)[3], kCopyHelp.str());
    cmd->add_flag("--play", (*flags)[4], kPlayHelp.str());
    cmd->add_flag("--json", (*flags)[5], kJsonHelp.str());
    cmd->callback([&context, last, minutes, flags] {
        const auto& f = *flags;
        std::string chosen = *last;
        if (f[1]) chosen = "5";
        else if (f[2]) chosen = "all";
        else if (*minutes > 0) chosen = std::to_string(*minutes);
        else if (f[0]) chosen = "1";
        context.exitCode = recover(chosen, f[5], f[3], f[4]);
    });
}
}  // namespace

VELL_COMMAND(52, setup);

}  // namespace vell::cli
