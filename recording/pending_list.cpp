#include "recording/pending_list.h"

#include <chrono>
#include <map>
#include <unordered_set>

#include "platform/files.h"
#include "platform/log.h"
#include "recording/pending_recording_coding.h"

namespace vell::recording {

namespace fs = std::filesystem;

namespace {
const log::Logger kLog("PendingRecordings");
}

PendingListFile::PendingListFile(fs::path directory) : directory_(std::move(directory)) {}

std::optional<std::vector<PendingRecording>> PendingListFile::load() const {
    std::error_code error;
    auto text = files::read(manifest(), error);
    if (!text) {
        if (error != std::errc::no_such_file_or_directory) kLog.error("pending list unreadable: " + error.message());
        return std::nullopt;
    }
    auto list = coding::decodeList(*text);
    if (!list) {
        auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch());
        fs::path aside = manifest();
        aside += ".corrupt-" + std::to_string(seconds.count());
        std::error_code renameError;
        fs::rename(manifest(), aside, renameError);
        kLog.error("pending list does not decode; kept as " + aside.filename().string() +
                   (renameError ? " (move failed: " + renameError.message() + ")" : ""));
        return std::nullopt;
    }
    return keepingExistingFiles(std::move(*list));
}

bool PendingListFile::save(const std::vector<PendingRecording>& list, std::error_code& error) const {
    fs::create_directories(directory_, error);
    if (error) return false;
    return files::writeAtomically(manifest(), coding::encodeList(list), error);
}

std::vector<PendingRecording> keepingExistingFiles(std::vector<PendingRecording> list) {
    // The audio files normally all sit in one folder: one listing of it answers for every
    // entry there, instead of one stat call per entry.
    std::map<fs::path, std::optional<std::unordered_set<std::string>>> listings;
    auto exists = [&](const fs::path& file) {
        auto [it, inserted] = listings.try_emplace(file.parent_path());
        if (inserted) {
            std::error_code ec;
            std::unordered_set<std::string> names;
            for (fs::directory_iterator d(it->first, ec), end; !ec && d != end; d.increment(ec)) {
                names.insert(d->path().filename().string());
            }
            if (!ec) it->second = std::move(names);
        }
        std::error_code ec;
        if (!it->second) return fs::exists(file, ec);
        return it->second->count(file.filename().string()) > 0;
    };
    std::vector<PendingRecording> kept;
    kept.reserve(list.size());
    for (auto& r : list) {
        if (r.fileURL.is_absolute() && r.fileURL.has_filename() && exists(r.fileURL)) kept.push_back(std::move(r));
    }
    return kept;
}

std::vector<PendingRecording> uploadCandidates(const std::vector<PendingRecording>& list,
                                               const std::optional<std::string>& accountID,
                                               const std::set<std::string>& skip) {
    std::vector<PendingRecording> out;
    if (!accountID) return out;
    for (const auto& r : list) {
        if (r.accountID != accountID || skip.count(r.id)) continue;
        if (r.status == PendingRecording::Status::ready || r.status == PendingRecording::Status::failed) out.push_back(r);
    }
    return out;
}

int adoptUnowned(std::vector<PendingRecording>& list, const std::string& accountID) {
    int changed = 0;
    for (auto& r : list) {
        if (!r.accountID) {
            r.accountID = accountID;
            ++changed;
        }
    }
    return changed;
}

int settleInterrupted(std::vector<PendingRecording>& list, WallTime now, const std::string& recoveredNote) {
    int changed = 0;
    for (auto& r : list) {
        if (r.status == PendingRecording::Status::recording) {
            r.status = PendingRecording::Status::ready;
            if (!r.finishedAt) r.finishedAt = now;
            r.lastError = recoveredNote;
            ++changed;
        } else if (r.status == PendingRecording::Status::uploading) {
            r.status = PendingRecording::Status::ready;
            ++changed;
        }
    }
    return changed;
}

}  // namespace vell::recording
