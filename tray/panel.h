#pragma once
// The popup under the tray icon: record and stop with the elapsed time and both input
// levels, the microphone in use, the callers of a call, the recordings waiting on this
// computer (with their progress, last error and a retry), Undo while a discard can be
// undone, insurance mode with what it keeps, and who is signed in. GUI thread.
#include <QFrame>
#include <functional>

class QLabel;
class QProgressBar;
class QPushButton;
class QCheckBox;
class QVBoxLayout;

namespace vell::tray {

class Backend;

class Panel final : public QFrame {
    Q_OBJECT
public:
    explicit Panel(Backend& backend, QWidget* parent = nullptr);

    // Shows the panel below (or above) the given point, kept on its screen.
    void popUpAt(const QPoint& anchor);
    void render();

signals:
    void openWindow(const QString& identifier);
    void quitRequested();

private:
    void renderPending();
    // Sized to its content and kept on the screen at the anchor it was shown at.
    void place();

    Backend& backend_;
    QPoint anchor_;
    QLabel* title_;
    QLabel* statusLabel_;
    QPushButton* recordButton_;
    QLabel* elapsedLabel_;
    QLabel* microphoneCaption_;
    QLabel* systemCaption_;
    QProgressBar* microphoneLevel_;
    QProgressBar* systemLevel_;
    QLabel* microphoneLabel_;
    QLabel* callersLabel_;
    QLabel* errorLabel_;
    QLabel* pendingHeading_;
    QWidget* pendingBox_;
    QVBoxLayout* pendingLayout_;
    QPushButton* undoButton_;
    QCheckBox* insuranceSwitch_;
    QLabel* insuranceLabel_;
    QPushButton* recoverButton_;
    QLabel* accountLabel_;
    QPushButton* signInButton_;
    QPushButton* signOutButton_;
    QPushButton* openButton_;
    QPushButton* settingsButton_;
    QPushButton* quitButton_;
    std::string shownPending_;
};

}  // namespace vell::tray
