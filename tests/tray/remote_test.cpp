// The tray as a front end of a running `vell daemon` over the control interface (a private
// session bus and sound server): the panel shows the host's state and its buttons act on
// the host; closing the front end leaves the host running; a host that quits is noticed.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <QLabel>
#include <QPushButton>

#include "base/preference_keys.h"
#include "base/user_defaults.h"
#include "platform/dbus/control_client.h"
#include "tests/support/child_process.h"
#include "tests/support/private_bus.h"
#include "tests/support/pulse_server.h"
#include "tests/tray/tray_rig.h"
#include "tray/panel.h"
#include "tray/remote_backend.h"

namespace vell::tray {
namespace {

using test::child;
using test::waitFor;

TEST(RemoteBackendTest, ThePanelDrivesTheRunningDaemon) {
    vell::test::TempHome home;
    vell::test::PrivateBus bus;
    vell::test::PulseServer pulse;
    setInterfaceLanguage(Language::English);
    home.defaults().set(prefs::kAutoRecordCalls, false);
    home.defaults().set(prefs::kOpenAtLoginDefaultApplied, true);
    const auto log = home.root() / "daemon.log";
    pid_t daemon = vell::test::spawnLogged({vell::test::binaryPath("vell").string(), "daemon"}, log);
    struct Reap {
        pid_t& pid;
        ~Reap() { vell::test::endProcess(pid); }
    } reap{daemon};
    std::unique_ptr<dbus::ControlClient> client;
    ASSERT_TRUE(waitFor([&] { return (client = dbus::ControlClient::connect()) != nullptr; }, 10000)) << vell::test::readAll(log);

    auto reopened = client->reopen("");
    ASSERT_TRUE(reopened.has_value());
    EXPECT_FALSE(*reopened) << "the daemon has no window to show";
    RemoteBackend backend(dbus::ControlClient::connect());
    EXPECT_TRUE(backend.remote());
    Shell shell(backend, home.defaults());
    int quits = 0;
    shell.onQuit = [&] { ++quits; };
    auto& panel = shell.panel();
    ASSERT_TRUE(waitFor([&] { return backend.state().phase == SignInPhase::signedOut; }));
    EXPECT_EQ(child<QLabel>(&panel, "accountLabel")->text(), "Not signed in: recordings wait on this computer");

    auto* record = child<QPushButton>(&panel, "recordButton");
    QTest::mouseClick(record, Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return client->status()->recording; }, 10000)) << vell::test::readAll(log);
    ASSERT_TRUE(waitFor([&] { return record->text() == "Stop" && backend.state().elapsed >= 1.0; }, 10000));
    EXPECT_EQ(shell.iconState(), IconState::recording);
    QTest::mouseClick(record, Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return !client->status()->recording; }, 10000));
    ASSERT_TRUE(waitFor([&] {
        auto* status = panel.findChild<QLabel*>("pendingStatus");
        return status && status->text().endsWith("Waiting to upload");
    }, 10000)) << "the host's pending list reaches the panel";

    // Open at login is this user's own entry, changed from the front end too.
    shell.openWindow("settings");
    const bool opens = backend.state().opensAtLogin;
    backend.setOpensAtLogin(!opens);
    EXPECT_EQ(backend.state().opensAtLogin, !opens);
    EXPECT_EQ(std::filesystem::exists(home.configHome() / "autostart" / "vell.desktop"), !opens);

    // Quitting the front end asks nothing and leaves the host running.
    shell.requestQuit();
    EXPECT_EQ(shell.quitAlert(), nullptr);
    EXPECT_EQ(quits, 1);
    EXPECT_TRUE(client->status().has_value());

    // The host goes away: the front end notices.
    bool lost = false;
    QObject::connect(&backend, &RemoteBackend::hostLost, [&] { lost = true; });
    RemoteBackend watching(dbus::ControlClient::connect());
    QObject::connect(&watching, &RemoteBackend::hostLost, [&] { lost = true; });
    ::kill(daemon, SIGTERM);
    waitpid(daemon, nullptr, 0);
    daemon = -1;
    EXPECT_TRUE(waitFor([&] { return lost; }, 5000));
}

}  // namespace
}  // namespace vell::tray
