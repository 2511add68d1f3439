#pragma once
// The recording microphone's part of the control interface (see control_protocol.h):
// whether the running recording fell back to the system default.
#include "platform/dbus/control_context.h"

namespace vell::dbus {

void registerMicrophoneControl(ControlContext& context);

}  // namespace vell::dbus
