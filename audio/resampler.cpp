#include "audio/resampler.h"

#include <mutex>

namespace vell::media {

namespace {
std::mutex gMutex;
Resampler::Factory gFactory;
}  // namespace

void Resampler::setFactory(Factory factory) {
    std::lock_guard lock(gMutex);
    gFactory = std::move(factory);
}

Expected<std::unique_ptr<Resampler>, std::string> Resampler::create(int inRate, int inChannels, int outRate,
                                                                    int outChannels) {
    Factory factory;
    {
        std::lock_guard lock(gMutex);
        factory = gFactory;
    }
    if (!factory) return unexpected(std::string("no resampler installed"));
    return factory(inRate, inChannels, outRate, outChannels);
}

}  // namespace vell::media
