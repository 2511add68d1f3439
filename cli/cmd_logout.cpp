// vell logout: ends the session at the service and forgets it on this computer.
#include <iostream>

#include "cli/account_messages.h"
#include "cli/command.h"
#include "cli/help_messages.h"
#include "cli/host_client.h"
#include "app/composition.h"
#include "app/core_services.h"
#include "cli/runtime_scope.h"

namespace vell::cli {

namespace {

int logout(Context& context) {
    if (auto host = runningHost()) {
        auto done = host->signOut();
        if (!done) return reportHostError(done.error());
        std::cout << messages::kSignedOut.str() << "\n";
        return kExitOK;
    }
    auto scope = RuntimeScope::enter(context, {.ownsDataDirectories = false});
    if (!scope) return context.exitCode;
    auto& core = app::core();
    auto& account = core.account();
    if (account.hasSession()) {
        auto ended = account.logoutNow();
        // A session the service already dropped is just as ended.
        if (!ended && !ended.error().isSessionRejection()) {
            std::cerr << "vell: " << messages::kLogoutNotReached.str() << " (" << ended.error().description() << ")\n";
        }
    }
    core.appState().localSignOut();
    std::cout << messages::kSignedOut.str() << "\n";
    return kExitOK;
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("logout", help::kLogout.str());
    cmd->callback([&context] { context.exitCode = logout(context); });
}

}  // namespace

VELL_COMMAND(61, setup);

}  // namespace vell::cli
