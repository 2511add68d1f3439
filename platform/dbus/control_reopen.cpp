// Reopen(s window) -> b: the host brings that window (or, for "", the appropriate one) to
// the front; false when it has no windows.
#include "platform/dbus/control_reopen.h"

namespace vell::dbus {

namespace {
WindowOpener& opener() {
    static WindowOpener installed;
    return installed;
}
}  // namespace

void setWindowOpener(WindowOpener installed) { opener() = std::move(installed); }

void registerReopenControl(ControlContext& context) {
    context.object.registerMethod("Reopen").onInterface(kControlInterface).implementedAs(
        [ctx = &context](sdbus::Result<bool>&& result, std::string window) {
            if (refused(result, arguments::windowName(window))) return;
            ctx->onMain(std::move(result), [window](auto& r) {
                if (!opener()) return r->returnResults(false);
                opener()(window);
                r->returnResults(true);
            });
        });
}

}  // namespace vell::dbus
