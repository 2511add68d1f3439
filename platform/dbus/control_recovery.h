#pragma once
// Recovering speech from the insurance buffer over the control interface.
#include "platform/dbus/control_context.h"

namespace vell::dbus {
void registerRecoveryControl(ControlContext& context);
}
