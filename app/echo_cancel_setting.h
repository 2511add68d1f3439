#pragma once
// The "Cancel echo" setting: stored in the preferences (on when absent) and applied at once
// to the running recording's mixer. Settings screens and the control interface change it
// here; the composition root applies the stored value when a recording's mixer is made.
#include <string>

#include "base/user_defaults.h"

namespace vell::app {

bool echoCancellationEnabled(const UserDefaults& defaults);
void setEchoCancellationEnabled(UserDefaults& defaults, bool enabled);
// Pushes the stored value to the process's echo cancellation (another process may have changed it).
void applyEchoCancellationSetting(const UserDefaults& defaults);

// What echo cancellation does now (the switch as stored), for scripts and front ends: {"enabled","state" (idle,
// active, bypassed, off),"reason" (headphones, headset, bluetooth, silence, noSystemAudio,
// unavailable; empty unless bypassed),"output":{"device","port","kind"},"erleDb","delayMs"
// (null until measured)}.
std::string echoCancellationStatusJson(const UserDefaults& defaults);

}  // namespace vell::app
