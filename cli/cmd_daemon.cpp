// vell daemon: the headless host. Runs the core services together for as long as the
// session lasts (recording, uploads by themselves, the automations as they are enabled),
// serves the other vell commands over the session bus, and on SIGTERM, SIGINT or a quit
// request stops a recording so that its saved part stays ready for upload.
#include <unistd.h>

#include <iostream>

#include "app/composition.h"
#include "app/host.h"
#include "base/log.h"
#include "base/runtime.h"
#include "cli/command.h"
#include "cli/help_messages.h"
#include "cli/runtime_scope.h"
#include "cli/signal_watcher.h"
#include "platform/dbus/control_server.h"

namespace vell::cli {

namespace {

const log::Logger kLog("Daemon");

int daemon(Context& context) {
    SignalWatcher signals;
    auto scope = RuntimeScope::enter(context);
    if (!scope) return context.exitCode;
    auto& host = app::host();
    auto& main = scope->executor();
    host.onQuitFinished = [&scope] { scope->stop(); };

    // A host that cannot offer its interface still records and uploads; the commands then
    // find the folder taken and say so.
    auto server = dbus::ControlServer::start(host);
    if (!server) kLog.error(server.error());
    // A second signal while quitting only waits for the same end: the file is never cut short.
    signals.watch([&main, &host] { main.post([&host] { host.quit({}); }); });
    host.start();
    scope->run();
    return kExitOK;
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("daemon", help::kDaemon.str());
    cmd->callback([&context] {
        // Run by hand in a terminal, the host shows what it does there, as a foreground
        // server does; under systemd (no terminal) its lines go to the journal.
        if (::isatty(STDERR_FILENO) == 1) {
            log::forceStandardError(true);
            log::echoToStandardError(true);
            if (context.verbosity == 0) log::setMinimumLevel(log::Level::Info);
        }
        context.exitCode = daemon(context);
    });
}

}  // namespace

VELL_COMMAND(10, setup);

}  // namespace vell::cli
