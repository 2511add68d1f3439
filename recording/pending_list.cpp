#include "recording/pending_list.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <chrono>
#include <map>
#include <unordered_set>

#include "base/files.h"
#include "base/log.h"
#include "recording/pending_recording_coding.h"

namespace vell::recording {

namespace fs = std::filesystem;

namespace {
const log::Logger kLog("PendingRecordings");

// Renames the file to "<name>.corrupt-<seconds>", adding "-2", "-3"... when a copy kept
// earlier in the same second has that name: a kept copy is never replaced.
std::optional<fs::path> moveAside(const fs::path& file) {
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
    for (int n = 1; n < 1000; ++n) {
        fs::path aside = file;
        aside += ".corrupt-" + std::to_string(seconds) + (n > 1 ? "-" + std::to_string(n) : "");
        if (::renameat2(AT_FDCWD, file.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0) return aside;
        if (errno == EEXIST) continue;
        if (errno != EINVAL && errno != ENOSYS) break;
        // A file system without RENAME_NOREPLACE: link refuses an existing name too.
        if (::link(file.c_str(), aside.c_str()) == 0) {
            ::unlink(file.c_str());
            return aside;
        }
        if (errno != EEXIST) break;
    }
    kLog.error("cannot move " + file.filename().string() + " aside: " + std::strerror(errno));
    return std::nullopt;
}
}  // namespace

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
        // Kept for inspection under a name no earlier copy holds; the entries that still
        // read keep their state and owner, the audio of the others is found by the scan.
        const auto aside = moveAside(manifest());
        list = coding::decodeReadableEntries(*text);
        kLog.error("pending list does not decode; " +
                   (aside ? "kept as " + aside->filename().string() : std::string("could not be moved aside")) +
                   (list ? "; " + std::to_string(list->size()) + " readable entries recovered" : std::string()));
        if (!list) return std::nullopt;
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
    using Names = std::unordered_set<std::string_view>;
    struct Listing {
        std::vector<std::string> storage;
        std::optional<Names> names;  // none when the folder cannot be listed
    };
    std::map<std::string, Listing, std::less<>> listings;
    std::string_view lastFolder;
    Listing* last = nullptr;
    auto listingOf = [&](std::string_view folder) -> Listing& {
        if (last && folder == lastFolder) return *last;
        auto it = listings.find(folder);
        if (it == listings.end()) {
            it = listings.emplace(std::string(folder), Listing{}).first;
            if (DIR* dir = ::opendir(it->first.empty() ? "/" : it->first.c_str())) {
                while (const dirent* entry = ::readdir(dir)) it->second.storage.emplace_back(entry->d_name);
                ::closedir(dir);
                Names names;
                names.reserve(it->second.storage.size());
                for (const auto& name : it->second.storage) names.insert(name);
                it->second.names = std::move(names);
            }
        }
        lastFolder = it->first;
        last = &it->second;
        return it->second;
    };
    std::vector<PendingRecording> kept;
    kept.reserve(list.size());
    for (auto& r : list) {
        const std::string& path = r.fileURL.native();
        auto slash = path.rfind('/');
        if (path.empty() || path.front() != '/' || slash == path.size() - 1) continue;
        std::string_view folder(path.data(), slash);
        std::string_view name(path.data() + slash + 1, path.size() - slash - 1);
        Listing& listing = listingOf(folder);
        std::error_code ec;
        bool exists = listing.names ? listing.names->count(name) > 0 : fs::exists(r.fileURL, ec);
        if (exists) kept.push_back(std::move(r));
    }
    return kept;
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
