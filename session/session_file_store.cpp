#include "session/session_file_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "base/files.h"
#include "base/log.h"
#include "base/paths.h"
#include "session/secret_store.h"

namespace vell::session {

namespace fs = std::filesystem;

namespace {

const log::Logger& logger() {
    static const log::Logger l("Keychain");
    return l;
}

std::mutex gMutex;
std::optional<StorageKind> gKind;
secret::Store* gStore = nullptr;  // nullptr: the system store

secret::Store& store() {
    std::lock_guard lock(gMutex);
    return gStore ? *gStore : secret::systemStore();
}

// A key names a file in the data folder; it may not climb out of it.
bool validKey(const std::string& key) {
    return !key.empty() && key.find('/') == std::string::npos && key != "." && key != "..";
}

void ensureDataDirectory() {
    fs::path dir = paths::vellDataDirectory();
    std::error_code ec;
    fs::create_directories(dir.parent_path(), ec);
    if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
        logger().error(std::string("cannot create ") + dir.string() + ": " + std::strerror(errno));
    }
}

bool writeToSecretService(const std::string& key, std::string_view bytes, int& code) {
    auto& s = store();
    // Replace rather than update: a stale item of another schema version must not linger.
    (void)s.clear(key);
    auto stored = s.store(key, std::string(bytes));
    if (stored) return true;
    code = stored.error().code;
    return false;
}

bool writeSessionFile(const std::string& key, std::string_view bytes) {
    ensureDataDirectory();
    auto written = SessionFileStore::writeFile(SessionFileStore::filePath(key), bytes);
    if (!written) logger().error("session file write failed: " + written.error().description());
    return written.has_value();
}

// The file's blob; nothing when missing (silently) or unreadable (logged).
std::optional<std::string> readSessionFile(const std::string& key) {
    auto data = SessionFileStore::readFile(SessionFileStore::filePath(key));
    if (data) return *data;
    if (data.error().code != ENOENT) logger().error("session file read failed: " + data.error().description());
    return std::nullopt;
}

}  // namespace

std::string Failure::description() const {
    return operation + " failed: " + std::strerror(code) + " (errno " + std::to_string(code) + ")";
}

const char* label(StorageKind kind) { return kind == StorageKind::secretService ? "secret service" : "file"; }

StorageKind SessionFileStore::kind() {
    {
        std::lock_guard lock(gMutex);
        if (gKind) return *gKind;
    }
    StorageKind decided = store().reachable() ? StorageKind::secretService : StorageKind::file;
    std::lock_guard lock(gMutex);
    if (!gKind) {
        gKind = decided;
        logger().info(std::string("session storage: ") + label(decided));
    }
    return *gKind;
}

fs::path SessionFileStore::filePath(const std::string& key) {
    return paths::vellDataDirectory() / ("session-" + key + ".bin");
}

Expected<std::string, Failure> SessionFileStore::readFile(const fs::path& path) {
    // Without blocking: a FIFO put at the path would otherwise wait for a writer for ever.
    int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return unexpected(Failure{"open", errno});
    auto fail = [fd](const char* operation, int err) {
        ::close(fd);
        return unexpected(Failure{operation, err});
    };
    struct stat st {};
    if (::fstat(fd, &st) != 0) return fail("fstat", errno);
    if (!S_ISREG(st.st_mode)) return fail("fstat", EINVAL);
    // A secret readable by others is narrowed at once, not at the next sign-in.
    if ((st.st_mode & 07777) != 0600) {
        if (::fchmod(fd, 0600) != 0) return fail("fchmod", errno);
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
        logger().error(std::string("session file had mode ") + mode + "; narrowed to 0600");
    }
    std::string out;
    char buffer[16384];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return fail("read", errno);
        if (n == 0) break;
        out.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return out;
}

Expected<Unit, Failure> SessionFileStore::writeFile(const fs::path& path, std::string_view bytes) {
    // Non-blocking open: a FIFO at the path fails at once instead of waiting for a reader.
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0) return unexpected(Failure{"open", errno});
    auto fail = [fd](const char* operation) {
        int err = errno;
        ::close(fd);
        return unexpected(Failure{operation, err});
    };
    struct stat st {};
    if (::fstat(fd, &st) != 0) return fail("fstat");
    if (!S_ISREG(st.st_mode)) {
        errno = EINVAL;
        return fail("fstat");
    }
    if (::fchmod(fd, 0600) != 0) return fail("fchmod");
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return fail("write");
        }
        done += static_cast<size_t>(n);
    }
    ::close(fd);
    return Unit{};
}

bool SessionFileStore::write(const std::string& key, std::string_view bytes) {
    if (!validKey(key)) {
        logger().error("session write refused: invalid key \"" + key + "\"");
        return false;
    }
    if (kind() == StorageKind::secretService) {
        int code = 0;
        if (writeToSecretService(key, bytes, code)) return true;
        logger().error("keychain write failed: " + std::to_string(code));
    }
    return writeSessionFile(key, bytes);
}

std::optional<std::string> SessionFileStore::read(const std::string& key) {
    if (!validKey(key)) return std::nullopt;
    if (kind() == StorageKind::file) return readSessionFile(key);

    auto found = store().lookup(key);
    if (found && *found) return *found;
    if (!found) logger().error("keychain read failed: " + std::to_string(found.error().code));

    auto blob = readSessionFile(key);
    if (!blob) return std::nullopt;
    int code = 0;
    if (writeToSecretService(key, *blob, code)) {
        if (::unlink(filePath(key).c_str()) != 0 && errno != ENOENT) {
            logger().error(std::string("session file removal after migration failed: ") + Failure{"unlink", errno}.description());
        }
        logger().info(std::string("session file migrated into the ") + label(StorageKind::secretService));
    } else {
        logger().error("session file migration failed: " + std::to_string(code));
    }
    return blob;
}

void SessionFileStore::remove(const std::string& key) {
    if (!validKey(key)) return;
    if (kind() == StorageKind::secretService) {
        if (auto cleared = store().clear(key); !cleared) {
            logger().error("keychain delete failed: " + std::to_string(cleared.error().code));
        }
    }
    if (::unlink(filePath(key).c_str()) != 0 && errno != ENOENT) {
        logger().error("session file removal failed: " + Failure{"unlink", errno}.description());
    }
}

void SessionFileStore::resetForTesting(secret::Store* replacement) {
    std::lock_guard lock(gMutex);
    gStore = replacement;
    gKind.reset();
}

}  // namespace vell::session
