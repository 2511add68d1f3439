#include "audio/voice_activity_detector.h"

#include <mutex>

namespace vell::media {

namespace {
std::mutex gMutex;
VoiceActivityDetector::Factory gFactory;
}  // namespace

void VoiceActivityDetector::setFactory(Factory factory) {
    std::lock_guard lock(gMutex);
    gFactory = std::move(factory);
}

Expected<std::unique_ptr<VoiceActivityDetector>, std::string> VoiceActivityDetector::create(int sampleRate) {
    Factory factory;
    {
        std::lock_guard lock(gMutex);
        factory = gFactory;
    }
    if (!factory) return unexpected(std::string("voice detector: none installed"));
    return factory(sampleRate);
}

}  // namespace vell::media
