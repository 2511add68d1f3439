#pragma once
// One block of audio as it travels between capture, mixer, detectors and writers:
// 32-bit float samples, one vector per channel (non-interleaved).
#include <cstddef>
#include <memory>
#include <vector>

namespace vell::audio {

struct PcmBuffer {
    double sampleRate = 0;
    std::vector<std::vector<float>> channels;
    // Capture time in seconds of monotonic uptime (0 when unknown).
    double hostTime = 0;

    std::size_t frames() const { return channels.empty() ? 0 : channels.front().size(); }
    int channelCount() const { return static_cast<int>(channels.size()); }

    static std::shared_ptr<PcmBuffer> make(double rate, int channelCount, std::size_t frames) {
        auto b = std::make_shared<PcmBuffer>();
        b->sampleRate = rate;
        b->channels.assign(static_cast<std::size_t>(channelCount), std::vector<float>(frames, 0.0f));
        return b;
    }
};

// Buffers are shared read-only once delivered, so one block can feed several consumers.
using PcmBufferPtr = std::shared_ptr<const PcmBuffer>;

}  // namespace vell::audio
