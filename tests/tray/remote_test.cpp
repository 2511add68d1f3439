// The tray as a front end of a running `vell daemon` over the control interface (a private
// session bus and sound server): the panel shows the host's state and its buttons act on
// the host; closing the front end leaves the host running; a host that quits is noticed.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <QClipboard>
#include <QDialog>
#include <QGuiApplication>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QTextBrowser>
#include <nlohmann/json.hpp>

#include "base/preference_keys.h"
#include "base/user_defaults.h"
#include "platform/dbus/control_client.h"
#include "tests/support/child_process.h"
#include "tests/support/private_bus.h"
#include "tests/support/pulse_server.h"
#include "tests/support/speech_sample.h"
#include "tests/tray/tray_rig.h"
#include "tray/main_window.h"
#include "tray/panel.h"
#include "tray/remote_backend.h"
#include "tray/results_view.h"

namespace vell::tray {
namespace {

using test::child;
using test::waitFor;

// A `vell daemon` on a private session bus and sound server, in a home of its own, and a
// client of its control interface; the daemon ends with the test.
struct DaemonHost {
    vell::test::TempHome home;
    vell::test::PrivateBus bus;
    vell::test::PulseServer pulse;
    std::filesystem::path log = home.root() / "daemon.log";
    pid_t daemon = -1;
    std::unique_ptr<dbus::ControlClient> client;

