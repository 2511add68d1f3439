#pragma once
// Process-wide runtime: the main executor and the clock. Programs install them at start-up
// (the CLI an AsioExecutor, the tray the Qt event loop, tests a ManualExecutor).
#include "base/clock.h"
#include "base/executor.h"

namespace vell::runtime {

Executor& main();
const Clock& clock();
// Not thread-safe: call before any service is created.
void install(Executor* mainExecutor, const Clock* clock);
bool onMain();

// Runs task on the main executor: inline when already there, posted otherwise.
void runOnMain(Task task);

}  // namespace vell::runtime
