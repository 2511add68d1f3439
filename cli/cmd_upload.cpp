// vell upload: one pass of the upload queue over the pending recordings of the signed-in
// account, with a progress bar per file. Exits non-zero when any upload failed.
#include <unistd.h>

#include <cmath>
#include <iostream>
#include <random>

#include "app/legacy_adoption_window.h"
#include "cli/account_messages.h"
#include "cli/command.h"
#include "cli/help_messages.h"
#include "cli/runtime_scope.h"
#include "platform/paths.h"
#include "platform/runtime.h"
#include "recording/pending_list.h"
#include "service/account_client.h"
#include "service/upload_queue.h"

namespace vell::cli {

namespace {

using recording::PendingRecording;

// The pending list straight from its file, for a process that records nothing.
class ManifestStore final : public recording::PendingRecordingStore {
public:
    explicit ManifestStore(std::filesystem::path directory) : file_(std::move(directory)) {
        list_ = file_.load().value_or(std::vector<PendingRecording>{});
    }
    std::vector<PendingRecording> pending() const override { return list_; }
    bool update(const std::string& id, const std::function<void(PendingRecording&)>& change) override {
        for (auto& r : list_) {
            if (r.id != id) continue;
            change(r);
            save();
            return true;
        }
        return false;
    }
    void add(PendingRecording r) override {
        list_.push_back(std::move(r));
        save();
    }
    // Recordings made before accounts were recorded go to this account (once per
    // installation, as when the application signs in).
    int adopt(const std::string& accountID) {
        int changed = recording::adoptUnowned(list_, accountID);
        if (changed > 0) save();
        return changed;
    }
    bool remove(const std::string& id) override {
        if (std::erase_if(list_, [&](const PendingRecording& r) { return r.id == id; }) == 0) return false;
        save();
        return true;
    }

private:
    void save() {
        std::error_code ec;
        if (!file_.save(list_, ec)) std::cerr << "vell: " << file_.manifest().string() << ": " << ec.message() << "\n";
    }
    recording::PendingListFile file_;
    std::vector<PendingRecording> list_;
};

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

int upload(Context& context) {
    auto scope = RuntimeScope::enter(context);
    if (!scope) return context.exitCode;
    auto& main = scope->executor();

    service::APIClient client;
    service::AccountClient account(client);
    if (!account.hasSession()) {
        std::cerr << messages::kNotSignedIn.str() << "\n";
        return kExitSignedOut;
    }
    auto me = account.fetchMeNow();
    if (!me) {
        std::cerr << me.error().description() << "\n";
        if (me.error().isSessionRejection()) {
            account.clearSession();
            return kExitSignedOut;
        }
        return kExitFailure;
    }

    ManifestStore store(paths::recordingsDirectory());
    app::LegacyAdoptionWindow adoption(UserDefaults::standard());
    if (adoption.isOpen()) {
        store.adopt(me->id);
        adoption.close();
    }
    service::ApiRecordingUploader uploader(client);
    std::mt19937_64 random{std::random_device{}()};
    service::UploadQueue queue(store, uploader, main, runtime::clock(),
                               [&random] { return std::uniform_real_distribution<double>(0, 1)(random); });
    queue.setAccount(me->id);

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
    queue.onUnauthenticated = [&account] { account.clearSession(); };

    service::PassSummary summary;
    queue.runOnce([&](service::PassSummary s) {
        summary = s;
        main.stop();
    });
    main.run();

    if (summary.uploaded == 0 && summary.failed == 0) {
        std::cout << messages::kNothingToUpload.str() << "\n";
        return kExitOK;
    }
    std::cout << messages::kUploadSummary.str() << summary.uploaded << messages::kFailedSummary.str() << summary.failed
              << "\n";
    if (summary.unauthenticated) return kExitSignedOut;
    return summary.failed > 0 ? kExitFailure : kExitOK;
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("upload", help::kUpload.str());
    cmd->callback([&context] { context.exitCode = upload(context); });
}

}  // namespace

VELL_COMMAND(63, setup);

}  // namespace vell::cli
