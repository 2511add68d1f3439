#pragma once
// The machine going to sleep and waking up (logind on Linux). The implementation calls
// the handler on its own thread; the host hops to the main executor. Without such a
// service no event ever comes and nothing else changes.
#include <functional>

namespace vell::app {

class SleepEvents {
public:
    virtual ~SleepEvents() = default;
    // true: about to sleep; false: woke up.
    std::function<void(bool willSleep)> onChange;
};

}  // namespace vell::app
