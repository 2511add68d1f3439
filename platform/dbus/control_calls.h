#pragma once
// The automatic call recorder's part of the control interface (see control_protocol.h):
// its status, the "Record calls automatically" switch and the callers seen now.
#include "platform/dbus/control_context.h"

namespace vell::dbus {

void registerCallsControl(ControlContext& context);

}  // namespace vell::dbus
