#include "service/upload_queue.h"

#include <algorithm>
#include <cmath>

#include "base/log.h"
#include "base/paths.h"
#include "base/runtime.h"
#include "service/api_client.h"
#include "service/resumable_upload.h"
#include "service/upload_candidates.h"

namespace vell::service {

using recording::PendingRecording;
using Status = PendingRecording::Status;

namespace {
const log::Logger& logger() {
    static const log::Logger l("UploadQueue");
    return l;
}
constexpr double kSweepIntervalSeconds = 3600;
}  // namespace

void ApiRecordingUploader::upload(const PendingRecording& recording, std::function<void(double)> progress, Done done) {
    std::optional<CaptureWindow> capture = CaptureWindow{recording.startedAt, recording.finishedAt};
    client_.spawn([this, id = recording.id, file = recording.fileURL, capture, progress = std::move(progress),
                   done = std::move(done), onBytes = onBytes] {
        RecordingUploads uploads(client_);
        auto onProgress = [&progress](double fraction) {
            if (progress) runtime::main().post([progress, fraction] { progress(fraction); });
        };
        // Told a few times a second at most: the transfer calls back far more often.
        auto lastTold = std::chrono::steady_clock::time_point{};
        auto onSent = [&](long long sent, long long total) {
            const auto now = std::chrono::steady_clock::now();
            if (!onBytes || (now - lastTold < std::chrono::milliseconds(200) && sent < total)) return;
            lastTold = now;
            runtime::main().post([onBytes, id, sent, total] { onBytes(id, sent, total); });
        };
        auto result = std::make_shared<Expected<std::string, UploadError>>(
            uploads.uploadRecording(file, std::nullopt, capture, onProgress, onSent));
        runtime::main().post([done, result] { done(std::move(*result)); });
    });
}

UploadQueue::UploadQueue(recording::PendingRecordingStore& store, RecordingUploader& uploader, Executor& main,
                         const Clock& clock, std::function<double()> random01, UploadQueueSettings settings)
    : store_(store),
      uploader_(uploader),
      main_(main),
      clock_(clock),
      random_(std::move(random01)),
      settings_(std::move(settings)),
      receipts_(settings_.receiptsFile.empty() ? paths::vellDataDirectory() / "upload-receipts.json"
                                               : settings_.receiptsFile) {
    std::weak_ptr<bool> alive = alive_;
    uploader_.onBytes = [this, alive](const std::string& id, long long sent, long long total) {
        auto a = alive.lock();
        if (!a || !*a || activity_.get().currentID != id) return;
        activity_.modify([&](UploadActivity& activity) {
            activity.bytesSent = sent;
            activity.totalBytes = total;
        });
    };
}

UploadQueue::~UploadQueue() {
    *alive_ = false;
    uploader_.onBytes = nullptr;
    retryTimer_.cancel();
    sweepTimer_.cancel();
}

void UploadQueue::settleInterrupted() {
    for (const auto& r : store_.pending()) {
        if (r.status != Status::uploading) continue;
        // Interrupted mid-upload: the resumable protocol continues where the service stopped.
        store_.update(r.id, [](PendingRecording& e) { e.status = Status::ready; });
        logger().info("upload of " + r.id + " was interrupted; queued again");
    }
}

void UploadQueue::start() {
    started_ = true;
    settleInterrupted();
    sweepRetention();
    std::weak_ptr<bool> alive = alive_;
    sweepTimer_ = main_.repeat(kSweepIntervalSeconds, [this, alive] {
        if (alive.lock() && *alive.lock()) sweepRetention();
    });
    startPass(false, nullptr);
}

void UploadQueue::setAccount(std::optional<std::string> accountID) {
    bool changed = accountID != account_;
    account_ = std::move(accountID);
    if (!account_) {
        retryTimer_.cancel();
        return;
    }
    if (changed && started_) retryNow();
}

void UploadQueue::wake() { startPass(false, nullptr); }

void UploadQueue::retryNow() {
    retryAt_.clear();
    startPass(false, nullptr);
}

void UploadQueue::runOnce(std::function<void(PassSummary)> done) {
    if (!started_ && !running_) settleInterrupted();
    started_ = true;
    startPass(true, std::move(done));
}

std::optional<double> UploadQueue::retryAt(const std::string& id) const {
    auto it = retryAt_.find(id);
    if (it == retryAt_.end()) return std::nullopt;
    return it->second;
}

double UploadQueue::backoffSeconds(long long attempts) const {
    double exponent = static_cast<double>(std::clamp<long long>(attempts - 1, 0, 30));
    double delay = std::min(settings_.retryCapSeconds, settings_.retryBaseSeconds * std::pow(2.0, exponent));
    // Half to full delay, so that many clients coming back online do not retry in step.
    double jitter = random_ ? std::clamp(random_(), 0.0, 1.0) : 1.0;
    return delay * (0.5 + 0.5 * jitter);
}

void UploadQueue::startPass(bool ignoreBackoff, std::function<void(PassSummary)> done) {
    if (done) waiting_.push_back(std::move(done));
    if (running_) {
        again_ = true;
        ignoreBackoff_ = ignoreBackoff_ || ignoreBackoff;
        return;
    }
    retryTimer_.cancel();
    running_ = true;
    ignoreBackoff_ = ignoreBackoff;
    attempted_.clear();
    summary_ = {};
    next();
}

void UploadQueue::next() {
    std::set<std::string> skip = attempted_;
    if (!ignoreBackoff_) {
        for (const auto& [id, due] : retryAt_) {
            if (due > clock_.uptime()) skip.insert(id);
        }
    }
    auto candidates = uploadCandidates(store_.pending(), account_, skip);
    if (candidates.empty()) return finishPass();
    PendingRecording recording = candidates.front();
    attempted_.insert(recording.id);
    store_.update(recording.id, [](PendingRecording& e) { e.status = Status::uploading; });
    if (store_.saveFailure()) {
        // Not marked on disk: put it back as it was and upload nothing until it can be.
        store_.update(recording.id, [&](PendingRecording& e) { e.status = recording.status; });
        stopIfUnsaved();
        return;
    }
    activity_.set({recording.id, 0});
    logger().info("uploading " + recording.id);
    std::weak_ptr<bool> alive = alive_;
    auto id = recording.id;
    uploader_.upload(
        recording,
        [this, alive, id](double fraction) {
            if (auto a = alive.lock(); a && *a && activity_.get().currentID == id) {
                activity_.modify([&](UploadActivity& activity) { activity.progress = fraction; });
            }
        },
        [this, alive, recording](Expected<std::string, UploadError> result) {
            if (auto a = alive.lock(); a && *a) finished(recording, std::move(result));
        });
}

Subscription UploadQueue::watchAttempts(AttemptListener listener) {
    const int key = nextListener_++;
    (*attemptListeners_)[key] = std::move(listener);
    return Subscription([weak = std::weak_ptr(attemptListeners_), key] {
        if (auto listeners = weak.lock()) listeners->erase(key);
    });
}

void UploadQueue::tellAttempt(const PendingRecording& recording, const Expected<std::string, UploadError>& result) {
    if (onAttempt) onAttempt(recording, result);
    // A listener may end its own or another's subscription while it is told.
    auto listeners = attemptListeners_;
    std::vector<int> keys;
    for (const auto& [key, _] : *listeners) keys.push_back(key);
    for (int key : keys) {
        auto it = listeners->find(key);
        if (it == listeners->end()) continue;
        auto listener = it->second;
        listener(recording, result);
    }
}

void UploadQueue::finished(const PendingRecording& recording, Expected<std::string, UploadError> result) {
    if (result) {
        store_.update(recording.id, [](PendingRecording& e) {
            e.status = Status::uploaded;
            e.lastError.reset();
            e.lastErrorIsNetwork.reset();
        });
        retryAt_.erase(recording.id);
        summary_.uploaded++;
        logger().info("uploaded " + recording.id + " as " + *result);
        // The receipt only follows a list that says "uploaded": the two files never tell
        // different stories. The service has the recording either way; the next pass finds
        // it "done" at once for the same file.
        const bool receiptSaved = !store_.saveFailure() && receipts_.record(recording.id, {clock_.now(), *result});
        tellAttempt(recording, result);
        if (stopIfUnsaved(receiptSaved)) return;
        return next();
    } else {
        const UploadError& error = result.error();
        std::string text = error.description();
        long long attempts = recording.attempts + 1;
        store_.update(recording.id, [&](PendingRecording& e) {
            e.status = Status::failed;
            e.attempts = attempts;
            e.lastError = text;
            e.lastErrorIsNetwork = error.isNetwork();
        });
        retryAt_[recording.id] = clock_.uptime() + backoffSeconds(attempts);
        summary_.failed++;
        logger().error("upload of " + recording.id + " failed: " + text);
    }
    tellAttempt(recording, result);

    if (!result && result.error().isUnauthenticated()) {
        summary_.unauthenticated = true;
        finishPass();
        if (onUnauthenticated) onUnauthenticated();
        return;
    }
    if (stopIfUnsaved()) return;
    // Offline: the others would fail the same way; the backoff brings the pass back.
    if (!result && result.error().isNetwork()) return finishPass();
    next();
}

bool UploadQueue::stopIfUnsaved(bool receiptsSaved) {
    auto failure = store_.saveFailure();
    if (!failure && receiptsSaved) return false;
    summary_.storageFailure = failure ? *failure : std::string("upload receipts not saved");
    logger().info("upload pass stopped: its state could not be saved (" + *summary_.storageFailure + ")");
    again_ = false;
    finishPass();
    return true;
}

void UploadQueue::finishPass() {
    running_ = false;
    activity_.set({});
    auto waiting = std::move(waiting_);
    waiting_.clear();
    PassSummary summary = summary_;
    sweepRetention();
    if (again_ && !summary.unauthenticated) {
        again_ = false;
        startPass(ignoreBackoff_, nullptr);
    } else {
        again_ = false;
        scheduleRetry();
    }
    for (auto& done : waiting) done(summary);
}

void UploadQueue::scheduleRetry() {
    retryTimer_.cancel();
    if (!account_) return;
    std::optional<double> earliest;
    for (const auto& r : uploadCandidates(store_.pending(), account_, {})) {
        auto it = retryAt_.find(r.id);
        if (it == retryAt_.end()) continue;
        if (!earliest || it->second < *earliest) earliest = it->second;
    }
    // A pass stopped by a full disk comes back by itself: nothing else would start one
    // once space returns.
    if (summary_.storageFailure) {
        const double due = clock_.uptime() + settings_.retryBaseSeconds;
        if (!earliest || due < *earliest) earliest = due;
    }
    if (!earliest) return;
    double delay = std::max(0.0, *earliest - clock_.uptime());
    std::weak_ptr<bool> alive = alive_;
    retryTimer_ = main_.postAfter(delay, [this, alive] {
        if (auto a = alive.lock(); a && *a) startPass(false, nullptr);
    });
}

void UploadQueue::sweepRetention() {
    // While the list cannot be saved, its state in memory is ahead of the file: nothing is
    // deleted or recorded on the strength of it.
    if (store_.saveFailure()) return;
    WallTime now = clock_.now();
    std::set<std::string> listed;
    for (const auto& r : store_.pending()) {
        listed.insert(r.id);
        if (r.status != Status::uploaded) continue;
        auto receipt = receipts_.find(r.id);
        if (!receipt) {
            // Uploaded before receipts were kept: the retention period starts now.
            receipts_.record(r.id, {now, ""});
            continue;
        }
        if (std::chrono::duration<double>(now - receipt->uploadedAt).count() < settings_.retentionSeconds) continue;
        std::error_code ec;
        std::filesystem::remove(r.fileURL, ec);
        if (ec) {
            logger().error("cannot delete uploaded recording " + r.fileURL.string() + ": " + ec.message());
            continue;
        }
        store_.remove(r.id);
        receipts_.forget(r.id);
        listed.erase(r.id);
        logger().info("deleted the local copy of " + r.id + " (uploaded as " + receipt->recordingID + ")");
    }
    std::vector<std::string> stale;
    for (const auto& [id, receipt] : receipts_.all()) {
        if (!listed.count(id)) stale.push_back(id);
    }
    for (const auto& id : stale) receipts_.forget(id);
}

}  // namespace vell::service
