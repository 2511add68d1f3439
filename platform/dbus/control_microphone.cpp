#include "platform/dbus/control_microphone.h"

#include "app/core_services.h"
#include "recording/recorder_service.h"

namespace vell::dbus {

void registerMicrophoneControl(ControlContext& context) {
    auto& recorder = context.host.core().recorder();
    // Published values may be read from the bus thread.
    context.object.registerProperty("MicrophoneFellBack").onInterface(kControlInterface).withGetter([&recorder] {
        return recorder.state.microphoneFellBack.get();
    });
    context.watches.push_back(recorder.state.microphoneFellBack.subscribe(
        [&context](bool) { context.announce({"MicrophoneFellBack"}); }));
}

}  // namespace vell::dbus
