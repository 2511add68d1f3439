#pragma once
// What one look at the system's audio users yields, and the port that takes that look.
// The scanner reports each process that runs audio input or output; families() groups the
// candidates by identifier into callers: a caller must be using the microphone.
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace vell::automation {

struct CallAudioProcess {
    std::string bundleID;  // as reported, not lowercased
    bool input = false;    // running audio input
    std::optional<bool> output;  // running audio output; absent when it could not be read
    std::string applicationName;  // the name the program gives itself, when it gives one
};

struct CallAudioFamily {
    std::string bundleID;
    bool output = false;
    bool outputKnown = false;
};

struct Caller {
    std::string bundleID;
    std::string displayName;
    bool isRunningOutput = false;
    bool outputKnown = false;
    auto operator<=>(const Caller&) const = default;
};

struct CallerScan {
    std::set<Caller> callers;
    bool allProcessesClassified = true;  // every audio process could be fully read
};

// Groups the kept processes (already filtered by the candidate rule, which is applied again
// here) into callers; families whose processes all have input off are dropped.
CallerScan callersFrom(const std::vector<CallAudioProcess>& processes, bool allProcessesClassified);

// Takes the look off the main executor. `done` may run on any thread, once, with nothing
// when the scan failed as a whole.
class CallScanner {
public:
    virtual ~CallScanner() = default;
    virtual void scan(std::function<void(std::optional<CallerScan>)> done) = 0;
};

}  // namespace vell::automation
