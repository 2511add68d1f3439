#pragma once
// Remembers since when the system-audio stream has carried only digital silence.
#include <mutex>
#include <optional>

#include "base/clock.h"

namespace vell::audio {

class DigitalSilenceTracker {
public:
    // A silent block starts a run (keeping the first time); any other block ends it.
    void update(bool silent, WallTime at);
    std::optional<WallTime> silentSince() const;
    void reset();

private:
    mutable std::mutex lock_;
    std::optional<WallTime> silentSince_;
};

}  // namespace vell::audio
