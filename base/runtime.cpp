#include "base/runtime.h"

#include <stdexcept>

namespace vell::runtime {

namespace {
Executor* gMain = nullptr;
const Clock* gClock = nullptr;
SystemClock gSystemClock;
}  // namespace

Executor& main() {
    if (!gMain) throw std::logic_error("vell runtime: no main executor installed");
    return *gMain;
}

const Clock& clock() { return gClock ? *gClock : gSystemClock; }

void install(Executor* mainExecutor, const Clock* c) {
    gMain = mainExecutor;
    gClock = c;
}

bool onMain() { return gMain && gMain->isCurrentThread(); }

void runOnMain(Task task) {
    if (onMain()) {
        task();
    } else {
        main().post(std::move(task));
    }
}

}  // namespace vell::runtime
