#pragma once
// One process at a time owns the data directories (recordings, insurance buffer, pending
// list): a second one would fight over the same files.
#include <filesystem>
#include <memory>
#include <string>

#include "base/expected.h"

namespace vell {

class InstanceLock {
public:
    // Why the lock was not taken, as a sentence in the interface language.
    struct Refusal {
        bool busy = false;  // another process holds it; otherwise the folder cannot be used
        std::string sentence;
        const std::string& message() const { return sentence; }
    };

    // Takes the lock file in <dataDirectory>; fails at once (never waits) when another
    // process holds it, or when the folder cannot be created or written. Once taken, whatever
    // in the folder is open to others is narrowed to the owner.
    static Expected<std::shared_ptr<InstanceLock>, Refusal> acquire(const std::filesystem::path& dataDirectory);
    ~InstanceLock();
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;

private:
    explicit InstanceLock(int fd) : fd_(fd) {}
    int fd_;
};

}  // namespace vell
