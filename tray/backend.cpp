#include "tray/backend.h"

#include <algorithm>

namespace vell::tray {

bool TrayState::uploadTrouble() const {
    return std::any_of(pending.begin(), pending.end(), [](const PendingRow& r) { return r.status == "failed"; });
}

}  // namespace vell::tray
