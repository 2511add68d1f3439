#pragma once
// The microphones the sound server offers: every source except monitors, the default
// source, and change notifications from source and server events.
#include <memory>

#include "audio/microphone_settings.h"

namespace vell::platform {

// Connects lazily and again after the server went away; a server that cannot be reached
// makes devices() throw CoreAudioError.
std::unique_ptr<audio::InputDeviceProvider> makePulseInputDevices();

}  // namespace vell::platform
