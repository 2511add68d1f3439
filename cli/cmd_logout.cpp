// vell logout: ends the session at the service and forgets it on this computer.
#include <iostream>

#include "cli/account_messages.h"
#include "cli/command.h"
#include "cli/help_messages.h"
#include "service/account_client.h"

namespace vell::cli {

namespace {

int logout() {
    service::APIClient client;
    service::AccountClient account(client);
    if (account.hasSession()) {
        auto ended = account.logoutNow();
        // A session the service already dropped is just as ended.
        if (!ended && !ended.error().isSessionRejection()) {
            std::cerr << messages::kLogoutNotReached.str() << " (" << ended.error().description() << ")\n";
        }
    }
    account.clearSession();
    std::cout << messages::kSignedOut.str() << "\n";
    return kExitOK;
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("logout", help::kLogout.str());
    cmd->callback([&context] { context.exitCode = logout(); });
}

}  // namespace

VELL_COMMAND(61, setup);

}  // namespace vell::cli
