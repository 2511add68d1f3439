#pragma once
// The audio layer's Resampler on libswresample.
#include <memory>
#include <string>

#include "audio/resampler.h"

namespace vell::media {

// Fails on a format the library cannot take (a rate or channel count of zero or less).
Expected<std::unique_ptr<Resampler>, std::string> openSwrResampler(int inRate, int inChannels, int outRate,
                                                                   int outChannels);

}  // namespace vell::media
