#include "recording/pending_list.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <chrono>
#include <map>
#include <unordered_map>

#include "base/private_folder.h"
#include "base/files.h"
#include "base/log.h"
#include "base/utf8.h"
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
    auto text = files::read(manifest(), error, kPendingListLimit, /*followLinks=*/false);
    if (!text) {
        if (error == std::errc::no_such_file_or_directory) return std::nullopt;
        // Whatever stands in its place (a folder, a FIFO, a link, a huge file) is kept for
        // inspection and the list starts afresh, so that recordings can still be saved.
        const auto aside = moveAside(manifest());
        kLog.error("pending list unreadable (" + error.message() + "); " +
                   (aside ? "kept as " + aside->filename().string() : std::string("could not be moved aside")));
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
    return keepingExistingFiles(keepingOwnFiles(std::move(*list), directory_));
}

bool PendingListFile::save(const std::vector<PendingRecording>& list, std::error_code& error) const {
    files::createPrivateDirectories(directory_, error);
    if (error) return false;
    return files::writeAtomically(manifest(), coding::encodeList(list), error);
}

std::vector<PendingRecording> keepingOwnFiles(std::vector<PendingRecording> list, const fs::path& directory) {
    const fs::path folder = (directory / "").lexically_normal().parent_path();
    std::vector<PendingRecording> kept;
    kept.reserve(list.size());
    for (auto& r : list) {
        const fs::path file = r.fileURL.lexically_normal();
        const std::string name = file.filename().string();
        if (file.parent_path() != folder || name.empty() || name == "." || name == "..") {
            kLog.error("pending entry " + r.id + " names a file outside the recordings folder; left alone");
        } else if (!vell::isValidUtf8(name)) {
            // Its name could not be shown or sent over the bus.
            kLog.error("pending entry " + r.id + " names a file whose name is not UTF-8 text; left alone");
        } else {
            r.fileURL = file;
            kept.push_back(std::move(r));
        }
    }
    return kept;
}

std::vector<PendingRecording> keepingExistingFiles(std::vector<PendingRecording> list) {
    // The audio files normally all sit in one folder: one listing of it answers for every
    // entry there, instead of one stat call per entry. Only regular files count: a link,
    // a FIFO or a folder under a recording's name is never read, uploaded or deleted.
    using Names = std::unordered_map<std::string_view, bool>;  // name: is a regular file
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
                std::vector<bool> regular;
                while (const dirent* entry = ::readdir(dir)) {
                    bool isRegular = entry->d_type == DT_REG;
                    if (entry->d_type == DT_UNKNOWN) {
                        struct stat st {};
                        isRegular = ::fstatat(::dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode);
                    }
                    it->second.storage.emplace_back(entry->d_name);
                    regular.push_back(isRegular);
                }
                ::closedir(dir);
                Names names;
                names.reserve(it->second.storage.size());
                for (std::size_t i = 0; i < regular.size(); ++i) names.emplace(it->second.storage[i], regular[i]);
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
        bool exists = false;
        bool regular = false;
        if (listing.names) {
            auto found = listing.names->find(name);
            exists = found != listing.names->end();
            regular = exists && found->second;
        } else {
            std::error_code ec;
            const auto status = fs::symlink_status(r.fileURL, ec);
            exists = !ec && fs::exists(status);
            regular = exists && fs::is_regular_file(status);
        }
        if (regular) {
            kept.push_back(std::move(r));
        } else if (exists) {
            kLog.error("pending entry " + r.id + ": " + std::string(name) + " is not a regular file; left alone");
        }
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
