#pragma once
// Finds audio files in the recordings folder that no pending entry names: what a crash
// or a lost list left behind, so that it still reaches the service.
#include <filesystem>
#include <string>
#include <vector>

#include "recording/pending_recording.h"

namespace vell::recording {

inline constexpr std::string_view kRecordingFilePrefix = "vell_rec_";

// Accepted: a regular file (not a link) named "vell_rec_<id>.aac" or ".m4a" (extension in
// any case) with a non-empty id, valid UTF-8, at least one byte, a path not already in
// known. Each becomes a ready entry started and finished at `now`, carrying `note`; one
// with a discard mark comes back discarded at the time the mark holds, so that a lost
// list never uploads what the user threw away. Anything else is skipped with a log line.
std::vector<PendingRecording> findOrphanRecordings(const std::filesystem::path& directory,
                                                   const std::vector<PendingRecording>& known, WallTime now,
                                                   const std::string& note);

// The side file "<file>.discarded" that marks a recording as thrown away; it holds the
// time of the discard. Writing returns false when the mark could not be made.
std::filesystem::path discardMarkOf(const std::filesystem::path& file);
bool markDiscarded(const std::filesystem::path& file, WallTime at);
void clearDiscardMark(const std::filesystem::path& file);

}  // namespace vell::recording
