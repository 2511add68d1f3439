#include "automation/call_scan.h"

#include <map>

#include "automation/call_applications.h"

namespace vell::automation {

CallerScan callersFrom(const std::vector<CallAudioProcess>& processes, bool allProcessesClassified) {
    struct Family {
        bool anyInput = false, anyOutput = false, anyUnknown = false;
        std::string name;
    };
    std::map<std::string, Family> families;
    for (const auto& p : processes) {
        if (!isCallCandidate(p.bundleID)) continue;
        auto& f = families[p.bundleID];
        f.anyInput = f.anyInput || p.input;
        f.anyOutput = f.anyOutput || p.output.value_or(false);
        f.anyUnknown = f.anyUnknown || !p.output.has_value();
        if (f.name.empty()) f.name = p.applicationName;
    }
    CallerScan scan;
    scan.allProcessesClassified = allProcessesClassified;
    for (const auto& [id, f] : families) {
        if (!f.anyInput) continue;
        CallAudioFamily family{id, f.anyOutput || f.anyUnknown, f.anyOutput || !f.anyUnknown};
        scan.callers.insert(Caller{family.bundleID, callerDisplayName(family.bundleID, f.name), family.output,
                                   family.outputKnown});
    }
    return scan;
}

}  // namespace vell::automation
