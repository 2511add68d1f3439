// The windows, driven through their widgets: sign-in against the reference service (with
// its two-step code or a backup code), settings, onboarding, the main window and the
// speech recovery panel.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QTableWidget>

#include "base/preference_keys.h"
#include "devserver/totp.h"
#include "tests/tray/tray_rig.h"
#include "tray/panel.h"
#include "tray/recover_window.h"
#include "tray/still_backend.h"
#include "tray/tray_messages.h"

namespace vell::tray {
namespace {

using test::child;
using test::waitFor;

constexpr const char* kSecret = "JBSWY3DPEHPK3PXP";

QString labelText(QObject* parent, const char* name) { return child<QLabel>(parent, name)->text(); }

vell::test::DevServer::Options twoStepAccount() {
    vell::test::DevServer::Options o;
    o.users = {std::string("ana@example.com:right-pw:") + kSecret};
    o.extraArgs = {"--backup-codes", "ana@example.com:ABCD-EFGH"};
    return o;
}

// Types into the sign-in form and presses its button.
void submit(QWidget* login, const QString& email, const QString& password) {
    auto* e = child<QLineEdit>(login, "email");
    auto* p = child<QLineEdit>(login, "password");
    e->clear();
    p->clear();
    QTest::keyClicks(e, email);
    QTest::keyClicks(p, password);
    QTest::mouseClick(child<QPushButton>(login, "signInButton"), Qt::LeftButton);
}

TEST(LoginWindowTest, SignsInWithTheBackupCodeAfterAWrongPassword) {
    VELL_REQUIRE_DEVSERVER();
    vell::test::DevServer server(twoStepAccount());
    test::TrayRig rig(server.url());
    rig.start();
    ASSERT_TRUE(waitFor([&] { return rig.backend->state().phase == SignInPhase::signedOut; }));
    auto* login = rig.shell->openWindow("login");
    EXPECT_EQ(login->objectName(), "login");
    EXPECT_EQ(login->windowTitle(), "Sign in to Vell");

    submit(login, "ana@example.com", "wrong-pw");
    ASSERT_TRUE(waitFor([&] { return !labelText(login, "errorLabel").isEmpty(); }, 15000));
    EXPECT_EQ(rig.backend->state().phase, SignInPhase::signedOut);

    submit(login, "ana@example.com", "right-pw");
    ASSERT_TRUE(waitFor([&] { return labelText(login, "codeIntro") == "Enter the 6-digit code from your authenticator app." &&
                                     child<QLineEdit>(login, "code")->isVisible(); }, 15000));
    EXPECT_TRUE(labelText(login, "errorLabel").isEmpty());
    QTest::mouseClick(child<QPushButton>(login, "backupToggle"), Qt::LeftButton);
    EXPECT_EQ(labelText(login, "codeIntro"), "Enter one of your backup codes. Each one works once.");
    QTest::keyClicks(child<QLineEdit>(login, "code"), "ABCD-EFGH");
    QTest::keyClick(child<QLineEdit>(login, "code"), Qt::Key_Return);
    ASSERT_TRUE(waitFor([&] { return rig.backend->state().phase == SignInPhase::signedIn; }, 15000));
    EXPECT_TRUE(waitFor([&] { return !login->isVisible(); }));
    EXPECT_EQ(rig.backend->state().email, "ana@example.com");
    EXPECT_EQ(labelText(&rig.shell->panel(), "accountLabel"), "Signed in as ana@example.com");
}

TEST(LoginWindowTest, SignsInWithTheAuthenticatorCodeInSpanish) {
    VELL_REQUIRE_DEVSERVER();
    vell::test::DevServer server(twoStepAccount());
    test::TrayRig rig(server.url());
    rig.start();
    rig.speak(Language::Spanish);
    auto* login = rig.shell->openWindow("login");
    EXPECT_EQ(login->windowTitle(), "Iniciar sesión en Vell");
    EXPECT_EQ(child<QPushButton>(login, "signInButton")->text(), "Iniciar sesión");
    submit(login, "ana@example.com", "right-pw");
    ASSERT_TRUE(waitFor([&] { return rig.backend->state().phase == SignInPhase::mfaRequired; }, 15000));
    ASSERT_TRUE(waitFor([&] { return child<QLineEdit>(login, "code")->isVisible(); }));
    EXPECT_EQ(labelText(login, "codeIntro"), "Ingresá el código de 6 dígitos de tu app de autenticación.");
    const auto key = devserver::totp::decodeBase32(kSecret);
    ASSERT_TRUE(key);
    QTest::keyClicks(child<QLineEdit>(login, "code"), QString::fromStdString(devserver::totp::codeAt(*key, std::time(nullptr))));
    QTest::mouseClick(child<QPushButton>(login, "verifyButton"), Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return rig.backend->state().phase == SignInPhase::signedIn; }, 15000));
    EXPECT_EQ(labelText(&rig.shell->panel(), "accountLabel"), "Sesión iniciada como ana@example.com");
}

