#include "tray/startup.h"

#include <unistd.h>

#include <QApplication>
#include <QMessageBox>
#include <QTimer>
#include <chrono>
#include <iostream>
#include <optional>
#include <string_view>
#include <thread>

#include "app/composition.h"
#include "app/host.h"
#include "base/application_id.h"
#include "base/instance_lock.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/runtime.h"
#include "base/user_defaults.h"
#include "cli/signal_watcher.h"
#include "platform/dbus/control_client.h"
#include "platform/dbus/control_reopen.h"
#include "platform/dbus/control_server.h"
#include "tray/front_end_claim.h"
#include "tray/language_choice.h"
#include "tray/local_backend.h"
#include "tray/qt_executor.h"
#include "tray/remote_backend.h"
#include "tray/shell.h"
#include "tray/tray_messages.h"
#include "tray/ui_text.h"

namespace vell::tray {

namespace {

const log::Logger kLog("Tray");

// A host that is starting holds the folder before it offers its interface: wait for it a
// little rather than refuse.
std::unique_ptr<dbus::ControlClient> waitForHost(std::chrono::seconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (auto client = dbus::ControlClient::connect()) return client;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    return nullptr;
}

// `--open ID` (repeatable): windows to show at start ("main", "login", "settings",
// "recover", "onboarding", or "panel").
QStringList windowsToOpen() {
    QStringList ids;
    const QStringList args = QCoreApplication::arguments();
    for (int i = 1; i + 1 < args.size(); ++i)
        if (args[i] == "--open") ids << args[++i];
    return ids;
}

void openRequested(Shell& shell) {
    for (const auto& id : windowsToOpen()) {
        if (id == "panel") shell.togglePanel();
        else shell.openWindow(id);
    }
}

int refuse(const std::string& sentence) {
    kLog.error(sentence);
    QMessageBox::critical(nullptr, q(messages::kCannotStart), QString::fromStdString(sentence));
    return 1;
}

int runFrontEnd(std::unique_ptr<dbus::ControlClient> client, cli::SignalWatcher& watcher, char** argv) {
    // Started again while the tray runs: it shows its window, and this copy is not needed.
    const auto wanted = windowsToOpen();
    if (auto shown = client->reopen(wanted.isEmpty() ? std::string() : wanted.first().toStdString()); shown && *shown) {
        kLog.info("Vell runs already; its window was brought to the front");
        return 0;
    }
    // One icon per session: a front end that runs already shows its window instead.
    Shell* shown = nullptr;
    bool handedOver = false;
    auto claim = FrontEndClaim::claim(
        wanted, [&shown](const QString& window) {
            if (shown) shown->reopen(window);
        },
        &handedOver);
    if (handedOver) {
        kLog.info("Vell's icon is in this session already; its window was brought to the front");
        return 0;
    }
    kLog.info("another Vell hosts the recordings; this tray is its front end");
    RemoteBackend backend(std::move(client));
    Shell shell(backend, UserDefaults::standard());
    shown = &shell;
    watcher.watch([] { QMetaObject::invokeMethod(qApp, [] { QCoreApplication::quit(); }, Qt::QueuedConnection); });
    // When that host quits, this tray starts over: as the host, or as the front end of
    // whichever host came up meanwhile.
    QObject::connect(&backend, &RemoteBackend::hostLost, [argv] {
        kLog.info("the host went away; starting over");
        ::execv("/proc/self/exe", argv);
    });
    shell.start();
    openRequested(shell);
    return QApplication::exec();
}

int runHost(cli::SignalWatcher& watcher) {
    // Both live as long as the process: services and their threads may still post while it ends.
    auto* executor = new QtExecutor();
    static SystemClock clock;
    runtime::install(executor, &clock);
    app::installComposition();
    auto& host = app::host();
    auto parts = processParts();
    // The control interface takes the input peaks on its own tick once it runs.
    parts.levelsTakenElsewhere = true;
    LocalBackend backend(std::move(parts));
    Shell shell(backend, UserDefaults::standard());
    host.onQuitFinished = [] { QCoreApplication::quit(); };
    host.showMenuBarTip = [&shell] { shell.offerMenuBarTip(); };
    // A signal quits like the daemon: a recording stops and stays ready for upload.
    watcher.watch([executor, &host] { executor->post([&host] { host.quit({}); }); });
    shell.start();
    openRequested(shell);
    dbus::setWindowOpener([&shell](const std::string& window) { shell.reopen(QString::fromStdString(window)); });
    // The icon first; the interface and the launch on the loop's first turn.
    std::unique_ptr<dbus::ControlServer> server;
    QTimer::singleShot(0, [&host, &server, &backend] {
        auto started = dbus::ControlServer::start(host);
        if (started) {
            server = std::move(*started);
        } else {
            // Without the interface the tray still records and uploads; it reads the
            // levels itself.
            kLog.error(started.error());
            backend.setLevelsTakenElsewhere(false);
        }
        host.start();
    });
    const int code = QApplication::exec();
    dbus::setWindowOpener({});
    server.reset();
    return code;
}

std::optional<int> answeredFromArguments(int argc, char** argv) {
    // Before anything else: asking for the help or the version starts nothing, writes
    // nothing and needs no display.
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--") break;
        if (arg == "-h" || arg == "--help" || arg == "-help") {
            namespace m = messages;
            std::cout << m::kUsage.str() << "\n\n" << m::kAbout.str() << "\n\n" << m::kOptionsHeading.str() << "\n"
                      << m::kOpenOption.str() << "\n" << m::kHelpOption.str() << "\n" << m::kVersionOption.str() << "\n\n"
                      << m::kQtOptions.str() << "\n";
            return 0;
        }
        if (arg == "--version" || arg == "-v") {
            std::cout << "vell-tray " << VELL_VERSION << " (" << VELL_BUILD_NUMBER << ")\n";
            return 0;
        }
    }
    return std::nullopt;
}

}  // namespace

int runTray(int argc, char** argv) {
    if (auto answered = answeredFromArguments(argc, argv)) return *answered;
    cli::SignalWatcher watcher;  // first: every thread inherits its mask
    QApplication application(argc, argv);
    QApplication::setApplicationName("Vell");
    QApplication::setDesktopFileName(kApplicationID);
    QApplication::setQuitOnLastWindowClosed(false);
    applyStoredLanguage(UserDefaults::standard());
    app::installPlatformBindings();

    if (auto client = dbus::ControlClient::connect()) return runFrontEnd(std::move(client), watcher, argv);
    auto lock = InstanceLock::acquire(paths::vellDataDirectory());
    if (!lock) {
        if (!lock.error().busy) return refuse(lock.error().sentence);
        if (auto client = waitForHost(std::chrono::seconds(5))) return runFrontEnd(std::move(client), watcher, argv);
        return refuse(lock.error().sentence);
    }
    return runHost(watcher);
}

}  // namespace vell::tray
