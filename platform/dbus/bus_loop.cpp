#include "platform/dbus/bus_loop.h"

#include <sdbus-c++/sdbus-c++.h>

#include "base/log.h"

namespace vell::dbus {

namespace {
const log::Logger kLog("DBus");
}

BusLoop::BusLoop(sdbus::IConnection& connection, std::string purpose)
    : connection_(connection), thread_([&connection, purpose = std::move(purpose)] {
          try {
              connection.enterEventLoop();
          } catch (const sdbus::Error& e) {
              kLog.error(purpose + ": the bus went away (" + e.getMessage() + "); going on without it");
          }
      }) {}

BusLoop::~BusLoop() {
    try {
        connection_.leaveEventLoop();
    } catch (const sdbus::Error&) {
    }
    thread_.join();
}

}  // namespace vell::dbus
