#pragma once
// The agent requests the host answered in this run, over the control interface.
#include "platform/dbus/control_context.h"

namespace vell::dbus {
void registerAgentRequestsControl(ControlContext& context);
}
