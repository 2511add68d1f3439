#pragma once
// The port for sample-rate and channel conversion of planar float audio; the codec binding
// implements it and the composition root installs its factory at start-up. One converter
// serves one input format; create another when the input changes.
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/expected.h"

namespace vell::media {

class Resampler {
public:
    using Factory = std::function<Expected<std::unique_ptr<Resampler>, std::string>(int inRate, int inChannels,
                                                                                    int outRate, int outChannels)>;
    // Set once at start-up, before the first converter; until then create() fails.
    static void setFactory(Factory factory);

    // Mono input into stereo output is copied to both sides at full level; more input
    // channels than output channels are downmixed by the library's standard matrix.
    static Expected<std::unique_ptr<Resampler>, std::string> create(int inRate, int inChannels, int outRate,
                                                                    int outChannels);
    virtual ~Resampler() = default;
    Resampler(const Resampler&) = delete;
    Resampler& operator=(const Resampler&) = delete;

    int inRate() const { return inRate_; }
    int inChannels() const { return inChannels_; }
    int outRate() const { return outRate_; }
    int outChannels() const { return outChannels_; }

    // Upper bound of the frames convert() can return for this many input frames.
    virtual std::size_t maxOutputFrames(std::size_t inFrames) const = 0;

    // Converts one block; `out` is resized to outChannels() planes of the frames produced
    // (a few frames stay inside the filter until the next block or drain()).
    virtual Expected<Unit, std::string> convert(const float* const* in, std::size_t frames,
                                                std::vector<std::vector<float>>& out) = 0;
    // Returns what the filter still holds.
    virtual Expected<Unit, std::string> drain(std::vector<std::vector<float>>& out) = 0;

protected:
    Resampler(int inRate, int inChannels, int outRate, int outChannels)
        : inRate_(inRate), inChannels_(inChannels), outRate_(outRate), outChannels_(outChannels) {}

private:
    int inRate_ = 0, inChannels_ = 0, outRate_ = 0, outChannels_ = 0;
};

}  // namespace vell::media
