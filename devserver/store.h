#pragma once
// Owns the service state and its file "state.json" under the data directory. Every change
// goes through mutate(), which saves the whole state atomically before the caller answers,
// so whatever a client was told survives a crash.
#include <filesystem>
#include <mutex>
#include <string>
#include <system_error>

#include "devserver/state.h"

namespace vell::devserver {

class Store {
public:
    explicit Store(std::filesystem::path dataDir);

    // Reads state.json when present; false with error set when it exists but cannot be read.
    bool load(std::error_code& error);

    const std::filesystem::path& dataDir() const { return dataDir_; }
    std::filesystem::path uploadsDir() const { return dataDir_ / "uploads"; }
    std::filesystem::path recordingsDir() const { return dataDir_ / "recordings"; }
    std::filesystem::path liveDir() const { return dataDir_ / "live"; }

    // Runs f on the state under the lock and returns its result; the state is saved after
    // f returns. A failed save is fatal for the request: it throws std::system_error.
    template <class F>
    auto mutate(F&& f) {
        std::lock_guard lock(mutex_);
        if constexpr (std::is_void_v<decltype(f(state_))>) {
            f(state_);
            saveLocked();
        } else {
            auto result = f(state_);
            saveLocked();
            return result;
        }
    }

    // Runs f on the state under the lock without saving.
    template <class F>
    auto read(F&& f) const {
        std::lock_guard lock(mutex_);
        return f(static_cast<const State&>(state_));
    }

private:
    void saveLocked();

    std::filesystem::path dataDir_;
    mutable std::mutex mutex_;
    State state_;
};

}  // namespace vell::devserver
