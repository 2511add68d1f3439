#pragma once
// The pending list on disk ("manifest.json" beside the audio files) and the rules that
// read it: which entries survive a load, how unowned entries are adopted and how entries
// left mid-recording or mid-upload are settled.
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "recording/pending_recording.h"

namespace vell::recording {

class PendingListFile {
public:
    // About 100,000 entries; anything larger was not written by Vell.
    static constexpr std::size_t kPendingListLimit = 32u << 20;

    explicit PendingListFile(std::filesystem::path directory);

    const std::filesystem::path& directory() const { return directory_; }
    std::filesystem::path manifest() const { return directory_ / "manifest.json"; }

    // The stored list with entries whose audio file is gone, outside the folder or not a
    // regular file left out, or nothing when the file is missing, unreadable or not a JSON
    // array. A file that cannot be read as a list (a folder, a FIFO, a link, too large) is
    // moved aside. A file that does not decode is moved
    // aside ("manifest.json.corrupt-<seconds>", never over an earlier copy) so that its
    // content is never lost by the next save; when it is still a JSON array, the entries
    // that decode on their own are kept, and the audio of the others is found again by the
    // recovery scan.
    std::optional<std::vector<PendingRecording>> load() const;

    // Compact JSON, written atomically: a failed write leaves the previous file intact.
    bool save(const std::vector<PendingRecording>& list, std::error_code& error) const;

private:
    std::filesystem::path directory_;
};

// The entries whose file lies directly in directory, in their order; the others are left
// out with a log line (a list edited by someone else must not upload or delete their files).
std::vector<PendingRecording> keepingOwnFiles(std::vector<PendingRecording> list, const std::filesystem::path& directory);

// The entries whose audio file exists as a regular file, in their order.
std::vector<PendingRecording> keepingExistingFiles(std::vector<PendingRecording> list);

// Gives entries without an owner to the account; returns how many changed.
int adoptUnowned(std::vector<PendingRecording>& list, const std::string& accountID);

// At start-up nothing is recording or uploading any more: an entry still "recording" was
// cut off by a crash and becomes ready (finished now, with the recovery note), an entry
// still "uploading" becomes ready so the upload resumes where the service stopped.
// Returns how many changed.
int settleInterrupted(std::vector<PendingRecording>& list, WallTime now, const std::string& recoveredNote);

}  // namespace vell::recording
