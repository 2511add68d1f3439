// The tray icon, its panel, the undo panel and quitting, driven through their widgets over
// a real host (fake audio parts, no network).
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QSystemTrayIcon>

#include "app/input_levels.h"
#include "tests/tray/tray_rig.h"
#include "tray/panel.h"
#include "tray/still_backend.h"
#include "tray/undo_panel.h"

namespace vell::tray {
namespace {

using test::child;
using test::waitFor;
using Status = recording::PendingRecording::Status;

QString textOf(QObject* parent, const char* name) {
    if (auto* label = parent->findChild<QLabel*>(name)) return label->text();
    if (auto* button = parent->findChild<QAbstractButton*>(name)) return button->text();
    ADD_FAILURE() << "no " << name;
    return {};
}

Status statusOf(test::TrayRig& rig, size_t index = 0) {
    auto list = rig.core->recorder().pending();
    return index < list.size() ? list[index].status : Status::discarded;
}

TEST(PanelTest, RecordsAndStopsWithTimeLevelsAndTheRecordingWaitingForUpload) {
    test::TrayRig rig;
    rig.start();
    auto& panel = rig.shell->panel();
    panel.popUpAt(QPoint(200, 0));
    auto* record = child<QPushButton>(&panel, "recordButton");
    EXPECT_EQ(record->text(), "Record");
    EXPECT_EQ(rig.shell->iconState(), IconState::idle);
    EXPECT_EQ(textOf(&panel, "nothingPending"), "Nothing waiting to upload.");

    QTest::mouseClick(record, Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return rig.recording(); }));
    ASSERT_TRUE(waitFor([&] { return record->text() == "Stop"; }));
    EXPECT_EQ(textOf(&panel, "statusLabel"), "Recording");
    EXPECT_EQ(rig.shell->iconState(), IconState::recording);
    ASSERT_TRUE(waitFor([&] { return textOf(&panel, "elapsedLabel") == "0:01"; }));
    EXPECT_EQ(rig.shell->icon().toolTip(), "Vell: recording 0:01");
    // The microphone's peak reaches its meter.
    app::inputLevels().microphone.store(0.5f);
    EXPECT_TRUE(waitFor([&] { return child<QProgressBar>(&panel, "microphoneLevel")->value() == 50; }));
    EXPECT_TRUE(textOf(&panel, "pendingStatus").endsWith("Recording"));

    QTest::mouseClick(record, Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return !rig.recording(); }));
    EXPECT_EQ(statusOf(rig), Status::ready) << "a stop from the panel keeps the recording";
    ASSERT_TRUE(waitFor([&] { return textOf(&panel, "pendingStatus").endsWith("Waiting to upload"); }));
    EXPECT_EQ(textOf(&panel, "retryButton"), "Upload now");
    EXPECT_EQ(rig.shell->iconState(), IconState::idle);

    rig.speak(Language::Spanish);
    EXPECT_EQ(record->text(), "Grabar");
    EXPECT_TRUE(textOf(&panel, "pendingStatus").endsWith("Esperando para subir"));
    EXPECT_EQ(textOf(&panel, "accountLabel"), "Sin sesión: las grabaciones esperan en esta computadora");
    EXPECT_EQ(textOf(&panel, "recoverButton"), "Recuperar voz…");
}

TEST(PanelTest, ShowsTheMicrophoneInUseAndADisconnectedChoice) {
    test::TrayRig rig;
    rig.start();
    auto& panel = rig.shell->panel();
    EXPECT_EQ(textOf(&panel, "microphoneLabel"), "Microphone: Built-in Audio");
    rig.microphones->setRecordingSelection(audio::MicrophoneSelection::device("alsa_input.usb-Headset"));
    ASSERT_TRUE(waitFor([&] { return textOf(&panel, "microphoneLabel") == "Microphone: USB Headset"; }));
    rig.microphones->setRecordingSelection(audio::MicrophoneSelection::device("usb-unplugged"));
    ASSERT_TRUE(waitFor([&] {
        return textOf(&panel, "microphoneLabel") == "Microphone: Disconnected microphone → Built-in Audio";
    }));
    rig.speak(Language::Spanish);
    EXPECT_EQ(textOf(&panel, "microphoneLabel"), "Micrófono: Micrófono desconectado → Built-in Audio");
}

