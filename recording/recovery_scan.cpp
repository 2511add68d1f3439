#include "recording/recovery_scan.h"

#include <algorithm>
#include <cctype>
#include <set>

namespace vell::recording {

namespace fs = std::filesystem;

namespace {
std::string lowered(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}
}  // namespace

std::vector<PendingRecording> findOrphanRecordings(const fs::path& directory, const std::vector<PendingRecording>& known,
                                                   WallTime now, const std::string& note) {
    std::set<fs::path> referenced;
    for (const auto& r : known) referenced.insert(r.fileURL.lexically_normal());

    std::vector<fs::path> candidates;
    std::error_code ec;
    for (fs::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) {
        const fs::path& path = it->path();
        std::string name = path.filename().string();
        if (name.rfind(kRecordingFilePrefix, 0) != 0) continue;
        std::string ext = lowered(path.extension().string());
        if (ext != ".aac" && ext != ".m4a") continue;
        if (referenced.count(path.lexically_normal())) continue;
        candidates.push_back(path);
    }
    // Directory order is arbitrary; a stable order keeps the list predictable.
    std::sort(candidates.begin(), candidates.end());

    std::vector<PendingRecording> found;
    for (const auto& path : candidates) {
        std::error_code sizeError;
        auto size = fs::file_size(path, sizeError);
        if (sizeError || size < 1) continue;
        std::string id = path.stem().string().substr(kRecordingFilePrefix.size());
        if (id.empty()) continue;
        PendingRecording r;
        r.id = id;
        r.fileURL = path;
        r.startedAt = now;
        r.finishedAt = now;
        r.status = PendingRecording::Status::ready;
        r.lastError = note;
        r.attempts = 0;
        found.push_back(std::move(r));
    }
    return found;
}

}  // namespace vell::recording
