#include "recording/recovery_scan.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <set>

#include "base/clock.h"
#include "base/files.h"
#include "base/log.h"
#include "base/utf8.h"

namespace vell::recording {

namespace fs = std::filesystem;

namespace {
const log::Logger kLog("Recovery");

// A mark holds one number; anything longer was not written by us.
constexpr std::size_t kDiscardMarkLimit = 64;

std::string lowered(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

// When the mark says the file was discarded; nothing without a mark. A mark that cannot
// be read still means discarded: it dates the discard now.
std::optional<WallTime> discardedAt(const fs::path& file, WallTime now) {
    std::error_code error;
    auto text = files::read(discardMarkOf(file), error, kDiscardMarkLimit, /*followLinks=*/false);
    if (!text) {
        if (error == std::errc::no_such_file_or_directory) return std::nullopt;
        return now;
    }
    double seconds = 0;
    auto [end, ec] = std::from_chars(text->data(), text->data() + text->size(), seconds);
    if (ec != std::errc() || !(std::abs(seconds) < 1e11)) return now;
    return fromSecondsSinceReferenceDate(seconds);
}
}  // namespace

fs::path discardMarkOf(const fs::path& file) {
    fs::path mark = file;
    mark += ".discarded";
    return mark;
}

bool markDiscarded(const fs::path& file, WallTime at) {
    std::error_code error;
    if (files::writeAtomically(discardMarkOf(file), std::to_string(secondsSinceReferenceDate(at)), error)) return true;
    kLog.error("cannot mark " + file.filename().string() + " as discarded: " + error.message());
    return false;
}

void clearDiscardMark(const fs::path& file) {
    std::error_code ignored;
    fs::remove(discardMarkOf(file), ignored);
}

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
        if (!vell::isValidUtf8(name)) {
            kLog.error("skipped a recording whose file name is not UTF-8 text");
            continue;
        }
        std::error_code statusError;
        if (!it->is_regular_file(statusError) || it->is_symlink(statusError)) {
            kLog.error("skipped " + name + ": not a regular file");
            continue;
        }
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
        if (auto discarded = discardedAt(path, now)) {
            r.status = PendingRecording::Status::discarded;
            r.discardedAt = *discarded;
            r.lastError.reset();
        }
        found.push_back(std::move(r));
    }
    return found;
}

}  // namespace vell::recording