    DaemonHost() {
        setInterfaceLanguage(Language::English);
        home.defaults().set(prefs::kAutoRecordCalls, false);
        home.defaults().set(prefs::kOpenAtLoginDefaultApplied, true);
        daemon = vell::test::spawnLogged({vell::test::binaryPath("vell").string(), "daemon"}, log);
        waitFor([&] { return (client = dbus::ControlClient::connect()) != nullptr; }, 10000);
    }
    ~DaemonHost() { vell::test::endProcess(daemon); }
};

TEST(RemoteBackendTest, ThePanelDrivesTheRunningDaemon) {
    DaemonHost host;
    ASSERT_NE(host.client, nullptr) << vell::test::readAll(host.log);
    auto& home = host.home;
    auto& client = host.client;
    auto& daemon = host.daemon;
    const auto& log = host.log;

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

// Quitting a front end while its host records asks: close only this front end (the
// recording goes on) or stop the recording and the host, which keeps what was recorded.
TEST(RemoteBackendTest, QuittingAFrontEndWhileTheHostRecordsAsksWhatToQuit) {
    DaemonHost host;
    ASSERT_NE(host.client, nullptr) << vell::test::readAll(host.log);
    auto& home = host.home;
    auto& client = host.client;
    auto& daemon = host.daemon;
    const auto& log = host.log;
    ASSERT_TRUE(client->startRecording().has_value());
    ASSERT_TRUE(waitFor([&] { return client->status()->recording; }, 10000)) << vell::test::readAll(log);

    for (const std::string choice : {"cancelQuit", "closeFrontEnd", "stopAndQuit"}) {
        RemoteBackend front(dbus::ControlClient::connect());
        Shell shell(front, home.defaults());
        int quits = 0;
        shell.onQuit = [&] { ++quits; };
        ASSERT_TRUE(waitFor([&] { return front.state().recording; }, 10000)) << choice;
        shell.requestQuit();
        QMessageBox* alert = shell.quitAlert();
        ASSERT_NE(alert, nullptr) << choice;
        EXPECT_EQ(alert->text(), "Vell is recording in the background.");
        alert->findChild<QAbstractButton*>(QString::fromStdString(choice))->click();
        if (choice == "cancelQuit") {
            QTest::qWait(200);
            EXPECT_EQ(quits, 0);
            continue;
        }
        ASSERT_TRUE(waitFor([&] { return quits == 1; }, 10000)) << choice;
        if (choice == "closeFrontEnd") {
            EXPECT_TRUE(client->status()->recording) << "the host records on";
        }
    }
    // The host stopped its recording without discarding it, and quit.
    ASSERT_TRUE(waitFor([&] { return ::waitpid(daemon, nullptr, WNOHANG) == daemon; }, 10000)) << vell::test::readAll(log);
    daemon = -1;
    const auto manifest = vell::test::readAll(home.dataHome() / "Vell" / "Recordings" / "manifest.json");
    EXPECT_NE(manifest.find("\"ready\""), std::string::npos) << manifest;
}

// The live advice and the results of the daemon's recordings reach the front end's main
// window: the advice while it records, then the processed recording, its speakers renamed
// and its link on this front end's clipboard.
TEST(RemoteBackendTest, TheDaemonsLiveAdviceAndResultsShowInTheMainWindow) {
    VELL_REQUIRE_DEVSERVER();
    vell::test::TempHome home;
    vell::test::PrivateBus bus;
    vell::test::PulseServer pulse;
    vell::test::DevServer server{{.users = {"ana@example.com:pw-ana"}}};
    setInterfaceLanguage(Language::English);
    home.defaults().set(prefs::kAutoRecordCalls, false);
    home.defaults().set(prefs::kOpenAtLoginDefaultApplied, true);
    const auto words = vell::test::speech(home.tmp(), "The budget for the launch is ten thousand dollars. What is the launch date?");
    ASSERT_GT(words.size(), 16000u * 3) << "espeak-ng and sox are needed";
    ::setenv("VELL_LIVE_SEGMENT_SECONDS", "2", 1);
    const auto log = home.root() / "daemon.log";
    pid_t drainer = vell::test::spawnLogged({"parec", "--device=fakemic", "--raw", "/dev/null"}, home.tmp() / "drainer.out");
    pid_t daemon = vell::test::spawnLogged({vell::test::binaryPath("vell").string(), "--lang", "en", "daemon"}, log);
    ::unsetenv("VELL_LIVE_SEGMENT_SECONDS");
    struct Reap {
        pid_t& daemon;
        pid_t& drainer;
        ~Reap() {
            vell::test::endProcess(daemon);
            vell::test::endProcess(drainer);
        }
    } reap{daemon, drainer};
    std::unique_ptr<dbus::ControlClient> client;
    ASSERT_TRUE(waitFor([&] { return (client = dbus::ControlClient::connect()) != nullptr; }, 10000)) << vell::test::readAll(log);
    RemoteBackend backend(dbus::ControlClient::connect());
    std::optional<Expected<bool, std::string>> step;
    backend.signIn("ana@example.com", "pw-ana", [&](Expected<bool, std::string> s) { step = s; });
    ASSERT_TRUE(waitFor([&] { return backend.state().phase == SignInPhase::signedIn; }, 10000)) << vell::test::readAll(log);
    MainWindow window(backend);
    window.show();
    auto& results = window.results();

    pulse.writeMic(words);
    backend.startRecording();
    ASSERT_TRUE(waitFor([&] { return backend.state().recording; }, 10000)) << vell::test::readAll(log);
    EXPECT_TRUE(waitFor([&] { return !backend.state().live.sessionID.empty(); }, 5000));
    QTest::qWait(7000);
    backend.stopRecording(false);
    ASSERT_TRUE(waitFor([&] { return !backend.state().recording; }, 10000));
    EXPECT_TRUE(waitFor([&] { return !backend.state().live.tiles.empty(); }, 20000))
        << "no live advice reached the front end: " << backend.state().live.message;

    window.showPage("results");
    auto* list = child<QListWidget>(&results, "resultsList");
    ASSERT_TRUE(waitFor([&] { return list->count() == 1 && list->item(0)->text().endsWith("Processed."); }, 60000))
        << child<QLabel>(&results, "resultsStatus")->text().toStdString() << vell::test::readAll(log);
    list->setCurrentRow(0);
    ASSERT_TRUE(waitFor([&] { return results.shownID().has_value(); }, 10000))
        << child<QLabel>(&results, "detailStatus")->text().toStdString();

    // Speaker 1 (this microphone) gets a name: the host renames it on the service.
    QTest::mouseClick(child<QPushButton>(&results, "renameSpeakersButton"), Qt::LeftButton);
    ASSERT_NE(results.speakersDialog(), nullptr);
    QTest::keyClicks(child<QLineEdit>(results.speakersDialog(), "speakerName1"), "Ana");
    QTest::mouseClick(child<QPushButton>(results.speakersDialog(), "saveSpeakers"), Qt::LeftButton);
    auto* action = child<QLabel>(&results, "actionStatus");
    ASSERT_TRUE(waitFor([&] { return action->text() == "Speakers renamed."; }, 10000)) << action->text().toStdString();
    const auto transcript = child<QTextBrowser>(&results, "transcriptText")->toPlainText().toStdString();
    if (transcript != "Nothing was recognised, so there is no transcript.") {
        EXPECT_NE(transcript.find("] Ana: "), std::string::npos) << transcript;
    }
    const auto answer = client->recordingDetail(*results.shownID());
    ASSERT_TRUE(answer.has_value()) << answer.error().message;
    auto detail = nlohmann::json::parse(*answer, nullptr, false);
    EXPECT_EQ(detail["speakers"][0]["name"], "Ana") << detail.dump();

    QTest::mouseClick(child<QPushButton>(&results, "shareButton"), Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return action->text().startsWith("Link copied: " + QString::fromStdString(server.url()) + "s/"); }, 10000))
        << action->text().toStdString();
    EXPECT_EQ("Link copied: " + QGuiApplication::clipboard()->text(), action->text());
}

}  // namespace
}  // namespace vell::tray