TEST(SettingsWindowTest, EveryPreferenceReachesTheHostAndItsStore) {
    test::TrayRig rig;
    rig.start();
    auto* settings = rig.shell->openWindow("settings");
    EXPECT_EQ(settings->windowTitle(), "Vell Settings");
    EXPECT_EQ(child<QCheckBox>(settings, "recordCalendar")->text(), "Record calendar meetings");
    EXPECT_EQ(labelText(settings, "calendarNote"),
              "Starts recording when a meeting in your calendar begins: a timed event you haven't declined, with other "
              "people or a video link. Delete it from the Vell icon in the panel if it started at the wrong moment; Undo stays "
              "available for 5 minutes. Any recording stops after 10 minutes without speech, and a meeting recording "
              "nobody spoke in is removed.");
    EXPECT_EQ(child<QCheckBox>(settings, "recordCalls")->text(), "Record calls automatically");

    // Open at login shows what the desktop reports.
    auto* login = child<QCheckBox>(settings, "openAtLogin");
    EXPECT_TRUE(login->isChecked()) << "the launch applied the open-at-login default";
    EXPECT_EQ(labelText(settings, "loginStatus"), "Vell opens when you log in.");
    test::toggle(login);
    EXPECT_EQ(rig.loginItem->unregisters, 1);
    ASSERT_TRUE(waitFor([&] { return labelText(settings, "loginStatus") == "Vell does not open by itself."; }));
    rig.loginItem->current = app::LoginItemStatus::notFound;
    test::toggle(login);  // registers, and the entry is then found missing
    rig.loginItem->current = app::LoginItemStatus::notFound;
    ASSERT_TRUE(waitFor([&] {
        return labelText(settings, "loginStatus") == "The start-up entry points to a program that is gone; switch it off and on.";
    }));
    EXPECT_FALSE(login->isChecked()) << "the switch shows the desktop's state, not the wish";

    // Switches the host keeps.
    test::toggle(child<QCheckBox>(settings, "recordCalls"));
    EXPECT_EQ(rig.home.defaults().boolValue(prefs::kAutoRecordCalls), false);
    test::toggle(child<QCheckBox>(settings, "recordCalendar"));
    EXPECT_EQ(rig.home.defaults().boolValue(prefs::kAutoRecordCalendar), true);
    test::toggle(child<QCheckBox>(settings, "taskSwitcher"));
    EXPECT_EQ(rig.home.defaults().boolValue(prefs::kShowsDockIcon), false);

    // Microphones: the list with the system default's name, and the choice stored.
    auto* mic = child<QComboBox>(settings, "recordingMicrophone");
    QStringList items;
    for (int i = 0; i < mic->count(); ++i) items << mic->itemText(i);
    EXPECT_EQ(items, (QStringList{"System default (Built-in Audio)", "Built-in microphone", "USB Headset", "Built-in Audio"}));
    mic->setCurrentIndex(2);
    emit mic->activated(2);
    EXPECT_EQ(rig.microphones->recordingSelection.get(), audio::MicrophoneSelection::device("alsa_input.usb-Headset"));
    EXPECT_EQ(rig.home.defaults().stringValue(prefs::kMicrophoneRecording), "uid:alsa_input.usb-Headset");
    auto* insuranceMic = child<QComboBox>(settings, "insuranceMicrophone");
    insuranceMic->setCurrentIndex(1);
    emit insuranceMic->activated(1);
    EXPECT_EQ(rig.home.defaults().stringValue(prefs::kMicrophoneInsurance), "builtin");

    // Calendars: added and removed through the same store the recorder reads.
    auto* source = child<QLineEdit>(settings, "newCalendarSource");
    QTest::keyClicks(source, "https://calendar.example.com/team.ics");
    QTest::mouseClick(child<QPushButton>(settings, "addCalendarSource"), Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return child<QListWidget>(settings, "calendarSources")->count() == 1; }));
    EXPECT_TRUE(rig.home.defaults().stringList(prefs::kCalendarSources).has_value());

    // The language: every window says it in Spanish at once, and it is kept.
    auto* language = child<QComboBox>(settings, "language");
    language->setCurrentIndex(2);
    emit language->activated(2);
    EXPECT_EQ(rig.home.defaults().stringValue(kInterfaceLanguageKey), "es");
    EXPECT_EQ(settings->windowTitle(), "Configuración de Vell");
    EXPECT_EQ(child<QCheckBox>(settings, "recordCalendar")->text(), "Grabar reuniones del calendario");
    EXPECT_TRUE(labelText(settings, "calendarNote").startsWith("Empieza a grabar cuando arranca una reunión de tu calendario"));
    EXPECT_EQ(child<QComboBox>(settings, "recordingMicrophone")->itemText(1), "Micrófono integrado");
    EXPECT_EQ(child<QPushButton>(&rig.shell->panel(), "recordButton")->text(), "Grabar");
}

