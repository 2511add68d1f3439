#pragma once
// The primary microphone engine: a record stream on a sound-server source.
#include <memory>

#include "audio/mic_capture.h"

namespace vell::platform {

// A chosen device stays put (the server may not move the stream); without one the engine
// records the server's default source. Moves, suspensions and failures of the stream are
// checked 0.5 s later on the "app.quillon.mac.mic-control" queue and, unless the engine was
// stopped or restarted meanwhile, reported as a device change.
std::unique_ptr<audio::MicCaptureEngine> makePulseMicEngine();

}  // namespace vell::platform