TEST(PanelTest, AFailedUploadShowsItsErrorARetryAndTheTroubleIcon) {
    test::TrayRig rig;
    rig.start();
    recording::PendingRecording failed;
    failed.id = "rec-1";
    failed.fileURL = rig.home.dataHome() / "rec" / "vell_rec_rec-1.aac";
    failed.startedAt = rig.clock.now();
    failed.finishedAt = rig.clock.now();
    failed.status = Status::failed;
    failed.lastError = "The service could not be reached.";
    failed.attempts = 2;
    rig.core->recorder().add(failed);
    auto& panel = rig.shell->panel();
    ASSERT_TRUE(waitFor([&] { return panel.findChild<QLabel*>("pendingError") != nullptr; }));
    EXPECT_EQ(textOf(&panel, "pendingError"), "The service could not be reached. · attempts: 2");
    EXPECT_EQ(textOf(&panel, "retryButton"), "Retry");
    EXPECT_EQ(rig.shell->iconState(), IconState::uploadTrouble);
    EXPECT_EQ(rig.shell->icon().toolTip(), "Vell: a recording could not be uploaded");
}

TEST(PanelTest, ADiscardCanBeUndoneFromItsPanelAndTheMenu) {
    test::TrayRig rig;
    rig.startDiscards();
    rig.start();
    rig.backend->startRecording();
    ASSERT_TRUE(waitFor([&] { return rig.recording(); }));
    rig.backend->stopRecording(true);
    auto& undo = rig.shell->undoPanel();
    ASSERT_TRUE(waitFor([&] { return undo.isVisible(); })) << "a discard shows the undo panel";
    EXPECT_EQ(statusOf(rig), Status::discarded);
    EXPECT_EQ(textOf(&undo, "headline"), "Nothing from this recording was kept.");
    EXPECT_EQ(child<QAbstractButton>(&undo, "closeButton")->toolTip(), "Close (Undo stays at the Vell icon in the panel)");
    // Closing it leaves Undo in the menu and the panel.
    QTest::mouseClick(child<QAbstractButton>(&undo, "closeButton"), Qt::LeftButton);
    EXPECT_FALSE(undo.isVisible());
    EXPECT_TRUE(rig.shell->menu().findChild<QAction*>("undoAction")->isVisible());
    auto* panelUndo = child<QPushButton>(&rig.shell->panel(), "undoButton");
    EXPECT_FALSE(panelUndo->isHidden());
    EXPECT_TRUE(panelUndo->text().startsWith("Undo ("));

    QTest::mouseClick(panelUndo, Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return statusOf(rig) == Status::ready; })) << "undo restores the recording";
    ASSERT_TRUE(waitFor([&] { return panelUndo->isHidden(); }));
    EXPECT_FALSE(rig.shell->menu().findChild<QAction*>("undoAction")->isVisible());
}

TEST(PanelTest, QuittingWhileRecordingAsksAndKeepsOrStopsTheRecording) {
    test::TrayRig rig;
    rig.start();
    rig.backend->startRecording();
    ASSERT_TRUE(waitFor([&] { return rig.recording(); }));
    rig.backend->rebuild();

    rig.shell->requestQuit();
    auto* alert = rig.shell->quitAlert();
    ASSERT_NE(alert, nullptr);
    EXPECT_EQ(alert->text(), "The recording will stop. Quit Vell?");
    EXPECT_EQ(alert->informativeText(),
              "The saved part will remain on this computer and upload when Vell can connect.");
    EXPECT_EQ(textOf(alert, "stopAndQuit"), "Stop and quit");
    EXPECT_EQ(textOf(alert, "keepRecording"), "Keep recording");
    EXPECT_EQ(alert->buttons().first()->objectName(), "stopAndQuit") << "the first button stops and quits";
    QTest::mouseClick(child<QPushButton>(alert, "keepRecording"), Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return rig.shell->quitAlert() == nullptr; }));
    QTest::qWait(100);
    EXPECT_TRUE(rig.recording()) << "Keep recording cancels the quit";
    EXPECT_EQ(rig.quits, 0);

    rig.speak(Language::Spanish);
    rig.shell->requestQuit();
    alert = rig.shell->quitAlert();
    ASSERT_NE(alert, nullptr);
    EXPECT_EQ(alert->text(), "La grabación se detendrá. ¿Salir de Vell?");
    EXPECT_EQ(textOf(alert, "stopAndQuit"), "Detener y salir");
    EXPECT_EQ(textOf(alert, "keepRecording"), "Seguir grabando");
    QTest::mouseClick(child<QPushButton>(alert, "stopAndQuit"), Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return rig.quits == 1; }));
    EXPECT_FALSE(rig.recording());
    EXPECT_EQ(statusOf(rig), Status::ready) << "Stop and quit keeps the saved part for upload";
}

