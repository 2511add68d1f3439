#include "platform/dbus/control_echo.h"

#include "app/echo_cancel_setting.h"
#include "base/user_defaults.h"

namespace vell::dbus {

void registerEchoControl(ControlContext& context) {
    const char* I = kControlInterface;
    // Thread-safe to read; answered on the bus thread, so a busy main executor does not delay it.
    context.object.registerMethod("EchoCancelStatus").onInterface(I).implementedAs([] {
        return app::echoCancellationStatusJson(UserDefaults::standard());
    });
    context.object.registerMethod("SetEchoCancelEnabled").onInterface(I).implementedAs(
        [&context](sdbus::Result<std::string>&& result, bool enabled) {
            context.onMain(std::move(result), [enabled](auto& r) {
                app::setEchoCancellationEnabled(UserDefaults::standard(), enabled);
                r->returnResults(app::echoCancellationStatusJson(UserDefaults::standard()));
            });
        });
}

}  // namespace vell::dbus
