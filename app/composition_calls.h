#pragma once
// The automatic call recorder of this process, put together from the sound server's
// call detection, the recorder service and the host's notifications.
namespace vell::automation {
class AutomaticCallRecorder;
}

namespace vell::app {

class Host;

// The launch step: makes the recorder (once), routes the answers to its notifications,
// follows sleep and wake, and starts monitoring when the switch is on. Main executor.
void startCallRecorder(Host& host);

}  // namespace vell::app
