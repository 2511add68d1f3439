// vell-tray-screenshots: renders the panel and every window over a sample state to PNG
// files, in English and Spanish, with a light and a dark palette (scripts/screenshots).
//   vell-tray-screenshots OUTPUT_DIR
#include <QApplication>
#include <QDir>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPalette>
#include <QPushButton>
#include <QStackedWidget>
#include <QStyle>
#include <QStyleFactory>
#include <QTest>
#include <chrono>
#include <iostream>

#include "base/language.h"
#include "base/user_defaults.h"
#include "tray/still_backend.h"
#include "tray/language_choice.h"
#include "tray/login_window.h"
#include "tray/main_window.h"
#include "tray/results_view.h"
#include "tray/onboarding_window.h"
#include "tray/panel.h"
#include "tray/recover_window.h"
#include "tray/settings_window.h"
#include "tray/shell.h"
#include "tray/undo_panel.h"

namespace vell::tray {
namespace {

// A backend that only shows: a user in the middle of a call with insurance mode on.
class SampleBackend final : public StillBackend {
public:
    SampleBackend() {
        using namespace std::chrono;
        const auto now = system_clock::now();
        auto& s = state_;
        s.phase = SignInPhase::signedIn;
        s.email = "ana@example.com";
        s.recording = true;
        s.elapsed = 754;
        s.microphoneLevel = 0.62;
        s.systemLevel = 0.35;
        s.microphone = "USB Headset";
        s.callers = {"Zoom"};
        s.pending = {
            {"a", "uploaded", now - hours(26), now - hours(25), "", 1, std::nullopt},
            {"b", "failed", now - hours(3), now - hours(2), "The service could not be reached.", 2, std::nullopt},
            {"c", "uploading", now - minutes(50), now - minutes(20), "", 0, 0.45},
            {"d", "recording", now - seconds(754), std::nullopt, "", 0, std::nullopt},
        };
        s.insuranceEnabled = s.insuranceListening = s.privacyAccepted = true;
        s.insuranceWindowMinutes = 15;
        s.bufferedSeconds = 14 * 60 + 20;
        s.insuranceDevice = "USB Headset";
        s.callsEnabled = true;
        s.calendarEnabled = true;
        s.calendarSources = {"https://calendar.example.com/team.ics"};
        s.opensAtLogin = true;
        s.microphones = {{"default", "System default (Built-in Audio)", false},
                         {"builtin", "Built-in microphone", false},
                         {"uid:usb", "USB Headset", false}};
        s.recordingMicrophone = "uid:usb";
        s.insuranceMicrophone = "default";
        s.microphoneCount = 2;
        s.live.sessionID = "live-1";
        s.live.tiles = {tile("talk-time", "talkTime", 0.84, {{"shares", {{"1", 71}, {"2", 29}}}}, 600'000),
                        tile("monologue-1", "monologue", 0.62, {{"speaker", 1}, {"durationMs", 112'000}}, 540'000),
                        tile("questions", "questions", 0.4, {{"count", 2}}, 690'000),
                        tile("silence", "silence", 0.22, {{"count", 1}, {"longestMs", 9'000}}, 300'000)};
        results_ = sampleResults();
        recovery_.display = "Let's move the launch to Thursday and ask Marta for the final numbers before the review.";
        recovery_.finished = true;
        recovery_.hasSelection = true;
        recovery_.copyConfirmation = "Copied";
    }
    static live::Tile tile(const char* id, const char* kind, double weight, nlohmann::json data, long long atMs) {
        live::Tile t;
        t.id = id;
        t.kind = kind;
        t.weight = weight;
        t.data = std::move(data);
        t.atMs = atMs;
        return t;
    }
    static std::vector<ResultItem> sampleResults() {
        const long long now = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  std::chrono::system_clock::now().time_since_epoch()).count();
        results::RecordingResult weekly;
        weekly.id = "rec_weekly";
        weekly.createdAt = now - 26LL * 3600 * 1000;
        weekly.durationMs = 31 * 60 * 1000 + 12'000;
        weekly.state = "processed";
        weekly.summary = "## Key points\n\n- The launch moves to **Thursday**.\n- Marta sends the final numbers before the review.\n"
                         "- The budget stays at ten thousand dollars.\n";
        weekly.speakers = {{1, "microphone", std::string("Ana"), 14 * 60 * 1000}, {2, "system", std::nullopt, 12 * 60 * 1000}};
        weekly.transcript = {{1, 4'000, 9'000, "Thanks for joining. Shall we start with the launch?"},
                             {2, 10'000, 16'000, "Yes. Engineering needs two more days, so Thursday works better."},
                             {1, 17'000, 22'000, "Fine by me. What is the budget now?"},
                             {2, 23'000, 27'000, "Still ten thousand dollars."}};
        weekly.cues = {tile("talk-time", "talkTime", 0.3, {{"shares", {{"1", 54}, {"2", 46}}}}, 0),
                       tile("questions", "questions", 0.5, {{"count", 4}}, 0)};
        results::RecordingResult processing = weekly;
        processing.id = "rec_today";
        processing.createdAt = now - 40LL * 60 * 1000;
        processing.durationMs = 12 * 60 * 1000 + 34'000;
        processing.state = "processing";
        results::RecordingResult failed = weekly;
        failed.id = "rec_failed";
        failed.createdAt = now - 3LL * 24 * 3600 * 1000;
        failed.durationMs = 45'000;
        failed.state = "failed";
        return {{processing, ""}, {weekly, ""}, {failed, ""}};
    }
    void setLanguage(Language language) {
        state_.microphones[0].label = language == Language::Spanish ? "Predeterminado del sistema (Built-in Audio)"
                                                                     : "System default (Built-in Audio)";
        state_.microphones[1].label = language == Language::Spanish ? "Micrófono integrado" : "Built-in microphone";
        recovery_.copyConfirmation = language == Language::Spanish ? "Copiado" : "Copied";
        emit changed();
        emit recoveryChanged();
    }
};

QPalette darkPalette() {
    QPalette p;
    const QColor window(0x2B, 0x2D, 0x31), base(0x1F, 0x21, 0x24), text(0xE8, 0xEA, 0xED);
    p.setColor(QPalette::Window, window);
    p.setColor(QPalette::WindowText, text);
    p.setColor(QPalette::Base, base);
    p.setColor(QPalette::AlternateBase, window.lighter(115));
    p.setColor(QPalette::Text, text);
    p.setColor(QPalette::Button, window.lighter(120));
    p.setColor(QPalette::ButtonText, text);
    p.setColor(QPalette::ToolTipBase, base);
    p.setColor(QPalette::ToolTipText, text);
    p.setColor(QPalette::PlaceholderText, QColor(0x9A, 0xA0, 0xA6));
    p.setColor(QPalette::Highlight, QColor(0x8A, 0xB4, 0xF8));
    p.setColor(QPalette::HighlightedText, base);
    p.setColor(QPalette::Link, QColor(0x8A, 0xB4, 0xF8));
    p.setColor(QPalette::Disabled, QPalette::Text, QColor(0x80, 0x84, 0x88));
    p.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0x80, 0x84, 0x88));
    p.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0x80, 0x84, 0x88));
    return p;
}

bool save(QWidget* w, const QString& file, bool fit = true) {
    w->show();
    if (fit) w->adjustSize();
    QTest::qWait(50);
    const bool ok = w->grab().save(file);
    std::cout << (ok ? "wrote " : "could not write ") << file.toStdString() << "\n";
    w->hide();
    return ok;
}

}  // namespace
}  // namespace vell::tray

int main(int argc, char** argv) {
    using namespace vell;
    using namespace vell::tray;
    QApplication application(argc, argv);
    if (argc < 2) {
        std::cerr << "usage: vell-tray-screenshots OUTPUT_DIR\n";
        return 2;
    }
    const QDir out(QString::fromLocal8Bit(argv[1]));
    QDir().mkpath(out.path());
    QApplication::setStyle(QStyleFactory::create("Fusion"));
    const QPalette light = QApplication::style()->standardPalette();
    UserDefaults defaults(QDir::temp().filePath("vell-screenshots-defaults.json").toStdString());
    SampleBackend backend;
    int failures = 0;
    for (const auto& [theme, palette] : {std::pair{QString("light"), light}, std::pair{QString("dark"), darkPalette()}}) {
        QApplication::setPalette(palette);
        for (const auto& [code, language] : {std::pair{QString("en"), Language::English}, std::pair{QString("es"), Language::Spanish}}) {
            setInterfaceLanguage(language);
            backend.setLanguage(language);
            emit languageSignal().changed();
            const QString suffix = "-" + code + "-" + theme + ".png";
            auto shot = [&](QWidget* w, const QString& name) {
                if (!save(w, out.filePath(name + suffix))) ++failures;
            };
            Panel panel(backend);
            shot(&panel, "panel");
            MainWindow main(backend);
            main.resize(main.fontMetrics().averageCharWidth() * 100, main.fontMetrics().height() * 18);
            save(&main, out.filePath("main" + suffix), false) || ++failures;
            MainWindow results(backend);
            results.resize(results.fontMetrics().averageCharWidth() * 120, results.fontMetrics().height() * 26);
            results.showPage("results");
            results.show();
            if (auto* list = results.findChild<QListWidget*>("resultsList"); list && list->count() > 1) list->setCurrentRow(1);
            save(&results, out.filePath("results" + suffix), false) || ++failures;
            MainWindow live(backend);
            live.resize(live.fontMetrics().averageCharWidth() * 120, live.fontMetrics().height() * 24);
            live.showPage("live");
            save(&live, out.filePath("live" + suffix), false) || ++failures;
            SettingsWindow settings(backend, defaults);
            settings.resize(settings.fontMetrics().averageCharWidth() * 92, settings.fontMetrics().height() * 56);
            save(&settings, out.filePath("settings" + suffix), false) || ++failures;
            LoginWindow login(backend);
            login.findChild<QLineEdit*>("email")->setText("ana@example.com");
            login.findChild<QLineEdit*>("password")->setText("password");
            shot(&login, "login");
            RecoverWindow recover(backend);
            shot(&recover, "recover");
            OnboardingWindow onboarding(backend, defaults);
            onboarding.showPage(OnboardingWindow::insurancePage);
            shot(&onboarding, "onboarding");
            UndoPanel undo(backend);
            shot(&undo, "undo");
            Shell shell(backend, defaults);
            shell.requestQuit();
            if (auto* alert = shell.quitAlert()) {
                save(alert, out.filePath("quit-alert" + suffix)) || ++failures;
                alert->close();
            }
        }
    }
    return failures == 0 ? 0 : 1;
}
