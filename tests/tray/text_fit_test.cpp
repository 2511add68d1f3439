// Every window and the panel show all of their text in English and in Spanish, at 100 %
// and at 200 % (fonts twice as large, as a desktop scaled to 200 % makes them): no label
// or button is narrower or lower than its text, as the windows size themselves.
#include <gtest/gtest.h>

#include <QApplication>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QTest>
#include <memory>

#include "base/user_defaults.h"
#include "tests/support/temp_home.h"
#include "tray/language_choice.h"
#include "tray/login_window.h"
#include "tray/main_window.h"
#include "tray/onboarding_window.h"
#include "tray/panel.h"
#include "tray/recover_window.h"
#include "tray/screenshots/sample_backend.h"
#include "tray/settings_window.h"
#include "tray/shell.h"
#include "tray/text_fit.h"
#include "tray/undo_panel.h"

namespace vell::tray {
namespace {

struct Scale {
    const char* name;
    double factor;
};

// Shown as the application shows it (no resizing here), then checked.
void expectWholeText(QWidget& window, const std::string& what) {
    if (auto* panel = qobject_cast<Panel*>(&window)) panel->popUpAt(QPoint(400, 0));
    else window.show();
    QTest::qWait(20);
    const auto cut = cutTexts(&window);
    EXPECT_TRUE(cut.isEmpty()) << what << ":\n  " << cut.join("\n  ").toStdString();
    window.hide();
}

TEST(TextFit, EveryWindowShowsAllOfItsTextInBothLanguagesAtOneAndTwoTimesTheFont) {
    test::TempHome home;
    const QFont original = QApplication::font();
    SampleBackend backend;
    for (const Scale scale : {Scale{"100 %", 1.0}, Scale{"200 %", 2.0}}) {
        QFont font = original;
        font.setPointSizeF(original.pointSizeF() * scale.factor);
        QApplication::setFont(font);
        for (const auto language : {Language::English, Language::Spanish}) {
            setInterfaceLanguage(language);
            backend.setLanguage(language);
            emit languageSignal().changed();
            const std::string at = std::string(language == Language::Spanish ? "es" : "en") + " at " + scale.name + ": ";

            Panel panel(backend);
            expectWholeText(panel, at + "panel");
            for (const char* page : {"main", "results", "live"}) {
                MainWindow main(backend);
                main.showPage(page);
                expectWholeText(main, at + "main window, " + page);
            }
            SettingsWindow settings(backend, home.defaults());
            expectWholeText(settings, at + "settings");
            LoginWindow login(backend);
            expectWholeText(login, at + "sign-in");
            RecoverWindow recover(backend);
            expectWholeText(recover, at + "recover");
            for (auto page : {OnboardingWindow::microphonePage, OnboardingWindow::insurancePage, OnboardingWindow::loginPage}) {
                OnboardingWindow onboarding(backend, home.defaults());
                onboarding.showPage(page);
                expectWholeText(onboarding, at + "onboarding page " + std::to_string(page));
            }
            UndoPanel undo(backend);
            expectWholeText(undo, at + "undo panel");
        }
    }
    QApplication::setFont(original);
    setInterfaceLanguage(Language::English);
    backend.setLanguage(Language::English);
    emit languageSignal().changed();
}

}  // namespace
}  // namespace vell::tray
