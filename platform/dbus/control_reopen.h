#pragma once
// Opening Vell again while it runs: a second start of the desktop application asks the
// host to bring a window to the front instead of starting another copy. Only a host with
// windows (the tray) installs an opener; `vell daemon` answers false.
#include <functional>
#include <string>

#include "platform/dbus/control_context.h"

namespace vell::dbus {

// Shows the window with that identifier, or the appropriate one for an empty text. Called
// on the main executor.
using WindowOpener = std::function<void(const std::string& window)>;
void setWindowOpener(WindowOpener opener);

void registerReopenControl(ControlContext& context);

}  // namespace vell::dbus
