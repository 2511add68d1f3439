// vell upload: one pass of the upload queue over the pending recordings of the signed-in
// account, with a progress bar per file. Exits non-zero when any upload failed.
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <iostream>
#include <nlohmann/json.hpp>

#include "app/composition.h"
#include "app/core_services.h"
#include "cli/account_messages.h"
#include "cli/command.h"
#include "cli/help_messages.h"
#include "cli/host_client.h"
#include "cli/terminal.h"
#include "cli/units.h"
#include "cli/runtime_scope.h"
#include "recording/recorder_service.h"
#include "service/upload_queue.h"

namespace vell::cli {

namespace {

using recording::PendingRecording;

// One line on standard error, redrawn in place on a terminal, as curl does: the file, the
// share sent, bytes sent of the total, the rate and the time left, fitted to the width.
// Elsewhere (a pipe, a log, TERM=dumb) nothing is drawn; the result lines say it all.
class ProgressLine {
public:
    explicit ProgressLine(bool draw) : draw_(draw) {}
    void update(const std::string& name, const service::UploadActivity& activity) {
        if (!draw_) return;
        const auto now = std::chrono::steady_clock::now();
        if (name != name_) {
            name_ = name;
            began_ = now;
            firstBytes_ = activity.bytesSent;
        }
        if (now - drawn_ < std::chrono::milliseconds(250) && activity.bytesSent < activity.totalBytes) return;
        drawn_ = now;
        const double seconds = std::chrono::duration<double>(now - began_).count();
        const double total = double(activity.totalBytes);
        const double sent = double(std::max(activity.bytesSent, (long long)(activity.progress * total)));
        const double rate = seconds > 0.5 ? (sent - double(firstBytes_)) / seconds : 0;
        std::string tail = fmt::format("{:3.0f}%  {} / {}", total > 0 ? 100 * sent / total : 0.0, bytesText(sent), bytesText(total));
        if (rate > 0) {
            const long left = std::lround((total - sent) / rate);
            tail += fmt::format("  {}/s  {}:{:02}:{:02} {}", bytesText(rate), left / 3600, left / 60 % 60, left % 60,
                                messages::kLeft.str());
        }
        std::string head = name;
        const std::size_t width = terminalWidth();
        if (head.size() + 2 + tail.size() >= width) {
            const std::size_t room = width > tail.size() + 6 ? width - tail.size() - 6 : 1;
            if (head.size() > room) head = "..." + head.substr(head.size() - room);
        }
        std::cerr << "\r\033[K" << head << "  " << tail << std::flush;
        shown_ = true;
    }
    void clear() {
        if (shown_) std::cerr << "\r\033[K" << std::flush;
        shown_ = false;
    }

private:
    static std::size_t terminalWidth() {
        winsize size{};
        if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 20) return size.ws_col;
        return 80;
    }
    bool draw_;
    bool shown_ = false;
    std::string name_;
    long long firstBytes_ = 0;
    std::chrono::steady_clock::time_point began_{}, drawn_{};
};

// The exit code of a pass's outcome.
int exitCodeOf(const service::PassSummary& summary) {
    if (summary.storageFailure) return kExitFailure;
    if (summary.unauthenticated) return kExitSignedOut;
    return summary.failed > 0 ? kExitFailure : kExitOK;
}

// Prints a pass's outcome (as one JSON object for scripts) and gives its exit code.
int report(const service::PassSummary& summary, const nlohmann::json& attempts, bool json) {
    if (json) {
        nlohmann::json out{{"uploaded", summary.uploaded}, {"failed", summary.failed},
                           {"unauthenticated", summary.unauthenticated}, {"attempts", attempts}};
        if (summary.storageFailure) out["storageFailure"] = *summary.storageFailure;
        std::cout << out.dump() << std::endl;
        return exitCodeOf(summary);
    }
    if (summary.storageFailure) {
        std::cout << messages::kUploadSummary.str() << summary.uploaded << messages::kFailedSummary.str() << summary.failed
                  << "\n";
        std::cerr << "vell: " << messages::kUploadStopped.str() << *summary.storageFailure << messages::kUploadStoppedEnd.str() << "\n";
        return kExitFailure;
    }
    if (summary.uploaded == 0 && summary.failed == 0 && !summary.unauthenticated) {
        std::cout << messages::kNothingToUpload.str() << "\n";
        return kExitOK;
    }
    std::cout << messages::kUploadSummary.str() << summary.uploaded << messages::kFailedSummary.str() << summary.failed
              << "\n";
    return exitCodeOf(summary);
}

// The same pass, run by the host that owns the data folder.
int uploadThroughHost(const dbus::ControlClient& host, bool json) {
    auto reply = host.upload();
    if (!reply) return reportHostError(reply.error());
    auto outcome = nlohmann::json::parse(*reply, nullptr, false);
    service::PassSummary summary;
    nlohmann::json attempts = nlohmann::json::array();
    if (outcome.is_object()) {
        attempts = outcome.value("attempts", nlohmann::json::array());
        for (const auto& attempt : attempts) {
            if (json) break;
            std::cout << attempt.value("file", "") << ": "
                      << (attempt.contains("recordingId")
                              ? messages::kUploaded.str() + " (" + attempt.value("recordingId", "") + ")"
                              : messages::kFailed.str() + ": " + attempt.value("error", ""))
                      << "\n";
        }
        summary.uploaded = outcome.value("uploaded", 0);
        summary.failed = outcome.value("failed", 0);
        summary.unauthenticated = outcome.value("unauthenticated", false);
        if (outcome.contains("storageFailure")) summary.storageFailure = outcome.value("storageFailure", "");
    }
    return report(summary, attempts, json);
}

int upload(Context& context, bool json) {
    if (auto host = runningHost()) return uploadThroughHost(*host, json);
    auto scope = RuntimeScope::enter(context);
    if (!scope) return context.exitCode;
    auto& main = scope->executor();
    auto& core = app::core();
    if (!core.account().hasSession()) {
        std::cerr << "vell: " << messages::kNotSignedIn.str() << "\n";
        return kExitSignedOut;
    }
    // The recorder first: its recovery puts interrupted recordings and orphaned files back
    // in the list before the launch check may adopt unowned ones and the pass looks.
    auto& store = core.recorder();
    std::optional<service::APIError> checkFailed;
    core.bootstrap([&](const std::optional<service::APIError>& error) {
        checkFailed = error;
        main.stop();
    });
    main.run();
    auto& state = core.appState();
    if (checkFailed) {
        std::cerr << "vell: " << checkFailed->descriptionWithCause() << "\n";
        return kExitFailure;
    }
    if (state.phase.get() != app::AppState::Phase::signedIn) {
        std::cerr << "vell: " << service::APIError::unauthenticated().description() << "\n";
        return kExitSignedOut;
    }

    auto& queue = core.uploads();
    ProgressLine bar(fancyTerminal() && !context.quiet && !json);
    auto nameOf = [&store](const std::string& id) {
        for (const auto& r : store.pending()) {
            if (r.id == id) return r.fileURL.filename().string();
        }
        return id;
    };
    auto watching = queue.activity().subscribe([&](const service::UploadActivity& activity) {
        if (activity.currentID) bar.update(nameOf(*activity.currentID), activity);
    });
    nlohmann::json attempts = nlohmann::json::array();
    queue.onAttempt = [&](const PendingRecording& r, const Expected<std::string, service::UploadError>& result) {
        bar.clear();
        nlohmann::json attempt{{"file", r.fileURL.filename().string()}};
        if (result) attempt["recordingId"] = *result;
        else attempt["error"] = result.error().descriptionWithCause();
        attempts.push_back(attempt);
        if (json) return;
        std::cout << r.fileURL.filename().string() << ": "
                  << (result ? messages::kUploaded.str() + " (" + *result + ")"
                             : messages::kFailed.str() + ": " + result.error().descriptionWithCause())
                  << std::endl;
    };

    service::PassSummary summary;
    queue.runOnce([&](service::PassSummary s) {
        summary = s;
        main.stop();
    });
    main.run();
    queue.onAttempt = nullptr;
    bar.clear();
    return report(summary, attempts, json);
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("upload", help::kUpload.str());
    auto json = std::make_shared<bool>(false);
    cmd->add_flag("--json", *json, help::kJson.str());
    cmd->callback([&context, json] { context.exitCode = upload(context, *json); });
}

}  // namespace

VELL_COMMAND(63, setup);

}  // namespace vell::cli
