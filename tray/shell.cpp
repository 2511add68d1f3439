#include "tray/shell.h"

#include <QAction>
#include <QApplication>
#include <QCursor>
#include <QEvent>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QSystemTrayIcon>

#include "app/app_messages.h"
#include "app/quit_decision.h"
#include "automation/automation_messages.h"
#include "base/preference_keys.h"
#include "base/user_defaults.h"
#include "tray/backend.h"
#include "tray/language_choice.h"
#include "tray/login_window.h"
#include "tray/main_window.h"
#include "tray/onboarding_window.h"
#include "tray/panel.h"
#include "tray/recover_window.h"
#include "tray/settings_window.h"
#include "tray/tray_messages.h"
#include "tray/ui_text.h"
#include "tray/undo_panel.h"

namespace vell::tray {

namespace m = messages;

Shell::Shell(Backend& backend, UserDefaults& defaults) : backend_(backend), defaults_(defaults) {
    onQuit = [] { QCoreApplication::quit(); };
    icon_ = new QSystemTrayIcon(this);
    menu_ = new QMenu();
    menu_->setObjectName("trayMenu");
    openAction_ = menu_->addAction(QString());
    recordAction_ = menu_->addAction(QString());
    undoAction_ = menu_->addAction(QString());
    menu_->addSeparator();
    settingsAction_ = menu_->addAction(QString());
    quitAction_ = menu_->addAction(QString());
    openAction_->setObjectName("openAction");
    recordAction_->setObjectName("recordAction");
    undoAction_->setObjectName("undoAction");
    settingsAction_->setObjectName("settingsAction");
    quitAction_->setObjectName("quitAction");
    icon_->setContextMenu(menu_);

    connect(openAction_, &QAction::triggered, this, [this] { openWindow("main"); });
    connect(recordAction_, &QAction::triggered, this, [this] {
        if (backend_.state().recording) backend_.stopRecording(false);
        else backend_.startRecording();
    });
    connect(undoAction_, &QAction::triggered, this, [this] { backend_.undo(); });
    connect(settingsAction_, &QAction::triggered, this, [this] { openWindow("settings"); });
    connect(quitAction_, &QAction::triggered, this, &Shell::requestQuit);
    connect(icon_, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::MiddleClick) togglePanel();
    });
    connect(&backend_, &Backend::changed, this, &Shell::render);
    connect(&backend_, &Backend::discarded, this, [this] { undoPanel().present(); });
    connect(&languageSignal(), &LanguageSignal::changed, this, &Shell::render);
    render();
}

Shell::~Shell() {
    for (auto& [id, w] : windows_) delete w;
    delete panel_;
    delete undoPanel_;
    delete menu_;
}

Panel& Shell::panel() {
    if (!panel_) {
        panel_ = new Panel(backend_);
        connect(panel_, &Panel::openWindow, this, [this](const QString& id) { openWindow(id); });
        connect(panel_, &Panel::quitRequested, this, &Shell::requestQuit);
    }
    return *panel_;
}

UndoPanel& Shell::undoPanel() {
    if (!undoPanel_) undoPanel_ = new UndoPanel(backend_);
    return *undoPanel_;
}

void Shell::start() {
    icon_->show();
    if (!defaults_.boolValue(kOnboardingDoneKey).value_or(false)) openWindow("onboarding");
    // Without a tray (GNOME without its AppIndicator extension) the main window is the way in.
    else if (!QSystemTrayIcon::isSystemTrayAvailable()) openWindow("main");
}

IconState Shell::iconState() const {
    const auto& s = backend_.state();
    if (s.recording) return IconState::recording;
    if (s.uploadTrouble()) return IconState::uploadTrouble;
    if (s.insuranceEnabled && s.insuranceListening) return IconState::insurance;
    return IconState::idle;
}

void Shell::render() {
    const auto& s = backend_.state();
    const auto state = iconState();
    if (!iconDrawn_ || state != shownIcon_) {
        icon_->setIcon(trayIcon(state, QApplication::palette()));
        shownIcon_ = state;
        iconDrawn_ = true;
    }
    switch (state) {
        case IconState::recording: icon_->setToolTip(q(m::kTipRecording) + elapsedText(s.elapsed)); break;
        case IconState::uploadTrouble: icon_->setToolTip(q(m::kTipUploadTrouble)); break;
        case IconState::insurance: icon_->setToolTip(q(m::kTipInsurance)); break;
        case IconState::idle: icon_->setToolTip(q(m::kTipIdle)); break;
    }
    openAction_->setText(q(m::kOpenVell));
    recordAction_->setText(s.recording ? q(m::kStop) + "  " + elapsedText(s.elapsed) : q(m::kRecord));
    recordAction_->setEnabled(!s.starting || s.recording);
    undoAction_->setText(q(automation::messages::kUndo));
    undoAction_->setVisible(s.undoAvailable);
    settingsAction_->setText(q(m::kSettingsEllipsis));
    quitAction_->setText(q(m::kQuitVell));
}

QWidget* Shell::window(const QString& identifier) const {
    auto it = windows_.find(identifier);
    return it == windows_.end() ? nullptr : it->second;
}

