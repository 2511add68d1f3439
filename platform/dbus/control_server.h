#pragma once
// Serves the control interface (control_protocol.h) of a host on the session bus. Calls
// arrive on the bus connection's thread and are answered from the main executor, where
// every service lives; property changes of the host are published as they happen.
#include <memory>
#include <string>

#include "app/host.h"
#include "base/expected.h"

namespace vell::dbus {

class ControlServer {
public:
    // Owns the well-known name on the session bus; an error sentence when there is no
    // session bus or another process already owns the name.
    static Expected<std::unique_ptr<ControlServer>, std::string> start(app::Host& host);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

private:
    struct Impl;
    explicit ControlServer(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace vell::dbus