TEST(PanelTest, QuittingWithoutARecordingAsksNothing) {
    test::TrayRig rig;
    rig.start();
    rig.shell->requestQuit();
    EXPECT_EQ(rig.shell->quitAlert(), nullptr);
    EXPECT_TRUE(waitFor([&] { return rig.quits == 1; }));
}

TEST(PanelTest, InsuranceModeAsksForThePrivacyExplanationBeforeSwitchingOn) {
    test::TrayRig rig;
    rig.start();
    auto& panel = rig.shell->panel();
    panel.popUpAt(QPoint(200, 0));
    auto* insurance = child<QCheckBox>(&panel, "insuranceSwitch");
    EXPECT_FALSE(child<QPushButton>(&panel, "recoverButton")->isEnabled());
    QTest::mouseClick(insurance, Qt::LeftButton);
    EXPECT_FALSE(insurance->isChecked());
    auto* onboarding = rig.shell->window("onboarding");
    ASSERT_NE(onboarding, nullptr);
    EXPECT_TRUE(onboarding->isVisible());
    EXPECT_TRUE(child<QLabel>(onboarding, "privacy")->isVisible()) << "it opens at the privacy explanation";
}

// Audio an outside agent got stays listed after insurance mode is switched off.
TEST(PanelTest, TheInsuranceSectionListsWhatWasSentToTheAssistant) {
    setInterfaceLanguage(Language::English);
    StillBackend backend;
    Panel panel(backend);
    EXPECT_TRUE(panel.findChild<QLabel*>("insuranceLabel")->isHidden());
    insurance::AgentAnswer sent{{"req_1", 1'800'000'160'000, 1'800'000'230'000}, "uploaded", "rec_1", std::nullopt, true,
                                WallTime{std::chrono::seconds(1'800'000'310)},
                                insurance::SentAudio{WallTime{std::chrono::seconds(1'800'000'120)},
                                                     WallTime{std::chrono::seconds(1'800'000'240)}, 120}};
    backend.state_.agentRequests = {sent};
    emit backend.changed();
    EXPECT_FALSE(panel.findChild<QLabel*>("insuranceLabel")->isHidden());
    EXPECT_EQ(textOf(&panel, "insuranceLabel").toStdString(), insurance::answerLine(sent, Language::English));
}

TEST(PanelTest, TheTrayMenuOffersTheShortList) {
    test::TrayRig rig;
    rig.start();
    QStringList shown;
    for (auto* action : rig.shell->menu().actions())
        if (action->isVisible() && !action->isSeparator()) shown << action->text();
    EXPECT_EQ(shown, (QStringList{"Open Vell", "Record", "Settings…", "Quit Vell"}));
    rig.shell->menu().findChild<QAction*>("recordAction")->trigger();
    ASSERT_TRUE(waitFor([&] { return rig.recording(); }));
    rig.shell->menu().findChild<QAction*>("openAction")->trigger();
    ASSERT_NE(rig.shell->window("main"), nullptr);
    EXPECT_TRUE(rig.shell->window("main")->isVisible());
}

}  // namespace
}  // namespace vell::tray
