#pragma once
// The port for acoustic echo cancellation: 10 ms frames of the microphone, cleaned of what
// the far-end reference (the system audio) put into them through the room. The AEC binding
// implements it and the composition root installs its factory at start-up. One canceller
// serves one recording's microphone; it is used by one thread at a time (the mixer's).
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/expected.h"

namespace vell::audio {

class EchoCanceller {
public:
    using Factory =
        std::function<Expected<std::unique_ptr<EchoCanceller>, std::string>(int sampleRate, int channels)>;
    // Set once at start-up, before the first canceller; until then create() fails.
    static void setFactory(Factory factory);
    static bool installed();

    // channels: the microphone planes cleaned per frame (1 or 2); the reference is mono.
    static Expected<std::unique_ptr<EchoCanceller>, std::string> create(int sampleRate, int channels);
    virtual ~EchoCanceller() = default;
    EchoCanceller(const EchoCanceller&) = delete;
    EchoCanceller& operator=(const EchoCanceller&) = delete;

    int sampleRate() const { return sampleRate_; }
    int channels() const { return channels_; }
    std::size_t frameSamples() const { return static_cast<std::size_t>(sampleRate_ / 100); }

    // The reference of the next frame: frameSamples() mono samples of what was played.
    // Call it before process() of the microphone frame recorded at the same moment.
    virtual Expected<Unit, std::string> analyzeReference(const float* frame) = 0;
    // Cleans one microphone frame in place: channels() planes of frameSamples().
    virtual Expected<Unit, std::string> process(float* const* planes) = 0;

    // What the canceller reports about itself, when it knows.
    struct Metrics {
        std::optional<double> erleDb;  // echo return loss enhancement, long-term average
        std::optional<int> delayMs;    // the delay between reference and echo it settled on
    };
    virtual Metrics metrics() const = 0;

protected:
    EchoCanceller(int sampleRate, int channels) : sampleRate_(sampleRate), channels_(channels) {}

private:
    int sampleRate_ = 0;
    int channels_ = 1;
};

}  // namespace vell::audio
