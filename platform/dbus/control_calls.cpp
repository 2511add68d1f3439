#include "platform/dbus/control_calls.h"

#include "automation/automatic_call_recorder.h"
#include "base/language.h"

namespace vell::dbus {

namespace {
inline constexpr Text kNoCallRecorder{"Automatic call recording is not running in this host.",
                                      "La grabación automática de llamadas no está en marcha en este anfitrión."};

automation::AutomaticCallRecorder* calls() { return automation::AutomaticCallRecorder::shared(); }
}  // namespace

void registerCallsControl(ControlContext& context) {
    const char* I = kControlInterface;
    context.object.registerMethod("CallsStatus").onInterface(I).implementedAs([&context](sdbus::Result<std::string>&& result) {
        context.onMain(std::move(result), [](auto& r) {
            if (!calls()) return r->returnError(sdbus::Error(errors::kFailed, kNoCallRecorder.str()));
            r->returnResults(calls()->statusJson());
        });
    });
    context.object.registerMethod("SetCallsEnabled").onInterface(I).implementedAs(
        [&context](sdbus::Result<std::string>&& result, bool enabled) {
            context.onMain(std::move(result), [enabled](auto& r) {
                if (!calls()) return r->returnError(sdbus::Error(errors::kFailed, kNoCallRecorder.str()));
                calls()->setEnabled(enabled);
                r->returnResults(calls()->statusJson());
            });
        });
    // Read on the bus thread (published values may be read from any thread). The call
    // recorder is made by the launch, after this interface is served, so the property is
    // read on demand rather than announced.
    context.object.registerProperty("ActiveCallers").onInterface(I).withGetter([] {
        return calls() ? calls()->activeCallers.get() : std::vector<std::string>{};
    });
}

}  // namespace vell::dbus
