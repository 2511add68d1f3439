#pragma once
// The session layer's secret Store on the desktop's Secret Service (GNOME Keyring,
// KWallet) through libsecret.
#include "session/secret_store.h"

namespace vell::secret {

// The process-wide libsecret-backed store.
Store& libsecretStore();

}  // namespace vell::secret
