#pragma once
// Voice activity of 10 ms mono frames, from the WebRTC audio-processing voice detector.
#include <cstddef>
#include <memory>
#include <string>

#include "platform/expected.h"

namespace vell::media {

class VoiceActivityDetector {
public:
    // sampleRate: 16,000 or 48,000 Hz (the rates the detector works at natively).
    static Expected<std::unique_ptr<VoiceActivityDetector>, std::string> create(int sampleRate = 16000);
    ~VoiceActivityDetector();
    VoiceActivityDetector(const VoiceActivityDetector&) = delete;
    VoiceActivityDetector& operator=(const VoiceActivityDetector&) = delete;

    int sampleRate() const { return sampleRate_; }
    std::size_t frameSamples() const { return static_cast<std::size_t>(sampleRate_ / 100); }

    // One frame of frameSamples() samples in -1...1; true when it holds voice.
    Expected<bool, std::string> process(const float* frame);

private:
    VoiceActivityDetector() = default;
    struct Impl;
    std::unique_ptr<Impl> impl_;
    int sampleRate_ = 16000;
};

}  // namespace vell::media
