#pragma once
// Echo cancellation's part of the control interface (see control_protocol.h): its status
// and the "Cancel echo" switch.
#include "platform/dbus/control_context.h"

namespace vell::dbus {

void registerEchoControl(ControlContext& context);

}  // namespace vell::dbus
