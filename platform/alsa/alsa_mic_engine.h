#pragma once
// The fallback microphone engine: ALSA capture, used when the sound server refuses the
// device or is absent. A chosen source is opened on its ALSA device (the source's
// "device.string") when the server can tell it, and refused otherwise; only a capture of
// the system default opens ALSA's "default".
#include <memory>

#include "audio/mic_capture.h"

namespace vell::platform {

std::unique_ptr<audio::MicCaptureEngine> makeAlsaMicEngine();

}  // namespace vell::platform
