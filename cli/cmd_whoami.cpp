// vell whoami: the signed-in account, or a non-zero exit when signed out.
#include <iostream>
#include <nlohmann/json.hpp>

#include "cli/account_messages.h"
#include "cli/command.h"
#include "cli/help_messages.h"
#include "cli/host_client.h"
#include "service/account_client.h"

namespace vell::cli {

namespace {

bool gJson = false;

void printMe(const service::Me& me) {
    if (gJson) {
        std::cout << nlohmann::json{{"id", me.id}, {"email", me.email}, {"role", me.role}, {"isAdmin", me.isAdmin}}.dump()
                  << std::endl;
        return;
    }
    std::cout << me.email << " (id " << me.id << (me.role.empty() ? "" : ", " + me.role) << (me.isAdmin ? ", admin" : "")
              << ")\n";
}

int whoami() {
    if (auto host = runningHost()) {
        auto json = host->whoAmI();
        if (!json) return reportHostError(json.error());
        auto me = service::AccountClient::decodeMe(nlohmann::json::parse(*json, nullptr, false));
        if (!me) return kExitFailure;
        printMe(*me);
        return kExitOK;
    }
    service::APIClient client;
    service::AccountClient account(client);
    if (!account.hasSession()) {
        std::cerr << "vell: " << messages::kNotSignedIn.str() << "\n";
        return kExitSignedOut;
    }
    auto me = account.fetchMeNow();
    if (!me) {
        if (me.error().isSessionRejection()) {
            account.clearSession();
            std::cerr << "vell: " << me.error().descriptionWithCause() << "\n";
            return kExitSignedOut;
        }
        std::cerr << "vell: " << me.error().descriptionWithCause() << "\n";
        return kExitFailure;
    }
    printMe(*me);
    return kExitOK;
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("whoami", help::kWhoami.str());
    cmd->add_flag("--json", gJson, help::kJson.str());
    cmd->callback([&context] { context.exitCode = whoami(); });
}

}  // namespace

VELL_COMMAND(62, setup);

}  // namespace vell::cli
