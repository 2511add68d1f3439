#include "tray/backend.h"

#include <algorithm>

#include "live/live_advisor.h"

namespace vell::tray {

bool TrayState::uploadTrouble() const {
    return std::any_of(pending.begin(), pending.end(), [](const PendingRow& r) { return r.status == "failed"; });
}

LiveState liveStateOf(const live::LiveAdvice& advice) {
    return LiveState{advice.sessionID.value_or(""), advice.tiles, advice.message.value_or(""), advice.closed};
}

}  // namespace vell::tray
