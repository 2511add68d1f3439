#include "cli/runtime_scope.h"

#include <iostream>

#include "app/composition.h"
#include "base/paths.h"
#include "base/runtime.h"

namespace vell::cli {

std::unique_ptr<RuntimeScope> RuntimeScope::enter(Context& context, Options options) {
    std::unique_ptr<RuntimeScope> scope(new RuntimeScope());
    if (options.ownsDataDirectories) {
        auto lock = InstanceLock::acquire(paths::vellDataDirectory());
        if (!lock) {
            std::cerr << "vell: " << lock.error().sentence << "\n";
            context.exitCode = lock.error().busy ? kExitBusy : kExitFailure;
            return nullptr;
        }
        scope->lock_ = *lock;
    }
    runtime::install(&scope->executor_, &scope->clock_);
    app::installComposition();
    return scope;
}

RuntimeScope::~RuntimeScope() { runtime::install(nullptr, nullptr); }

}  // namespace vell::cli
