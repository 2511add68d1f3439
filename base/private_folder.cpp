#include "base/private_folder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <set>

#include "base/log.h"
#include "base/paths.h"

namespace vell::files {

namespace fs = std::filesystem;

namespace {
const log::Logger kLog{"Files"};
}

bool createPrivateDirectories(const fs::path& path, std::error_code& error) {
    error.clear();
    if (path.empty()) return true;
    fs::path at;
    for (const auto& part : path) {
        at /= part;
        if (::mkdir(at.c_str(), 0700) == 0 || errno == EEXIST) continue;
        error = {errno, std::generic_category()};
        return false;
    }
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        error = std::make_error_code(std::errc::not_a_directory);
        return false;
    }
    return true;
}

std::optional<fs::path> privateFolder(const fs::path& path, std::string& refusal) {
    std::error_code ec;
    if (!createPrivateDirectories(path.parent_path(), ec)) {
        refusal = path.parent_path().string() + ": " + ec.message();
        return std::nullopt;
    }
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        refusal = path.string() + ": " + std::generic_category().message(errno);
        return std::nullopt;
    }
    // lstat, not stat: a link planted where the folder belongs is refused, not followed.
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        refusal = path.string() + ": " + std::generic_category().message(errno);
        return std::nullopt;
    }
    if (S_ISLNK(st.st_mode)) {
        refusal = path.string() + " is a symbolic link";
        return std::nullopt;
    }
    if (!S_ISDIR(st.st_mode)) {
        refusal = path.string() + " is not a folder";
        return std::nullopt;
    }
    if (st.st_uid != ::geteuid()) {
        refusal = path.string() + " belongs to another user (uid " + std::to_string(st.st_uid) + ")";
        return std::nullopt;
    }
    if ((st.st_mode & 077) != 0 && ::chmod(path.c_str(), 0700) != 0) {
        refusal = path.string() + " is open to others and cannot be narrowed";
        return std::nullopt;
    }
    return path;
}

std::optional<fs::path> temporaryFolder() {
    static std::mutex lock;
    static std::set<std::string> logged;
    auto refuse = [](const std::string& why) {
        std::lock_guard guard(lock);
        if (logged.insert(why).second) kLog.error("refused a folder for temporary files: " + why);
    };
    std::string refusal;
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime == '/') {
        if (auto folder = privateFolder(fs::path(runtime) / "vell", refusal)) return folder;
        refuse(refusal);
    }
    if (auto folder = privateFolder(paths::vellDataDirectory() / "Temporary", refusal)) return folder;
    refuse(refusal);
    return std::nullopt;
}

}  // namespace vell::files
