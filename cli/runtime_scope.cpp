#include "cli/runtime_scope.h"

#include <iostream>

#include "app/composition.h"
#include "base/files.h"
#include "base/log.h"
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
        // Older versions created recordings readable by everyone on this computer, in folders
        // open to others; once the folder is private there is nothing left to walk.
        std::error_code ec;
        const auto open = std::filesystem::status(paths::vellDataDirectory(), ec).permissions() &
                          (std::filesystem::perms::group_all | std::filesystem::perms::others_all);
        if (int narrowed = !ec && open != std::filesystem::perms::none ? files::narrowToOwner(paths::vellDataDirectory()) : 0;
            narrowed > 0) {
            log::Logger("App").info("made " + std::to_string(narrowed) + " files and folders private to their owner");
        }
    }
    runtime::install(&scope->executor_, &scope->clock_);
    app::installComposition();
    return scope;
}

RuntimeScope::~RuntimeScope() { runtime::install(nullptr, nullptr); }

}  // namespace vell::cli
