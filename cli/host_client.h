#pragma once
// The running host, when there is one: commands that find the data folder owned by a host
// (`vell daemon`, the tray, a `vell record`) do their work through its control interface,
// with the same output and exit codes as in-process.
#include <iostream>
#include <memory>

#include "cli/command.h"
#include "platform/dbus/control_client.h"

namespace vell::cli {

inline std::unique_ptr<dbus::ControlClient> runningHost() { return dbus::ControlClient::connect(); }

// Prints the host's sentence; the exit code a signed-out answer or any other failure has.
inline int reportHostError(const dbus::ControlError& error) {
    std::cerr << "vell: " << error.message << "\n";
    return error.signedOut() ? kExitSignedOut : kExitFailure;
}

}  // namespace vell::cli
