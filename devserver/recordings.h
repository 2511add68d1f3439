#pragma once
// Recordings that arrive in one request (the multipart form) and live-session chunks.
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "devserver/file_sink.h"
#include "devserver/store.h"

namespace vell::devserver {

// One recording being received: its bytes go to a temporary file in the recordings folder
// and become a recording only on commit().
class IncomingRecording {
public:
    explicit IncomingRecording(Store& store);
    ~IncomingRecording();  // removes the temporary file unless committed

    bool begin(const std::string& filename, const std::string& mimeType);
    bool write(const char* data, size_t size) { return file_.write(data, size); }
    bool started() const { return started_; }

    // Syncs the file, moves it to its final name and saves the recording. Nothing when
    // the disk failed.
    std::optional<Recording> commit(const std::string& email, std::optional<int64_t> captureStartedAt,
                                    std::optional<int64_t> captureEndedAt, std::optional<std::string> summaryPromptId);

private:
    Store& store_;
    FileSink file_;
    std::string id_, filename_, mimeType_;
    std::filesystem::path temporary_;
    bool started_ = false, committed_ = false;
};

class LiveChunks {
public:
    explicit LiveChunks(Store& store) : store_(store) {}
    static bool validSessionId(const std::string& id);
    // Stores the body as the next chunk of the account's live session; the path, or nothing.
    std::optional<std::filesystem::path> next(const std::string& accountId, const std::string& sessionId);

private:
    Store& store_;
    std::mutex mutex_;
};

}  // namespace vell::devserver
