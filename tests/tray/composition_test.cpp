// vell-tray's own composition (the process's host, its launch, the live advisor and the
// recording results it makes) under the tray's widgets, against the reference service on a
// private bus and sound server: a recording said into the fake microphone shows its live
// advice while it runs, and once the service processed it the main window lists it and
// shows its transcript; Share puts the link on the clipboard. The composition lives as
// long as the process, so the test runs in a process of its own.
#include <gtest/gtest.h>

#include <QClipboard>
#include <QGuiApplication>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QTabWidget>
#include <QTextBrowser>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>

#include "app/composition.h"
#include "app/host.h"
#include "base/runtime.h"
#include "base/user_defaults.h"
#include "results/recording_result.h"
#include "tests/support/child_process.h"
#include "tests/support/private_bus.h"
#include "tests/support/pulse_server.h"
#include "tests/support/speech_sample.h"
#include "tests/tray/tray_rig.h"
#include "tray/cue_treemap.h"
#include "tray/live_view.h"
#include "tray/main_window.h"
#include "tray/results_view.h"

namespace vell::tray {
namespace {

namespace fs = std::filesystem;
using test::child;
using test::waitFor;

constexpr const char* kAlone = "VELL_TRAY_COMPOSITION_ALONE";

QListWidgetItem* processedRow(QListWidget* list) {
    for (int i = 0; i < list->count(); ++i)
        if (list->item(i)->text().endsWith("Processed.")) return list->item(i);
    return nullptr;
}

TEST(TrayCompositionTest, AProcessedRecordingsResultsShowInTheMainWindow) {
    VELL_REQUIRE_DEVSERVER();
    if (!qEnvironmentVariableIsSet(kAlone)) {
        const auto self = fs::read_symlink("/proc/self/exe").string();
        auto run = vell::test::runCommand(std::string(kAlone) + "=1 " + self +
                                          " --gtest_filter=TrayCompositionTest.AProcessedRecordingsResultsShowInTheMainWindow 2>&1");
        EXPECT_EQ(run.status, 0) << run.output.substr(run.output.size() > 20000 ? run.output.size() - 20000 : 0);
        return;
    }

    vell::test::TempHome home;
    vell::test::PrivateBus bus;
    vell::test::PulseServer pulse;
    vell::test::DevServer server{{.users = {"ana@example.com:pw-ana"}}};
    ::setenv("VELL_LIVE_SEGMENT_SECONDS", "2", 1);
    pid_t drainer = vell::test::spawnLogged({"parec", "--device=fakemic", "--raw", "/dev/null"}, home.tmp() / "drainer.out");
    struct Reap {
        pid_t& pid;
        ~Reap() { vell::test::endProcess(pid); }
    } reap{drainer};
    const auto words = vell::test::speech(home.tmp(), "The budget for the launch is ten thousand dollars. What is the launch date?");
    ASSERT_GT(words.size(), 16000u * 3) << "espeak-ng and sox are needed";
    setInterfaceLanguage(Language::English);

    // What vell-tray does as the host (tray/startup.cpp), without the control interface.
    auto* executor = new QtExecutor();
    static SystemClock clock;
    runtime::install(executor, &clock);
    app::installComposition();
    auto& host = app::host();
    LocalBackend backend(processParts());
    Shell shell(backend, UserDefaults::standard());
    host.start();
    auto* window = dynamic_cast<MainWindow*>(shell.openWindow("main"));
    ASSERT_NE(window, nullptr);

    std::optional<Expected<bool, std::string>> signedIn;
    backend.signIn("ana@example.com", "pw-ana", [&](Expected<bool, std::string> step) { signedIn = step; });
    ASSERT_TRUE(waitFor([&] { return backend.state().phase == SignInPhase::signedIn; }, 15000))
        << (signedIn && !*signedIn ? signedIn->error() : "no answer");

    // The results are there from the launch on, before anything was uploaded.
    window->showPage("results");
    auto* status = child<QLabel>(&window->results(), "resultsStatus");
    EXPECT_TRUE(waitFor([&] {
        return status->text() == "No recordings on the service yet. Once one is uploaded, what came of it shows here.";
    }, 10000)) << status->text().toStdString();

    // Recording: the live page comes forward and the service's advice arrives on it.
    pulse.writeMic(words);
    backend.startRecording();
    ASSERT_TRUE(waitFor([&] { return backend.state().recording; }, 10000)) << backend.state().lastError;
    auto* tabs = child<QTabWidget>(window, "mainTabs");
    EXPECT_EQ(tabs->currentWidget(), &window->live());
    ASSERT_TRUE(waitFor([&] { return !backend.state().live.sessionID.empty(); }, 5000));
    QTest::qWait(7000);
    backend.stopRecording(false);
    ASSERT_TRUE(waitFor([&] { return !backend.state().recording; }, 10000));
    EXPECT_TRUE(waitFor([&] { return !child<CueTreemap>(&window->live(), "cueTreemap")->tiles().empty(); }, 20000))
        << "no live advice reached the treemap: " << backend.state().live.message;

    // The upload, then the service's processing: the results page lists it as processed.
    ASSERT_TRUE(waitFor([&] {
        const auto& pending = backend.state().pending;
        return !pending.empty() && pending.back().status == "uploaded";
    }, 30000)) << (backend.state().pending.empty() ? "nothing pending" : backend.state().pending.back().lastError);
    window->showPage("results");
    auto& results = window->results();
    auto* list = child<QListWidget>(&results, "resultsList");
    ASSERT_TRUE(waitFor([&] { return processedRow(list) != nullptr; }, 40000))
        << child<QLabel>(&results, "resultsStatus")->text().toStdString();
    list->setCurrentItem(processedRow(list));
    auto* transcript = child<QTextBrowser>(&results, "transcriptText");
    ASSERT_TRUE(waitFor([&] { return results.shownID().has_value(); }, 15000))
        << child<QLabel>(&results, "detailStatus")->text().toStdString();
    const std::string shown = transcript->toPlainText().toStdString();
    // Exactly what the service said, kept on this computer: a line per utterance with its
    // time and speaker.
    std::ifstream keptFile(home.dataHome() / "Vell" / "Results" / (*results.shownID() + ".json"));
    const auto kept = results::decodeResult(nlohmann::json::parse(keptFile, nullptr, false));
    ASSERT_TRUE(kept.has_value());
    std::string expected;
    for (const auto& line : kept->transcript) {
        if (!expected.empty()) expected += "\n";
        expected += "[" + results::conversationClock(line.startMs) + "] " + kept->speakerName(line.speaker) + ": " + line.text;
    }
    if (kept->transcript.empty()) {
        std::cout << "[ NOTE ] the service's recogniser heard nothing; the words are not checked\n";
        EXPECT_EQ(shown, "Nothing was recognised, so there is no transcript.");
    } else {
        EXPECT_EQ(shown, expected);
        // Some of the words said into the microphone (the small offline model mishears many).
        int heard = 0;
        for (const char* word : {"budget", "launch", "ten", "thousand", "dollar", "what", "date"})
            heard += shown.find(word) != std::string::npos;
        EXPECT_GE(heard, 1) << shown;
    }
    EXPECT_FALSE(child<QTextBrowser>(&results, "summaryText")->toPlainText().isEmpty());

    QTest::mouseClick(child<QPushButton>(&results, "shareButton"), Qt::LeftButton);
    auto* action = child<QLabel>(&results, "actionStatus");
    ASSERT_TRUE(waitFor([&] { return action->text().startsWith("Link copied: "); }, 15000)) << action->text().toStdString();
    EXPECT_EQ(QGuiApplication::clipboard()->text().toStdString(), server.url() + "s/" +
                                                                       action->text().toStdString().substr(
                                                                           action->text().toStdString().rfind('/') + 1));
    EXPECT_EQ("Link copied: " + QGuiApplication::clipboard()->text().toStdString(), action->text().toStdString());

    bool quitDone = false;
    host.quit([&] { quitDone = true; });
    EXPECT_TRUE(waitFor([&] { return quitDone; }, 15000));
    ::unsetenv("VELL_LIVE_SEGMENT_SECONDS");
}

}  // namespace
}  // namespace vell::tray
