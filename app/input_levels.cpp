#include "app/input_levels.h"

#include <algorithm>
#include <cmath>

namespace vell::app {

void InputLevels::raise(std::atomic<float>& level, const audio::PcmBuffer& buffer) {
    float peak = 0;
    for (const auto& plane : buffer.channels)
        for (float v : plane) peak = std::max(peak, std::abs(v));
    float seen = level.load();
    while (peak > seen && !level.compare_exchange_weak(seen, peak)) {
    }
}

InputLevels& inputLevels() {
    static InputLevels levels;
    return levels;
}

MeteredMixer::MeteredMixer(std::unique_ptr<audio::RecordingMixer> inner, InputLevels& levels)
    : inner_(std::move(inner)), levels_(levels) {
    inner_->onMixedBuffer = [this](audio::PcmBufferPtr b) {
        if (onMixedBuffer) onMixedBuffer(std::move(b));
    };
    inner_->onSystemBuffer = [this](audio::PcmBufferPtr b) {
        if (onSystemBuffer) onSystemBuffer(std::move(b));
    };
    inner_->onWriteError = [this](const std::string& e) {
        if (onWriteError) onWriteError(e);
    };
}

void MeteredMixer::appendMicrophone(audio::PcmBufferPtr buffer) {
    if (buffer) InputLevels::raise(levels_.microphone, *buffer);
    inner_->appendMicrophone(std::move(buffer));
}

void MeteredMixer::appendSystem(audio::PcmBufferPtr buffer) {
    if (buffer) InputLevels::raise(levels_.system, *buffer);
    inner_->appendSystem(std::move(buffer));
}

}  // namespace vell::app
