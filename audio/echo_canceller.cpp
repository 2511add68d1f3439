#include "audio/echo_canceller.h"

#include <mutex>

namespace vell::audio {

namespace {
std::mutex gMutex;
EchoCanceller::Factory gFactory;

EchoCanceller::Factory factory() {
    std::lock_guard lock(gMutex);
    return gFactory;
}
}  // namespace

void EchoCanceller::setFactory(Factory factory) {
    std::lock_guard lock(gMutex);
    gFactory = std::move(factory);
}

bool EchoCanceller::installed() { return static_cast<bool>(factory()); }

Expected<std::unique_ptr<EchoCanceller>, std::string> EchoCanceller::create(int sampleRate, int channels) {
    auto make = factory();
    if (!make) return unexpected(std::string("echo canceller: none installed"));
    return make(sampleRate, channels);
}

}  // namespace vell::audio
