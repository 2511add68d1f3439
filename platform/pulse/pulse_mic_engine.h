#pragma once
// The primary microphone engine: a record stream on a sound-server source.
#include <cstdint>
#include <memory>
#include <optional>

#include "audio/mic_capture.h"

namespace vell::platform {

// A chosen device stays put (the server may not move the stream); without one the engine
// records the server's default source. Moves, suspensions and failures of the stream are
// checked 0.5 s later on the "app.quillon.mac.mic-control" queue and, unless the engine was
// stopped or restarted meanwhile, reported as a device change.
//
// A delivery other than the default asks the server for that rate and channel count (it
// converts) and for blocks of that length: a listener that keeps a low-rate mono stream for
// hours wakes five times less often and converts nothing itself.
struct PulseMicDelivery {
    std::optional<uint32_t> rate;  // the source's own when absent
    std::optional<uint8_t> channels;
    double blockSeconds = 0.02;
};
std::unique_ptr<audio::MicCaptureEngine> makePulseMicEngine(PulseMicDelivery delivery = {});

}  // namespace vell::platform