TEST(OnboardingWindowTest, ChecksTheMicrophoneAndSetsOpenAtLogin) {
    test::TrayRig rig;
    rig.start();
    rig.loginItem->current = app::LoginItemStatus::notRegistered;
    rig.backend->setOpensAtLogin(false);
    const int registersBefore = rig.loginItem->registers;
    rig.shell->start();  // a first run opens the onboarding
    auto* onboarding = rig.shell->window("onboarding");
    ASSERT_NE(onboarding, nullptr);
    ASSERT_TRUE(onboarding->isVisible());
    EXPECT_EQ(labelText(onboarding, "micStatus"), "Microphone ready: Built-in Audio");
    rig.deviceList->list.clear();
    rig.deviceList->defaultUID.reset();
    QTest::mouseClick(child<QPushButton>(onboarding, "checkAgain"), Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] {
        return labelText(onboarding, "micStatus") == "No microphone found. Connect one or check the sound settings.";
    }));

    auto* next = child<QPushButton>(onboarding, "nextButton");
    QTest::mouseClick(next, Qt::LeftButton);
    EXPECT_TRUE(labelText(onboarding, "privacy").startsWith("Insurance mode keeps listening to your microphone"));
    QTest::mouseClick(next, Qt::LeftButton);
    EXPECT_EQ(next->text(), "Done");
    auto* login = child<QCheckBox>(onboarding, "openAtLogin");
    EXPECT_FALSE(login->isChecked());
    test::toggle(login);
    QTest::mouseClick(next, Qt::LeftButton);
    EXPECT_FALSE(onboarding->isVisible());
    EXPECT_EQ(rig.loginItem->registers, registersBefore + 1);
    EXPECT_EQ(rig.home.defaults().boolValue(kOnboardingDoneKey), true);
    rig.speak(Language::Spanish);
    EXPECT_EQ(onboarding->windowTitle(), "Te damos la bienvenida a Vell");
}

