#pragma once
// The host's calendar and discard automations, made on first use on the main executor with
// the Linux calendar sources, the host's notifications and the service client. The launch
// sequence starts them; the control interface finds them through runningAutomations().
namespace vell::app {

void startDiscardedPurge();
void startCalendarRecorder();

}  // namespace vell::app
