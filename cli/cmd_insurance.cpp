// vell insurance [status|on|off|window MINUTES|chunks|export --minutes N -o FILE|requests]
// [--json]:
// insurance mode through the running host. Without a host the status is read from the stored
// settings and the folder, and "off" is stored (erasing a buffer a crash left); turning it on
// needs a process that stays.
#include <fmt/format.h>
#include <unistd.h>

#include <ctime>
#include <iostream>
#include <nlohmann/json.hpp>

#include "base/instance_lock.h"
#include "base/paths.h"
#include "base/preference_keys.h"
#include "base/user_defaults.h"
#include "cli/command.h"
#include "cli/host_client.h"
#include "cli/insurance_messages.h"
#include "cli/json_output.h"
#include "insurance/insurance_buffer_store.h"
#include "insurance/insurance_status.h"

namespace vell::cli {

namespace {
namespace msg = insurance_messages;
using insurance::InsuranceStatus;

std::string humanBytes(std::int64_t bytes) {
    if (bytes < 1024) return fmt::format("{} B", bytes);
    if (bytes < 1024 * 1024) return fmt::format("{:.1f} KB", double(bytes) / 1024);
    return fmt::format("{:.1f} MB", double(bytes) / (1024 * 1024));
}

// An answered agent request with its times by their names, as everywhere else in --json.
nlohmann::json withNamedTimes(nlohmann::json r) {
    for (const auto& [ms, name] : {std::pair{"fromMs", "from"}, std::pair{"toMs", "to"}, std::pair{"answeredAtMs", "answeredAt"},
                                   std::pair{"sentFromMs", "sentFrom"}, std::pair{"sentToMs", "sentTo"}}) {
        if (!r.contains(ms)) continue;
        r[name] = isoFromMilliseconds(r[ms]);
        r.erase(ms);
    }
    return r;
}

void printStatus(const InsuranceStatus& s, bool json, bool hostRunning) {
    if (json) {
        auto j = insurance::toJson(s);
        j["bufferedFrom"] = isoTime(s.bufferedFrom);
        j["bufferedTo"] = isoTime(s.bufferedTo);
        for (auto& r : j["agentRequests"]) r = withNamedTimes(std::move(r));
        j["host"] = hostRunning;
        std::cout << j.dump(2) << "\n";
        return;
    }
    std::cout << (s.enabled ? msg::kOn : msg::kOff).str() << "\n";
    std::cout << msg::kListening.str() << (s.listening ? msg::kYes : msg::kNo).str();
    if (s.listening && s.device) std::cout << " (" << *s.device << ")";
    std::cout << "\n" << msg::kWindow.str() << s.windowMinutes << msg::kMinutes.str() << "\n";
    double seconds = 0;
    if (s.bufferedFrom && s.bufferedTo) seconds = std::chrono::duration<double>(*s.bufferedTo - *s.bufferedFrom).count();
    std::cout << msg::kBuffered.str()
              << fmt::format("{}:{:02}, {}, {} chunk(s)", int(seconds) / 60, int(seconds) % 60, humanBytes(s.bytes), s.chunks)
              << "\n";
    if (s.lastError) std::cout << msg::kLastError.str() << *s.lastError << "\n";
    for (const auto& a : s.agentRequests) std::cout << insurance::answerLine(a, interfaceLanguage()) << "\n";
    if (!hostRunning) std::cout << msg::kHostNotRunning.str() << "\n";
}

// Parses a status answer of the host.
std::optional<InsuranceStatus> parse(const std::string& text) {
    auto j = nlohmann::json::parse(text, nullptr, false);
    if (j.is_discarded()) return std::nullopt;
    return insurance::statusFromJson(j);
}

int status(bool json) {
    if (auto host = runningHost()) {
        auto answer = host->insuranceStatus();
        if (!answer) return reportHostError(answer.error());
        auto s = parse(*answer);
        if (!s) return kExitFailure;
        printStatus(*s, json, true);
        return kExitOK;
    }
    insurance::InsuranceBufferStore store(insurance::InsuranceBufferStore::defaultDirectory());
    printStatus(insurance::storedStatus(UserDefaults::standard(), store), json, false);
    return kExitOK;
}

int needsHost() {
    std::cerr << "vell: " << msg::kNeedsHost.str() << "\n";
    return kExitFailure;
}

int on(bool json, bool acceptPrivacy) {
    auto host = runningHost();
    if (!host) return needsHost();
    auto current = host->insuranceStatus();
    if (!current) return reportHostError(current.error());
    auto s = parse(*current);
    if (s && !s->privacyAccepted && !acceptPrivacy) {
        std::cerr << msg::kPrivacy.str() << "\n\n";
        bool accepted = false;
        if (::isatty(STDIN_FILENO)) {
            std::cerr << msg::kAcceptQuestion.str() << std::flush;
            std::string line;
            std::getline(std::cin, line);
            accepted = !line.empty() && (line[0] == 'y' || line[0] == 'Y' || line[0] == 's' || line[0] == 'S');
        }
        if (!accepted) {
            std::cerr << "vell: " << msg::kNeedsAcceptance.str() << "\n";
            return kExitUsage;
        }
    }
    auto answer = host->insuranceEnable();
    if (!answer) return reportHostError(answer.error());
    auto after = parse(*answer);
    if (!after) return kExitFailure;
    printStatus(*after, json, true);
    return after->lastError ? kExitFailure : kExitOK;
}

// Without a host the user still means "off": the setting is stored and a buffer a crash left
// behind is erased, while this command holds the data folder as its only owner.
int offWithoutHost(bool json) {
    auto lock = InstanceLock::acquire(paths::vellDataDirectory());
    if (!lock) {
        // A host is starting right now: it takes the request.
        if (lock.error().busy) return needsHost();
        std::cerr << "vell: " << lock.error().sentence << "\n";
        return kExitFailure;
    }
    UserDefaults::standard().set(prefs::kInsuranceEnabled, false);
    insurance::InsuranceBufferStore store(insurance::InsuranceBufferStore::defaultDirectory());
    const bool hadBuffer = !store.chunks().empty();
    store.removeAll();
    printStatus(insurance::storedStatus(UserDefaults::standard(), store), json, false);
    if (hadBuffer && !json) std::cout << msg::kLeftoverErased.str() << "\n";
    return kExitOK;
}

int off(bool json) {
    auto host = runningHost();
    if (!host) return offWithoutHost(json);
    auto answer = host->insuranceDisable();
    if (!answer) return reportHostError(answer.error());
    if (auto s = parse(*answer)) printStatus(*s, json, true);
    return kExitOK;
}

int window(int minutes, bool json) {
    auto host = runningHost();
    if (!host) return needsHost();
    auto kept = host->insuranceSetWindow(minutes);
    if (!kept) return reportHostError(kept.error());
    if (json) std::cout << nlohmann::json{{"windowMinutes", *kept}}.dump() << "\n";
    else std::cout << msg::kWindowKept.str() << *kept << msg::kMinutes.str() << "\n";
    return kExitOK;
}

int chunks(bool json) {
    auto host = runningHost();
    if (!host) return needsHost();
    auto answer = host->insuranceChunks();
    if (!answer) return reportHostError(answer.error());
    auto list = nlohmann::json::parse(*answer, nullptr, false);
    if (json) {
        if (!list.is_array()) list = nlohmann::json::array();
        for (auto& c : list) {
            c["start"] = isoFromMilliseconds(c.value("start", nlohmann::json()));
            c["end"] = isoFromMilliseconds(c.value("end", nlohmann::json()));
        }
        std::cout << list.dump(2) << "\n";
        return kExitOK;
    }
    if (!list.is_array() || list.empty()) std::cout << msg::kNothingBuffered.str() << "\n";
    for (const auto& c : list) {
        std::cout << std::filesystem::path(c.value("file", "")).filename().string() << "  "
                  << humanBytes(c.value("bytes", std::int64_t(0))) << "\n";
    }
    return kExitOK;
}

int exportAudio(int minutes, const std::string& output) {
    auto host = runningHost();
    if (!host) return needsHost();
    auto joined = host->insuranceExport(minutes, std::filesystem::absolute(output).string());
    if (!joined) return reportHostError(joined.error());
    std::cout << msg::kExported.str() << *joined << "\n";
    return kExitOK;
}

std::string clockTime(double msSince1970) {
    const std::time_t t = static_cast<std::time_t>(msSince1970 / 1000);
    std::tm local{};
    localtime_r(&t, &local);
    return fmt::format("{:02}:{:02}:{:02}", local.tm_hour, local.tm_min, local.tm_sec);
}

int requests(bool json) {
    auto host = runningHost();
    if (!host) return needsHost();
    auto answer = host->insuranceRequests();
    if (!answer) return reportHostError(answer.error());
    auto list = nlohmann::json::parse(*answer, nullptr, false);
    if (!list.is_array()) list = nlohmann::json::array();
    if (json) {
        for (auto& r : list) r = withNamedTimes(std::move(r));
        std::cout << list.dump(2) << "\n";
        return kExitOK;
    }
    if (list.empty()) std::cout << msg::kNoRequests.str() << "\n";
    for (const auto& r : list) {
        const double from = r.value("fromMs", 0.0), to = r.value("toMs", 0.0);
        std::cout << clockTime(r.value("answeredAtMs", 0.0)) << "  " << r.value("id", "") << "  " << clockTime(from) << "-"
                  << clockTime(to) << fmt::format(" ({:.0f} s)  ", (to - from) / 1000) << r.value("status", "");
        if (r.contains("recordingId")) std::cout << "  " << r.value("recordingId", "");
        if (r.contains("error")) std::cout << "  " << r.value("error", "");
        if (!r.value("reported", true)) std::cout << msg::kNotReported.str();
        std::cout << "\n";
    }
    return kExitOK;
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("insurance", msg::kDescription.str());
    auto json = std::make_shared<bool>(false);
    cmd->add_flag("--json", *json, msg::kJsonOption.str());
    cmd->require_subcommand(0, 1);

    auto* statusCmd = cmd->add_subcommand("status", msg::kStatusDescription.str());
    statusCmd->add_flag("--json", *json, msg::kJsonOption.str());
    statusCmd->callback([&context, json] { context.exitCode = status(*json); });

    auto accept = std::make_shared<bool>(false);
    auto* onCmd = cmd->add_subcommand("on", msg::kOnDescription.str());
    onCmd->add_flag("--accept-privacy", *accept, msg::kAcceptOption.str());
    onCmd->add_flag("--json", *json, msg::kJsonOption.str());
    onCmd->callback([&context, json, accept] { context.exitCode = on(*json, *accept); });

    auto* offCmd = cmd->add_subcommand("off", msg::kOffDescription.str());
    offCmd->add_flag("--json", *json, msg::kJsonOption.str());
    offCmd->callback([&context, json] { context.exitCode = off(*json); });

    auto minutes = std::make_shared<int>(15);
    auto* windowCmd = cmd->add_subcommand("window", msg::kWindowDescription.str());
    // Out of range is refused rather than quietly clamped: the user asked for something else.
    windowCmd->add_option("minutes", *minutes, msg::kMinutesOption.str())->required()->check(CLI::Range(5, 60));
    windowCmd->add_flag("--json", *json, msg::kJsonOption.str());
    windowCmd->callback([&context, json, minutes] { context.exitCode = window(*minutes, *json); });

    auto* chunksCmd = cmd->add_subcommand("chunks", msg::kChunksDescription.str());
    chunksCmd->add_flag("--json", *json, msg::kJsonOption.str());
    chunksCmd->callback([&context, json] { context.exitCode = chunks(*json); });

    auto exportMinutes = std::make_shared<int>(5);
    auto output = std::make_shared<std::string>();
    auto* exportCmd = cmd->add_subcommand("export", msg::kExportDescription.str());
    exportCmd->add_option("--minutes", *exportMinutes, msg::kMinutesOption.str())->check(CLI::Range(1, 60));
    exportCmd->add_option("-o,--output", *output, msg::kOutputOption.str())->required();
    exportCmd->callback([&context, exportMinutes, output] { context.exitCode = exportAudio(*exportMinutes, *output); });

    auto* requestsCmd = cmd->add_subcommand("requests", msg::kRequestsDescription.str());
    requestsCmd->add_flag("--json", *json, msg::kJsonOption.str());
    requestsCmd->callback([&context, json] { context.exitCode = requests(*json); });

    cmd->callback([&context, cmd, json] {
        if (cmd->get_subcommands().empty()) context.exitCode = status(*json);
    });
}
}  // namespace

VELL_COMMAND(50, setup);

}  // namespace vell::cli
