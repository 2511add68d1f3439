#pragma once
// The tray application's face: the icon with its state and short menu, the panel it opens,
// the windows (made on first use and kept), the undo panel after a discard, and quitting
// with the alert while a recording runs. GUI thread.
#include <QObject>
#include <QPointer>
#include <functional>
#include <map>

#include "tray/icons.h"

class QAction;
class QMenu;
#include <QMessageBox>
class QSystemTrayIcon;
class QWidget;

namespace vell {
class UserDefaults;
}

namespace vell::tray {

class Backend;
class Panel;
class UndoPanel;

class Shell final : public QObject {
    Q_OBJECT
public:
    Shell(Backend& backend, UserDefaults& defaults);
    ~Shell() override;

    // Shows the icon and the window a first run (or a desktop without a tray) needs.
    void start();

    // The window with this identifier ("onboarding", "login", "main", "settings",
    // "recover"), made on first use, shown and raised.
    QWidget* openWindow(const QString& identifier);
    QWidget* window(const QString& identifier) const;
    // Vell was started again: that window, or "panel", or for an empty identifier the
    // appropriate one (the onboarding until it is done, the main window afterwards).
    void reopen(const QString& identifier);
    // Made on first use: the icon shows before them.
    Panel& panel();
    UndoPanel& undoPanel();
    QSystemTrayIcon& icon() { return *icon_; }
    QMenu& menu() { return *menu_; }
    IconState iconState() const;

    void togglePanel();
    // The tip about where Vell lives, as a message from the icon: shown once (then marked
    // in the preferences), and only while the icon is in a tray; a desktop without one
    // leaves it for later. Asked at the launch and whenever a window closes.
    bool offerMenuBarTip();
    // Quit Vell: at once, or after the alert when a recording runs here. The alert stays
    // open until answered; quitAlert() is it meanwhile.
    void requestQuit();
    QMessageBox* quitAlert() const { return quitAlert_; }
    // The program's end (QCoreApplication::quit by default).
    std::function<void()> onQuit;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void render();
    void finishQuit(bool withHost = false);
    void askFrontEndQuit();

    Backend& backend_;
    UserDefaults& defaults_;
    QSystemTrayIcon* icon_;
    QMenu* menu_;
    QAction* openAction_;
    QAction* recordAction_;
    QAction* undoAction_;
    QAction* settingsAction_;
    QAction* quitAction_;
    Panel* panel_ = nullptr;
    UndoPanel* undoPanel_ = nullptr;
    std::map<QString, QWidget*> windows_;
    QPointer<QMessageBox> quitAlert_;
    IconState shownIcon_ = IconState::idle;
    bool iconDrawn_ = false;
    bool quitting_ = false;
};

}  // namespace vell::tray
