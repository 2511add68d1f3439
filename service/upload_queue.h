#pragma once
// Drains the pending list to the service, one recording at a time: each candidate moves
// through `uploading` to `uploaded` or `failed`; failed ones come back after a capped,
// jittered exponential backoff. A rejected session stops the pass and is reported through
// onUnauthenticated. The local copy of an uploaded recording is deleted a retention period
// after the service confirmed it. Lives on the main executor.
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/executor.h"
#include "base/expected.h"
#include "base/published.h"
#include "recording/pending_recording.h"
#include "service/upload_error.h"
#include "service/upload_receipts.h"

namespace vell::service {

class APIClient;

// Uploads one recording; progress and done run on the main executor.
class RecordingUploader {
public:
    using Done = std::function<void(Expected<std::string, UploadError>)>;
    virtual ~RecordingUploader() = default;
    virtual void upload(const recording::PendingRecording& recording, std::function<void(double)> progress, Done done) = 0;
    // Bytes sent of the recording being uploaded (sent, total), on the main executor and
    // at most a few times a second, for displays that show speed and time left.
    std::function<void(const std::string& id, long long sent, long long total)> onBytes;
};

// The resumable protocol on a worker thread of the API client.
class ApiRecordingUploader final : public RecordingUploader {
public:
    explicit ApiRecordingUploader(const APIClient& client) : client_(client) {}
    void upload(const recording::PendingRecording& recording, std::function<void(double)> progress, Done done) override;

private:
    const APIClient& client_;
};

struct UploadQueueSettings {
    double retryBaseSeconds = 15;    // first retry after a failure
    double retryCapSeconds = 900;    // backoff never waits longer
    double retentionSeconds = 7 * 86400;  // local copy kept this long after the upload
    std::filesystem::path receiptsFile;   // empty: <data>/Vell/upload-receipts.json
};

struct UploadActivity {
    std::optional<std::string> currentID;  // the recording being uploaded
    double progress = 0;                   // acknowledged by the service, 0...1
    long long bytesSent = 0;               // sent so far, acknowledged or not
    long long totalBytes = 0;
    bool operator==(const UploadActivity&) const = default;
};

struct PassSummary {
    int uploaded = 0;
    int failed = 0;
    bool unauthenticated = false;
    // The pending list or the receipts could not be saved (a full disk): the pass stopped
    // there rather than go on with a state the files no longer show. The system's reason.
    std::optional<std::string> storageFailure;
};

class UploadQueue {
public:
    UploadQueue(recording::PendingRecordingStore& store, RecordingUploader& uploader, Executor& main, const Clock& clock,
                std::function<double()> random01, UploadQueueSettings settings = {});
    ~UploadQueue();
    UploadQueue(const UploadQueue&) = delete;
    UploadQueue& operator=(const UploadQueue&) = delete;

    // The session was rejected; the application signs out.
    std::function<void()> onUnauthenticated;
    // One recording finished its attempt (recording as it was before the attempt).
    using AttemptListener = std::function<void(const recording::PendingRecording&, const Expected<std::string, UploadError>&)>;
    AttemptListener onAttempt;
    // The same, for any number of listeners (each until its subscription ends); called after
    // onAttempt, in the order they subscribed.
    Subscription watchAttempts(AttemptListener listener);

    // Puts back entries a crash left in `uploading`, deletes expired local copies and runs
    // the first pass.
    void start();
    // The signed-in account; a new account is tried at once, none stops the retries.
    void setAccount(std::optional<std::string> accountID);
    // A recording stopped: run a pass now (respecting backoff).
    void wake();
    // Forget the backoff and run a pass now.
    void retryNow();
    // One pass over every candidate now, ignoring backoff (the command line); entries an
    // earlier run left in `uploading` are queued again first.
    void runOnce(std::function<void(PassSummary)> done);

    bool running() const { return running_; }
    const Published<UploadActivity>& activity() const { return activity_; }
    Published<UploadActivity>& activity() { return activity_; }  // to subscribe
    // Seconds (uptime) when the entry may be retried, if it waits.
    std::optional<double> retryAt(const std::string& id) const;
    // Deletes local copies whose retention has passed (also run at start and after passes).
    void sweepRetention();

private:
    void settleInterrupted();
    void startPass(bool ignoreBackoff, std::function<void(PassSummary)> done);
    void next();
    void finished(const recording::PendingRecording& recording, Expected<std::string, UploadError> result);
    void finishPass();
    // True (and the pass ended) when the last change of the list or receipts was not saved.
    bool stopIfUnsaved(bool receiptsSaved = true);
    void scheduleRetry();
    double backoffSeconds(long long attempts) const;
    void tellAttempt(const recording::PendingRecording& recording, const Expected<std::string, UploadError>& result);

    recording::PendingRecordingStore& store_;
    RecordingUploader& uploader_;
    Executor& main_;
    const Clock& clock_;
    std::function<double()> random_;
    UploadQueueSettings settings_;
    UploadReceipts receipts_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);

    std::optional<std::string> account_;
    bool started_ = false;
    bool running_ = false;
    bool again_ = false;
    bool ignoreBackoff_ = false;
    std::set<std::string> attempted_;
    PassSummary summary_;
    std::vector<std::function<void(PassSummary)>> waiting_;
    std::map<std::string, double> retryAt_;
    TimerHandle retryTimer_;
    TimerHandle sweepTimer_;
    Published<UploadActivity> activity_;
    std::shared_ptr<std::map<int, AttemptListener>> attemptListeners_ = std::make_shared<std::map<int, AttemptListener>>();
    int nextListener_ = 0;
};

}  // namespace vell::service
