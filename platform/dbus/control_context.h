#pragma once
// What a feature's part of the control interface works with: the one exported object (to
// register its methods, properties and signals on the control interface before the object
// is published), the host, a way to answer a call from the main executor, and a way to
// announce changed properties. Each feature keeps its part in control_<feature>.cpp and is
// listed once in control_server.cpp.
#include <memory>
#include <sdbus-c++/sdbus-c++.h>
#include <string>
#include <vector>

#include "app/host.h"
#include "base/published.h"
#include "base/runtime.h"
#include "platform/dbus/control_arguments.h"
#include "platform/dbus/control_protocol.h"

namespace vell::dbus {

class ControlContext {
public:
    ControlContext(sdbus::IObject& object, app::Host& host) : object(object), host(host) {}

    sdbus::IObject& object;
    app::Host& host;
    // Subscriptions to the host's state, kept while the interface is served.
    std::vector<Subscription> watches;

    // Runs work(result) on the main executor, where every service lives; a call that
    // arrives while the host goes away is answered with an error.
    template <class... Results, class Work>
    void onMain(sdbus::Result<Results...>&& result, Work work) {
        auto shared = std::make_shared<sdbus::Result<Results...>>(std::move(result));
        std::weak_ptr<int> weak = alive_;
        runtime::main().post([weak, shared, work = std::move(work)] {
            if (weak.expired()) return shared->returnError(sdbus::Error(errors::kFailed, "Vell is quitting."));
            work(shared);
        });
    }

    // PropertiesChanged for these properties of the control interface (any thread).
    void announce(const std::vector<std::string>& names);
    // Ends every later onMain call with an error (the server is going away).
    void close() { alive_.reset(); }

private:
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

// Answers the call with InvalidArgument when the argument was refused; whether it was.
template <class... Results, class T>
bool refused(sdbus::Result<Results...>& result, const arguments::Checked<T>& checked) {
    if (checked) return false;
    result.returnError(sdbus::Error(errors::kInvalidArgument, checked.error()));
    return true;
}

// A feature's part: registers on context.object and subscribes in context.watches.
using ControlExtension = void (*)(ControlContext& context);

}  // namespace vell::dbus
