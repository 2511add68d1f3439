// vell: the command-line front end and headless agent.
#include <algorithm>
#include <iostream>
#include <vector>

#include "cli/command.h"
#include "platform/language.h"
#include "platform/log.h"

namespace vell::cli {

namespace {
std::vector<std::pair<int, CommandSetup>>& registry() {
    static std::vector<std::pair<int, CommandSetup>> commands;
    return commands;
}
}  // namespace

bool registerCommand(int order, CommandSetup setup) {
    registry().emplace_back(order, std::move(setup));
    return true;
}

}  // namespace vell::cli

int main(int argc, char** argv) {
    using namespace vell;
    CLI::App app{"Vell records conversations on this computer and hands them to the Vell service."};
    app.set_version_flag("--version", std::string("vell ") + VELL_VERSION + " (" + VELL_BUILD_NUMBER + ")");
    app.require_subcommand(1);

    cli::Context context;
    app.add_flag("-v,--verbose", context.verbosity, "More diagnostic output (repeat for debug lines)");
    std::string lang;
    app.add_option("--lang", lang, "Interface language: en or es (default: from the environment)")
        ->check(CLI::IsMember({"en", "es"}));
    bool logStderr = false;
    app.add_flag("--log-stderr", logStderr, "Write diagnostics to standard error instead of the journal");

    auto& commands = cli::registry();
    std::stable_sort(commands.begin(), commands.end(), [](auto& a, auto& b) { return a.first < b.first; });
    for (auto& [order, setup] : commands) setup(app, context);

    app.parse_complete_callback([&] {
        if (lang == "es") setInterfaceLanguage(Language::Spanish);
        if (lang == "en") setInterfaceLanguage(Language::English);
        log::forceStandardError(logStderr || context.verbosity > 0);
        log::setMinimumLevel(context.verbosity >= 2   ? log::Level::Debug
                             : context.verbosity == 1 ? log::Level::Info
                                                      : log::Level::Error);
    });

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    } catch (const std::exception& e) {
        std::cerr << "vell: " << e.what() << "\n";
        return cli::kExitFailure;
    }
    return context.exitCode;
}
