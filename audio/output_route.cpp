#include "audio/output_route.h"

#include <mutex>

namespace vell::audio {

namespace {
std::mutex gMutex;
OutputRouteWatcher::Factory gFactory;
}  // namespace

const char* outputKindName(OutputKind kind) {
    switch (kind) {
        case OutputKind::speakers: return "speakers";
        case OutputKind::headphones: return "headphones";
        case OutputKind::headset: return "headset";
        case OutputKind::bluetooth: return "bluetooth";
        case OutputKind::unknown: break;
    }
    return "unknown";
}

OutputKind classifyOutput(const OutputDeviceTraits& traits) {
    const auto& port = traits.portType;
    if (port == "headphones") return OutputKind::headphones;
    if (port == "headset") return OutputKind::headset;
    if (port == "speaker") return OutputKind::speakers;
    const auto& form = traits.formFactor;
    // PulseAudio writes "headphone"; some drivers and people write the plural.
    if (form == "headphone" || form == "headphones") return OutputKind::headphones;
    if (form == "headset") return OutputKind::headset;
    if (form == "speaker" || form == "hifi" || form == "car" || form == "tv" || form == "internal") {
        return OutputKind::speakers;
    }
    if (traits.bus == "bluetooth" || port == "bluetooth" || port == "handsfree") return OutputKind::bluetooth;
    return OutputKind::speakers;
}

void OutputRouteWatcher::setFactory(Factory factory) {
    std::lock_guard lock(gMutex);
    gFactory = std::move(factory);
}

std::unique_ptr<OutputRouteWatcher> OutputRouteWatcher::make() {
    Factory factory;
    {
        std::lock_guard lock(gMutex);
        factory = gFactory;
    }
    return factory ? factory() : nullptr;
}

}  // namespace vell::audio
