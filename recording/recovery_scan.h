#pragma once
// Finds audio files in the recordings folder that no pending entry names: what a crash
// or a lost list left behind, so that it still reaches the service.
#include <filesystem>
#include <string>
#include <vector>

#include "recording/pending_recording.h"

namespace vell::recording {

inline constexpr std::string_view kRecordingFilePrefix = "vell_rec_";

// Accepted: a name beginning with "vell_rec_", extension aac or m4a in any case, at least
// one byte, a non-empty id (the stem without the prefix), a path not already in known.
// Each becomes a ready entry started and finished at `now`, carrying `note`.
std::vector<PendingRecording> findOrphanRecordings(const std::filesystem::path& directory,
                                                   const std::vector<PendingRecording>& known, WallTime now,
                                                   const std::string& note);

}  // namespace vell::recording
