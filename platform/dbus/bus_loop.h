#pragma once
// Runs one bus connection's event loop on a thread of its own. A bus that goes away (the
// session ends, the bus daemon is restarted) ends the loop with a log line instead of
// taking the process down: a host that loses its bus keeps recording.
#include <string>
#include <thread>

namespace sdbus {
class IConnection;
}

namespace vell::dbus {

class BusLoop {
public:
    BusLoop(sdbus::IConnection& connection, std::string purpose);
    // Leaves the loop and waits for its thread.
    ~BusLoop();
    BusLoop(const BusLoop&) = delete;
    BusLoop& operator=(const BusLoop&) = delete;

private:
    sdbus::IConnection& connection_;
    std::thread thread_;
};

}  // namespace vell::dbus
