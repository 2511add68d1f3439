#pragma once
// The port for voice activity of 10 ms mono frames; the VAD binding implements it and the
// composition root installs its factory at start-up.
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "base/expected.h"

namespace vell::media {

class VoiceActivityDetector {
public:
    using Factory = std::function<Expected<std::unique_ptr<VoiceActivityDetector>, std::string>(int sampleRate)>;
    // Set once at start-up, before the first detector; until then create() fails.
    static void setFactory(Factory factory);

    // sampleRate: 16,000 or 48,000 Hz (the rates the detector works at natively).
    static Expected<std::unique_ptr<VoiceActivityDetector>, std::string> create(int sampleRate = 16000);
    virtual ~VoiceActivityDetector() = default;
    VoiceActivityDetector(const VoiceActivityDetector&) = delete;
    VoiceActivityDetector& operator=(const VoiceActivityDetector&) = delete;

    int sampleRate() const { return sampleRate_; }
    std::size_t frameSamples() const { return static_cast<std::size_t>(sampleRate_ / 100); }

    // One frame of frameSamples() samples in -1...1; true when it holds voice.
    virtual Expected<bool, std::string> process(const float* frame) = 0;

protected:
    explicit VoiceActivityDetector(int sampleRate) : sampleRate_(sampleRate) {}

private:
    int sampleRate_ = 16000;
};

}  // namespace vell::media