QWidget* Shell::openWindow(const QString& identifier) {
    QWidget* w = window(identifier);
    if (!w) {
        if (identifier == "login") {
            w = new LoginWindow(backend_);
        } else if (identifier == "settings") {
            auto* settings = new SettingsWindow(backend_, defaults_);
            connect(settings, &SettingsWindow::privacyExplanationNeeded, this, [this] {
                if (auto* o = qobject_cast<OnboardingWindow*>(openWindow("onboarding"))) o->showPage(OnboardingWindow::insurancePage);
            });
            w = settings;
        } else if (identifier == "recover") {
            w = new RecoverWindow(backend_);
        } else if (identifier == "onboarding") {
            w = new OnboardingWindow(backend_, defaults_);
        } else {
            auto* main = new MainWindow(backend_);
            connect(main, &MainWindow::openWindow, this, [this](const QString& id) { openWindow(id); });
            connect(main, &MainWindow::quitRequested, this, &Shell::requestQuit);
            w = main;
        }
        windows_[w->objectName()] = w;
        w->installEventFilter(this);
    }
    // The panel's insurance switch asks for the privacy explanation before switching on.
    if (identifier == "onboarding" && panel_ && panel_->isVisible()) {
        if (auto* o = qobject_cast<OnboardingWindow*>(w)) o->showPage(OnboardingWindow::insurancePage);
    }
    if (panel_) panel_->hide();
    w->show();
    w->raise();
    w->activateWindow();
    return w;
}

void Shell::reopen(const QString& identifier) {
    if (identifier == "panel") {
        if (!panel().isVisible()) togglePanel();
        return;
    }
    if (!identifier.isEmpty()) {
        openWindow(identifier);
        return;
    }
    openWindow(defaults_.boolValue(kOnboardingDoneKey).value_or(false) ? "main" : "onboarding");
}

void Shell::togglePanel() {
    auto& panel = this->panel();
    if (panel.isVisible()) return panel.hide();
    QRect at = icon_->geometry();
    const QPoint anchor = at.isValid() && !at.isEmpty() ? QPoint(at.center().x(), at.bottom()) : QCursor::pos();
    panel.popUpAt(anchor);
}

bool Shell::offerMenuBarTip() {
    if (defaults_.boolValue(prefs::kMenuBarTipShown).value_or(false)) return false;
    if (quitting_ || !icon_->isVisible() || !QSystemTrayIcon::isSystemTrayAvailable()) return false;
    icon_->showMessage(q(m::kMenuBarTipTitle), q(m::kMenuBarTipBody), QSystemTrayIcon::Information);
    defaults_.set(prefs::kMenuBarTipShown, true);
    return true;
}

bool Shell::eventFilter(QObject* watched, QEvent* event) {
    // A window closing lets the tip decide once the close went through (a window may
    // refuse it).
    if (event->type() == QEvent::Close) {
        QPointer<QWidget> window = qobject_cast<QWidget*>(watched);
        QMetaObject::invokeMethod(this, [this, window] {
            if (window && !window->isVisible()) offerMenuBarTip();
        }, Qt::QueuedConnection);
    }
    return QObject::eventFilter(watched, event);
}

void Shell::requestQuit() {
    if (quitting_) return;
    if (quitAlert_) {
        quitAlert_->raise();
        quitAlert_->activateWindow();
        return;
    }
    if (backend_.remote()) {
        if (backend_.state().recording) return askFrontEndQuit();
        return finishQuit();
    }
    const auto alert = app::quitAlert(backend_.state().recording);
    if (!alert) return finishQuit();
    auto* box = new QMessageBox();
    box->setObjectName("quitAlert");
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setIcon(QMessageBox::Warning);
    box->setWindowTitle(q(m::kAppName));
    box->setText(QString::fromStdString(alert->message));
    box->setInformativeText(QString::fromStdString(alert->informativeText));
    auto* stop = box->addButton(QString::fromStdString(alert->stopButton), QMessageBox::AcceptRole);
    stop->setObjectName("stopAndQuit");
    auto* keep = box->addButton(QString::fromStdString(alert->keepButton), QMessageBox::RejectRole);
    keep->setObjectName("keepRecording");
    box->setDefaultButton(stop);
    box->setEscapeButton(keep);
    connect(box, &QMessageBox::buttonClicked, this, [this, stop](QAbstractButton* clicked) {
        if (clicked == stop) finishQuit();
    });
    quitAlert_ = box;
    box->open();
    box->raise();
    box->activateWindow();
}

// A front end of a host that records: quitting may mean the host and its recording, or
// only this window and icon.
void Shell::askFrontEndQuit() {
    auto* box = new QMessageBox();
    box->setObjectName("quitAlert");
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setIcon(QMessageBox::Question);
    box->setWindowTitle(q(m::kAppName));
    box->setText(q(m::kHostRecordingQuit));
    box->setInformativeText(q(m::kHostRecordingQuitInformative));
    auto* stop = box->addButton(q(app::messages::kQuitStopAndQuit), QMessageBox::DestructiveRole);
    stop->setObjectName("stopAndQuit");
    auto* close = box->addButton(q(m::kCloseOnly), QMessageBox::AcceptRole);
    close->setObjectName("closeFrontEnd");
    auto* cancel = box->addButton(QMessageBox::Cancel);
    cancel->setObjectName("cancelQuit");
    box->setDefaultButton(close);
    box->setEscapeButton(cancel);
    connect(box, &QMessageBox::buttonClicked, this, [this, stop, close](QAbstractButton* clicked) {
        if (clicked == stop) finishQuit(true);
        else if (clicked == close) finishQuit();
    });
    quitAlert_ = box;
    box->open();
    box->raise();
    box->activateWindow();
}

void Shell::finishQuit(bool withHost) {
    quitting_ = true;
    if (panel_) panel_->hide();
    for (auto& [id, w] : windows_) w->hide();
    QPointer<Shell> self(this);
    auto done = [self] {
        if (self && self->onQuit) self->onQuit();
    };
    if (withHost) backend_.quitHost(done);
    else backend_.quit(done);
}

}  // namespace vell::tray
