#include "devserver/recordings.h"

#include <algorithm>
#include <cctype>
#include <fstream>

#include "base/private_folder.h"
#include "devserver/crypto.h"
#include "devserver/uploads.h"

namespace vell::devserver {

namespace fs = std::filesystem;

IncomingRecording::IncomingRecording(Store& store) : store_(store) {}

IncomingRecording::~IncomingRecording() {
    file_.close();
    if (started_ && !committed_) {
        std::error_code ignored;
        fs::remove(temporary_, ignored);
    }
}

bool IncomingRecording::begin(const std::string& filename, const std::string& mimeType) {
    id_ = "rec_" + crypto::randomHex(12);
    filename_ = filename;
    mimeType_ = mimeType;
    temporary_ = store_.recordingsDir() / (id_ + ".incoming");
    started_ = file_.open(temporary_, 0);
    file_.computeDigest();
    return started_;
}

std::optional<Recording> IncomingRecording::commit(const std::string& email, std::optional<int64_t> captureStartedAt,
                                                   std::optional<int64_t> captureEndedAt,
                                                   std::optional<std::string> summaryPromptId) {
    if (!started_ || !file_.sync()) return std::nullopt;
    Recording recording;
    recording.id = id_;
    recording.email = email;
    recording.filename = filename_;
    recording.mimeType = mimeType_;
    recording.bytes = file_.written();
    recording.sha256 = file_.sha256Hex();
    recording.captureStartedAt = captureStartedAt;
    recording.captureEndedAt = captureEndedAt;
    recording.summaryPromptId = std::move(summaryPromptId);
    recording.source = "multipart";
    recording.createdAtMs = crypto::nowMs();
    file_.close();
    const fs::path target = store_.recordingsDir() / (id_ + recordingExtension(filename_, mimeType_));
    std::error_code error;
    fs::rename(temporary_, target, error);
    if (error) return std::nullopt;
    committed_ = true;
    syncDirectory(store_.recordingsDir());
    recording.path = target.string();
    store_.mutate([&](State& state) { state.recordings[recording.id] = recording; });
    return recording;
}

bool LiveChunks::validSessionId(const std::string& id) {
    return !id.empty() && id.size() <= 128 &&
           std::all_of(id.begin(), id.end(), [](unsigned char c) { return std::isalnum(c) || c == '-' || c == '_'; });
}

std::optional<fs::path> LiveChunks::next(const std::string& accountId, const std::string& sessionId) {
    std::lock_guard lock(mutex_);
    const fs::path dir = store_.liveDir() / accountId / sessionId;
    std::error_code error;
    files::createPrivateDirectories(dir, error);
    if (error) return std::nullopt;
    size_t count = 0;
    for (auto it = fs::directory_iterator(dir, error); !error && it != fs::directory_iterator(); it.increment(error)) ++count;
    char name[32];
    std::snprintf(name, sizeof name, "chunk-%06zu.mp4", count + 1);
    // Created here, under the lock, so two chunks arriving together get two names.
    std::ofstream(dir / name, std::ios::binary);
    return dir / name;
}

}  // namespace vell::devserver
