#pragma once
// Insurance mode's part of the control interface (see control_protocol.h).
#include "platform/dbus/control_context.h"

namespace vell::dbus {

void registerInsuranceControl(ControlContext& context);

}  // namespace vell::dbus
