#include "platform/dbus/logind_sleep.h"

#include <sdbus-c++/sdbus-c++.h>

#include "platform/dbus/bus_loop.h"

#include "base/log.h"

namespace vell::dbus {

namespace {
const log::Logger kLog("Sleep");
}

std::shared_ptr<LogindSleepEvents> LogindSleepEvents::connect() {
    std::shared_ptr<LogindSleepEvents> made(new LogindSleepEvents());
    try {
        made->connection_ = sdbus::createSystemBusConnection();
        made->proxy_ = sdbus::createProxy(*made->connection_, "org.freedesktop.login1", "/org/freedesktop/login1");
        auto* raw = made.get();
        made->proxy_->uponSignal("PrepareForSleep").onInterface("org.freedesktop.login1.Manager").call([raw](bool start) {
            if (raw->onChange) raw->onChange(start);
        });
        made->proxy_->finishRegistration();
        made->loop_ = std::make_unique<BusLoop>(*made->connection_, "sleep and wake");
    } catch (const sdbus::Error& e) {
        kLog.info(std::string("no system bus; sleep and wake go unnoticed: ") + e.getMessage());
        return nullptr;
    }
    return made;
}

LogindSleepEvents::~LogindSleepEvents() {
    loop_.reset();
    proxy_.reset();
}

}  // namespace vell::dbus
