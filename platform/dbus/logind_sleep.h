#pragma once
// The machine's sleep and wake from logind (PrepareForSleep on the system bus). Without a
// system bus or logind no event ever comes.
#include <memory>

#include "platform/dbus/bus_loop.h"
#include "app/sleep_events.h"

namespace sdbus {
class IConnection;
class IProxy;
}  // namespace sdbus

namespace vell::dbus {

class LogindSleepEvents final : public app::SleepEvents {
public:
    // Nothing when there is no system bus (logged).
    static std::shared_ptr<LogindSleepEvents> connect();
    ~LogindSleepEvents() override;

private:
    LogindSleepEvents() = default;
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IProxy> proxy_;
    std::unique_ptr<BusLoop> loop_;
};

}  // namespace vell::dbus
