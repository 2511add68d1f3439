#pragma once
// Small secret blobs of the signed-in session (the cookie snapshot) kept across restarts:
// in the Secret Service when a collection answers, otherwise in a private file. A blob left
// in the file is moved into the Secret Service as soon as it becomes usable. Nothing here
// throws; failures are logged under the category "Keychain".
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "base/expected.h"

namespace vell::secret {
class Store;
}

namespace vell::session {

// The step of writing the session file that failed, with the system error number.
struct Failure {
    std::string operation;  // "open", "fstat", "fchmod", "read", "write" or "unlink"
    int32_t code = 0;
    std::string description() const;
};

enum class StorageKind { secretService, file };
const char* label(StorageKind kind);  // "secret service", "file"

class SessionFileStore {
public:
    // Whether the blob reached the Secret Service or the file (a failure is also logged).
    static bool write(const std::string& key, std::string_view bytes);
    static std::optional<std::string> read(const std::string& key);
    static void remove(const std::string& key);

    // Decided on first use and then fixed for the run.
    static StorageKind kind();
    // <data>/Vell/session-<key>.bin
    static std::filesystem::path filePath(const std::string& key);
    // Writes the blob refusing symbolic links and non-regular files, leaving mode 0600.
    static Expected<Unit, Failure> writeFile(const std::filesystem::path& path, std::string_view bytes);
    // Reads the blob without ever blocking, refusing symbolic links and non-regular files
    // (a FIFO); a file open to others is narrowed to 0600 first (and the log says so).
    static Expected<std::string, Failure> readFile(const std::filesystem::path& path);

    // Tests: forget the decided kind and use this store next (nullptr: the system's).
    static void resetForTesting(secret::Store* store);
};

}  // namespace vell::session
