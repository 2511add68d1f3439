#include "audio/digital_silence_tracker.h"

#include "audio/ports.h"

namespace vell::audio {

void DigitalSilenceTracker::update(bool silent, WallTime at) {
    std::lock_guard guard(lock_);
    if (!silent) {
        silentSince_.reset();
    } else if (!silentSince_) {
        silentSince_ = at;
    }
}

std::optional<WallTime> DigitalSilenceTracker::silentSince() const {
    std::lock_guard guard(lock_);
    return silentSince_;
}

void DigitalSilenceTracker::reset() {
    std::lock_guard guard(lock_);
    silentSince_.reset();
}

bool isDigitalSilence(const PcmBuffer& buffer) {
    for (const auto& channel : buffer.channels) {
        for (float sample : channel) {
            if (sample != 0.0f) return false;
        }
    }
    return true;
}

}  // namespace vell::audio
