#pragma once
// The session layer's secret Store on the desktop's Secret Service (GNOME Keyring,
// KWallet) through libsecret.
#include "session/secret_store.h"

namespace vell::secret {

// The process-wide libsecret-backed store.
Store& libsecretStore();

// Whether anything answers for the Secret Service on the session bus: a name owner, or a
// service the bus would start. The store asks this first, over sd-bus, so that a desktop
// without a keyring never sets up GLib's D-Bus machinery (its thread and some 2 MiB) only
// to hear no. True when the bus cannot be asked: libsecret then finds out itself.
bool secretServiceOnBus();

}  // namespace vell::secret
