#pragma once
// The live advice and the recording results over the control interface.
#include "platform/dbus/control_context.h"

namespace vell::dbus {
void registerResultsControl(ControlContext& context);
}
