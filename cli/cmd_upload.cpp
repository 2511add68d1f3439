// vell upload: one pass of the upload queue over the pending recordings of the signed-in
// account, with a progress bar per file. Exits non-zero when any upload failed.
#include <unistd.h>

#include <cmath>
#include <iostream>
#include <nlohmann/json.hpp>

#include "app/composition.h"
#include "app/core_services.h"
#include "cli/account_messages.h"
#include "cli/command.h"
#include "cli/help_messages.h"
#include "cli/host_client.h"
#include "cli/runtime_scope.h"
#include "recording/recorder_service.h"
#include "service/upload_queue.h"

namespace vell::cli {

namespace {

using recording::PendingRecording;

// A bar redrawn in place on a terminal; in a log or a pipe one line per step instead.
class ProgressBar {
public:
    void show(const std::string& name, double fraction) {
        int percent = static_cast<int>(std::floor(std::clamp(fraction, 0.0, 1.0) * 100));
        if (name == name_ && percent == percent_) return;
        name_ = name;
        percent_ = percent;
        if (!tty_) {
            std::cout << name << ": " << percent << "%\n" << std::flush;
            return;
        }
        int filled = percent * kWidth / 100;
        std::cout << "\r" << name << " [" << std::string(filled, '#') << std::string(kWidth - filled, '.') << "] "
                  << percent << "%" << std::flush;
    }
    void end(const std::string& line) {
        if (!name_.empty() && tty_) std::cout << "\r" << name_ << " [" << std::string(kWidth, '#') << "] ";
        if (!name_.empty() && !tty_) std::cout << name_ << ": ";
        std::cout << line << "\n" << std::flush;
        name_.clear();
        percent_ = -1;
    }

private:
    static constexpr int kWidth = 30;
    bool tty_ = ::isatty(STDOUT_FILENO) != 0;
    std::string name_;
    int percent_ = -1;
};

// Prints a pass's outcome and gives its exit code.
int report(const service::PassSummary& summary) {
    if (summary.storageFailure) {
        std::cout << messages::kUploadSummary.str() << summary.uploaded << messages::kFailedSummary.str() << summary.failed
                  << "\n";
        std::cerr << messages::kUploadStopped.str() << *summary.storageFailure << messages::kUploadStoppedEnd.str() << "\n";
        return kExitFailure;
    }
    if (summary.uploaded == 0 && summary.failed == 0 && !summary.unauthenticated) {
        std::cout << messages::kNothingToUpload.str() << "\n";
        return kExitOK;
    }
    std::cout << messages::kUploadSummary.str() << summary.uploaded << messages::kFailedSummary.str() << summary.failed
              << "\n";
    if (summary.unauthenticated) return kExitSignedOut;
    return summary.failed > 0 ? kExitFailure : kExitOK;
}

// The same pass, run by the host that owns the data folder.
int uploadThroughHost(const dbus::ControlClient& host) {
    auto reply = host.upload();
    if (!reply) return reportHostError(reply.error());
    auto outcome = nlohmann::json::parse(*reply, nullptr, false);
    service::PassSummary summary;
    if (outcome.is_object()) {
        for (const auto& attempt : outcome.value("attempts", nlohmann::json::array())) {
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
    return report(summary);
}

int upload(Context& context) {
    if (auto host = runningHost()) return uploadThroughHost(*host);
    auto scope = RuntimeScope::enter(context);
    if (!scope) return context.exitCode;
    auto& main = scope->executor();
    auto& core = app::core();
    if (!core.account().hasSession()) {
        std::cerr << messages::kNotSignedIn.str() << "\n";
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
        std::cerr << checkFailed->description() << "\n";
        return kExitFailure;
    }
    if (state.phase.get() != app::AppState::Phase::signedIn) {
        std::cerr << service::APIError::unauthenticated().description() << "\n";
        return kExitSignedOut;
    }

    auto& queue = core.uploads();
    ProgressBar bar;
    auto nameOf = [&store](const std::string& id) {
        for (const auto& r : store.pending()) {
            if (r.id == id) return r.fileURL.filename().string();
        }
        return id;
    };
    auto watching = queue.activity().subscribe([&](const service::UploadActivity& activity) {
        if (activity.currentID) bar.show(nameOf(*activity.currentID), activity.progress);
    });
    queue.onAttempt = [&](const PendingRecording& r, const Expected<std::string, service::UploadError>& result) {
        bar.show(r.fileURL.filename().string(), result ? 1.0 : queue.activity().get().progress);
        bar.end(result ? messages::kUploaded.str() + " (" + *result + ")"
                       : messages::kFailed.str() + ": " + result.error().description());
    };

    service::PassSummary summary;
    queue.runOnce([&](service::PassSummary s) {
        summary = s;
        main.stop();
    });
    main.run();
    queue.onAttempt = nullptr;
    return report(summary);
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("upload", help::kUpload.str());
    cmd->callback([&context] { context.exitCode = upload(context); });
}

}  // namespace

VELL_COMMAND(63, setup);

}  // namespace vell::cli
