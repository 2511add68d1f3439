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
#include "base/process_start.h"
#include "base/user_defaults.h"
#include "tray/language_choice.h"
#include "tray/login_window.h"
#include "tray/main_window.h"
#include "tray/results_view.h"
#include "tray/screenshots/sample_backend.h"
#include "tray/onboarding_window.h"
#include "tray/panel.h"
#include "tray/recover_window.h"
#include "tray/settings_window.h"
#include "tray/shell.h"
#include "tray/text_fit.h"
#include "tray/undo_panel.h"

namespace vell::tray {
namespace {

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

// Also false when the picture cuts a text (each cut is printed).
bool save(QWidget* w, const QString& file, bool fit = true) {
    w->show();
    if (fit) w->adjustSize();
    QTest::qWait(50);
    const bool ok = w->grab().save(file);
    std::cout << (ok ? "wrote " : "could not write ") << file.toStdString() << "\n";
    const auto cut = cutTexts(w);
    for (const auto& line : cut) std::cout << "  cut text: " << line.toStdString() << "\n";
    w->hide();
    return ok && cut.isEmpty();
}

}  // namespace
}  // namespace vell::tray

int main(int argc, char** argv) {
    using namespace vell;
    using namespace vell::tray;
    process::start();
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
