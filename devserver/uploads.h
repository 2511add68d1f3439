#pragma once
// The resumable upload: sessions keyed per account by the client's idempotency key, parts
// appended only at the durable byte count, and finalize into a recording.
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "devserver/body.h"
#include "devserver/store.h"

namespace vell::devserver {

class Uploads {
public:
    explicit Uploads(Store& store) : store_(store) {}

    // After a restart: every open upload's file is cut to its acknowledged count (bytes
    // written before a crash but never acknowledged are dropped). Returns lines to log.
    std::vector<std::string> recover();

    struct StartRequest {
        std::string mimeType;
        std::string filename;
        int64_t totalBytes = 0;
        std::optional<std::string> summaryPromptId;
    };
    // Opens the upload of (email, key), or returns the existing one. An open upload whose
    // size or type changed starts over from 0 bytes under the same id.
    Upload start(const std::string& email, const std::string& key, const StartRequest& request);

    struct PartLimit {
        int64_t bytes = 0;  // store at most this many bytes of the part
        bool dropAfter = false;  // stop reading once they are stored (the connection is dropped)
    };
    enum class PartOutcome { Stored, NotFound, OffsetMismatch, AlreadyFinalized, ExceedsTotal, EmptyPart, StorageFailed };
    struct PartResult {
        PartOutcome outcome;
        int64_t bytesReceived = 0;
        std::string recordingId;
        bool bodyComplete = true;  // false: the body was not read to its end
    };
    // Appends the body at `offset`. Bytes that arrived before the client went away are
    // kept and counted, so the next start resumes after them.
    PartResult appendPart(const std::string& email, const std::string& uploadId, int64_t offset,
                          std::optional<int64_t> contentLength, const BodyStream& body,
                          std::optional<PartLimit> limit = std::nullopt);

    enum class FinalizeOutcome { Created, NotFound, Incomplete, StorageFailed };
    struct FinalizeResult {
        FinalizeOutcome outcome;
        std::string recordingId;
        int64_t bytesReceived = 0;
    };
    FinalizeResult finalize(const std::string& email, const std::string& uploadId, std::optional<int64_t> captureStartedAt,
                            std::optional<int64_t> captureEndedAt);

    std::filesystem::path partPath(const std::string& uploadId) const;

private:
    std::shared_ptr<std::mutex> lockFor(const std::string& uploadId);

    Store& store_;
    std::mutex locksMutex_;
    std::map<std::string, std::shared_ptr<std::mutex>> locks_;  // one writer per upload at a time
};

// The extension a stored recording gets: the file name's own when it is a short
// alphanumeric one, otherwise one from the MIME type.
std::string recordingExtension(const std::string& filename, const std::string& mimeType);

}  // namespace vell::devserver
