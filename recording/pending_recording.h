#pragma once
// One local recording awaiting upload (or after it), and the store through which the
// upload queue, the discard feature and the menu read and change the pending list.
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/clock.h"

namespace vell::recording {

struct PendingRecording {
    enum class Status { recording, ready, uploading, uploaded, failed, discarded };

    std::string id;
    std::filesystem::path fileURL;  // coded as a "file://" URL
    WallTime startedAt{};
    std::optional<WallTime> finishedAt;
    Status status = Status::recording;
    std::optional<std::string> lastError;
    long long attempts = 0;
    std::optional<bool> lastErrorIsNetwork;
    std::optional<std::string> accountID;
    std::optional<std::string> liveSessionID;
    std::optional<WallTime> discardedAt;

    bool operator==(const PendingRecording&) const = default;
};

const char* toString(PendingRecording::Status status);
std::optional<PendingRecording::Status> statusFromString(std::string_view text);

// Implemented by the recorder service; used on the main executor only.
class PendingRecordingStore {
public:
    virtual ~PendingRecordingStore() = default;
    // The list in insertion order, oldest first.
    virtual std::vector<PendingRecording> pending() const = 0;
    // Changes the entry with this id and saves the whole list; false when no entry has it.
    virtual bool update(const std::string& id, const std::function<void(PendingRecording&)>& change) = 0;
    // Adds an entry (recordings made outside the recorder, such as buffered audio) and saves.
    virtual void add(PendingRecording recording) = 0;
    // Removes the entry and saves; the audio file is left to the caller.
    virtual bool remove(const std::string& id) = 0;
    // Why the last save did not reach the disk (a full disk); nothing once a save succeeded.
    // The list in memory is ahead of the file meanwhile.
    virtual std::optional<std::string> saveFailure() const { return std::nullopt; }
};

}  // namespace vell::recording
