#pragma once
// Hands a stretch of the insurance buffer over as an ordinary recording: the chunks are
// joined into a new "vell_rec_<UUID>.aac" beside the recordings awaiting upload, registered
// in the pending list (start of the first chunk to end of the last, status ready, the
// signed-in account), and the upload queue sends it like any other. The answer is the
// recording id the service gave it.
//
// Main executor only. The join runs there too (a few hundred kilobytes a minute of audio);
// the upload runs on the queue's own worker.
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/executor.h"
#include "base/expected.h"
#include "base/published.h"
#include "insurance/insurance_buffer_store.h"

namespace vell::recording {
class PendingRecordingStore;
}
namespace vell::service {
class UploadQueue;
}

namespace vell::insurance {

// How long an upload may wait for the queue's attempt before it is reported as failed (the
// recording stays pending and is still sent later).
inline constexpr double kBufferedUploadLimitSeconds = 600;

struct BufferedUploadParts {
    std::function<Expected<Unit, std::string>(const std::vector<InsuranceChunk>&, const std::filesystem::path&)> concatenate;
    recording::PendingRecordingStore* pending = nullptr;
    service::UploadQueue* uploads = nullptr;
    std::function<std::optional<std::string>()> accountID;
    std::filesystem::path directory;  // the recordings awaiting upload
    Executor* main = nullptr;
    double limitSeconds = kBufferedUploadLimitSeconds;
};

class BufferedAudioUpload {
public:
    // The recording id (none when the service gave none), or the sentence to show.
    using Result = Expected<std::optional<std::string>, std::string>;
    using Done = std::function<void(Result)>;

    explicit BufferedAudioUpload(BufferedUploadParts parts);
    ~BufferedAudioUpload();
    BufferedAudioUpload(const BufferedAudioUpload&) = delete;
    BufferedAudioUpload& operator=(const BufferedAudioUpload&) = delete;

    // "Nothing selected" without chunks; the join's own error when a chunk vanished; "Upload
    // failed. Vell will retry from the menu." when the queue's attempt failed or never came.
    void upload(const std::vector<InsuranceChunk>& chunks, Done done);

private:
    struct Waiting {
        Done done;
        TimerHandle limit;
    };
    void settle(const std::string& pendingID, Result result);

    BufferedUploadParts parts_;
    std::map<std::string, Waiting> waiting_;  // by pending id
    Subscription attempts_;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace vell::insurance
