#pragma once
// How vell-tray starts: as the host when no other process owns the data folder (the core
// services on the GUI thread, serving the control interface like `vell daemon`), or as a
// front end of the host that runs already. Returns the exit code.
namespace vell::tray {

int runTray(int argc, char** argv);

}  // namespace vell::tray
