#include "automation/running_automations.h"

namespace vell::automation {

RunningAutomations& runningAutomations() {
    static RunningAutomations running;
    return running;
}

}  // namespace vell::automation
