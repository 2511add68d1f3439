#pragma once
// Uploads of recording files: the resumable protocol (start, 8 MiB parts naming their
// offset, finalize) that continues where the service stopped counting, the single
// multipart form, and the live segment chunk.
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "base/clock.h"
#include "base/expected.h"
#include "service/api_client.h"
#include "service/upload_error.h"

namespace vell::service {

inline constexpr long long kUploadChunkBytes = 8'388'608;
// Answers to parts in a row (acknowledgements and 409 offset_mismatch corrections) that
// together do not move the furthest confirmed offset on by a part's worth (or to the end)
// before an upload call gives up: a service that creeps a byte at a time is as stuck as
// one that never moves, and the caller's backoff decides when to try again.
inline constexpr int kMaxStalledResyncs = 3;

struct CaptureWindow {
    WallTime start;
    std::optional<WallTime> end;
};

// Milliseconds since 1970 of start and end, only when the end lies strictly after the start.
std::optional<std::pair<long long, long long>> captureMilliseconds(const std::optional<CaptureWindow>& capture);
// "audio/aac" for ".aac" (any case), "audio/mp4" otherwise.
std::string mimeTypeFor(const std::filesystem::path& file);

using Progress = std::function<void(double fraction)>;

class RecordingUploads {
public:
    explicit RecordingUploads(const APIClient& client) : client_(client) {}

    // Returns the service's recording identifier. Keeps no state between calls: calling it
    // again after any failure resumes from the byte count the service holds for this file
    // name. Progress is reported after the start and after each acknowledged part.
    // bytes, when given, follows the body inside each part (sent so far, total), from the
    // transfer's thread; progress keeps to the start and each acknowledged part.
    Expected<std::string, UploadError> uploadRecording(const std::filesystem::path& file,
                                                       const std::optional<std::string>& summaryPromptID,
                                                       const std::optional<CaptureWindow>& capture,
                                                       const Progress& progress,
                                                       const std::function<void(long long sent, long long total)>& bytes = {}) const;

    // One multipart form POST; the body is streamed through a temporary file.
    Expected<std::string, UploadError> uploadMultipart(const std::filesystem::path& file,
                                                       const std::optional<std::string>& summaryPromptID,
                                                       const std::optional<CaptureWindow>& capture) const;

    // Where a live segment sits in its session: its number (so the service keeps the
    // segments in order and recognises one sent twice), where it starts in the recording,
    // and the two sides' levels over it (the live advisor's header form).
    struct LiveChunkPlace {
        int index = 0;
        long long startMs = 0;
        std::string sides;
    };
    // One finished live segment of a live session.
    Expected<Unit, UploadError> uploadLiveChunk(const std::string& sessionID, const std::filesystem::path& file,
                                                const std::optional<LiveChunkPlace>& place = std::nullopt) const;

private:
    const APIClient& client_;
};

}  // namespace vell::service