TEST(MainWindowTest, ListsTheRecordingsAndRecordsFromItsButton) {
    test::TrayRig rig;
    rig.start();
    auto* main = rig.shell->openWindow("main");
    EXPECT_EQ(labelText(main, "emptyLabel"), "No recordings on this computer yet. Press Record to make one.");
    QTest::mouseClick(child<QPushButton>(main, "recordButton"), Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return rig.recording(); }));
    auto* table = child<QTableWidget>(main, "recordingsTable");
    ASSERT_TRUE(waitFor([&] { return table->rowCount() == 1 && table->item(0, 2)->text() == "Recording"; }));
    QTest::mouseClick(child<QPushButton>(main, "recordButton"), Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return table->item(0, 2)->text() == "Waiting to upload"; }));
    EXPECT_FALSE(child<QPushButton>(main, "uploadButton")->isEnabled()) << "uploads need a signed-in account";
    rig.speak(Language::Spanish);
    EXPECT_EQ(table->item(0, 2)->text(), "Esperando para subir");
    EXPECT_EQ(table->horizontalHeaderItem(2)->text(), "Estado");
    QTest::mouseClick(child<QPushButton>(main, "signInButton"), Qt::LeftButton);
    ASSERT_NE(rig.shell->window("login"), nullptr);
    EXPECT_TRUE(rig.shell->window("login")->isVisible());
}

// The recovery panel's own logic (which words for which phase, what Copy sends) over a
// backend whose recovery state the test sets.
class RecoveryBackend final : public StillBackend {
public:
    void recoverChoose(RecoveryRange range, int minutes) override { chosen.emplace_back(range, minutes); }
    void recoverClose() override { ++closes; }
    void recoverCopy(const std::string& selection) override { copies.push_back(selection); }
    void set(RecoveryView v) {
        recovery_ = std::move(v);
        emit recoveryChanged();
    }

    std::vector<std::pair<RecoveryRange, int>> chosen;
    std::vector<std::string> copies;
    int closes = 0;
};

TEST(RecoverWindowTest, ShowsDraftsFailuresAndCopiesWithItsConfirmation) {
    setInterfaceLanguage(Language::English);
    RecoveryBackend backend;
    backend.state_.insuranceEnabled = true;
    RecoverWindow window(backend);
    window.show();
    ASSERT_EQ(backend.chosen.size(), 1u) << "opening the panel starts on the last minute";
    EXPECT_EQ(backend.chosen[0].first, RecoveryRange::lastMinute);
    auto* range = child<QComboBox>(&window, "range");
    auto* minutes = child<QSpinBox>(&window, "customMinutes");
    EXPECT_FALSE(minutes->isEnabled());
    range->setCurrentIndex(2);
    emit range->activated(2);
    EXPECT_EQ(backend.chosen.back(), std::make_pair(RecoveryRange::custom, 10));
    EXPECT_TRUE(minutes->isEnabled());

    RecoveryView v;
    v.phase = RecoveryView::Phase::transcribing;
    v.hasSelection = true;
    backend.set(v);
    EXPECT_EQ(labelText(&window, "statusLabel"), "Transcribing…");
    EXPECT_FALSE(child<QPushButton>(&window, "copyButton")->isEnabled());
    v.phase = RecoveryView::Phase::improving;
    v.display = "Improving… · we said the budget";
    backend.set(v);
    EXPECT_EQ(child<QPlainTextEdit>(&window, "resultText")->toPlainText(), "Improving… · we said the budget");
    EXPECT_FALSE(child<QPushButton>(&window, "playButton")->isEnabled()) << "no preview playback on this host";
    v.phase = RecoveryView::Phase::idle;
    v.display = "We said the budget is final.";
    v.finished = true;
    backend.set(v);
    QTest::mouseClick(child<QPushButton>(&window, "copyButton"), Qt::LeftButton);
    ASSERT_EQ(backend.copies.size(), 1u);
    EXPECT_EQ(backend.copies[0], "") << "without a selection the whole text is copied";
    v.copyConfirmation = "Copied";
    backend.set(v);
    EXPECT_EQ(labelText(&window, "copyConfirmation"), "Copied");
    v.phase = RecoveryView::Phase::failed;
    v.message = "No connection. Try again when you’re online.";
    backend.set(v);
    EXPECT_EQ(labelText(&window, "statusLabel"), "No connection. Try again when you’re online.");

    setInterfaceLanguage(Language::Spanish);
    emit languageSignal().changed();
    EXPECT_EQ(window.windowTitle(), "Recuperar voz");
    EXPECT_EQ(range->itemText(0), "Último minuto");
    window.close();
    EXPECT_EQ(backend.closes, 1);
    setInterfaceLanguage(Language::English);
}

}  // namespace
}  // namespace vell::tray
