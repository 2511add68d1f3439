#pragma once
// The calendar automation and undoable discards on the control interface (see
// control_protocol.h): the calendar sources, the switch, the report of upcoming meetings,
// the undo of the latest discard and its seconds left.
#include "platform/dbus/control_context.h"

namespace vell::dbus {

void registerCalendarControl(ControlContext& context);

}  // namespace vell::dbus
