#pragma once
// Sample-rate and channel conversion of planar float audio (libswresample underneath).
// One converter serves one input format; create another when the input changes.
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "platform/expected.h"

namespace vell::media {

class Resampler {
public:
    // Mono input into stereo output is copied to both sides at full level; more input
    // channels than output channels are downmixed by the library's standard matrix.
    static Expected<std::unique_ptr<Resampler>, std::string> create(int inRate, int inChannels, int outRate,
                                                                    int outChannels);
    ~Resampler();
    Resampler(const Resampler&) = delete;
    Resampler& operator=(const Resampler&) = delete;

    int inRate() const { return inRate_; }
    int inChannels() const { return inChannels_; }
    int outRate() const { return outRate_; }
    int outChannels() const { return outChannels_; }

    // Upper bound of the frames convert() can return for this many input frames.
    std::size_t maxOutputFrames(std::size_t inFrames) const;

    // Converts one block; `out` is resized to outChannels() planes of the frames produced
    // (a few frames stay inside the filter until the next block or drain()).
    Expected<Unit, std::string> convert(const float* const* in, std::size_t frames,
                                        std::vector<std::vector<float>>& out);
    // Returns what the filter still holds.
    Expected<Unit, std::string> drain(std::vector<std::vector<float>>& out);

private:
    Resampler() = default;
    Expected<Unit, std::string> run(const float* const* in, std::size_t frames, std::vector<std::vector<float>>& out);

    struct Impl;
    std::unique_ptr<Impl> impl_;
    int inRate_ = 0, inChannels_ = 0, outRate_ = 0, outChannels_ = 0;
};

}  // namespace vell::media
