#pragma once
// The small floating panel after a discard: nothing was kept, Undo, and a close control
// that leaves Undo in the tray menu until the five minutes are over. It shows without
// taking the focus from what the user is doing.
#include <QFrame>

class QLabel;
class QPushButton;
class QToolButton;

namespace vell::tray {

class Backend;

class UndoPanel final : public QFrame {
    Q_OBJECT
public:
    explicit UndoPanel(Backend& backend, QWidget* parent = nullptr);
    void render();
    // Shows it in the top-right corner of the screen.
    void present();

private:
    Backend& backend_;
    QLabel* icon_;
    QLabel* headline_;
    QPushButton* undo_;
    QToolButton* close_;
};

}  // namespace vell::tray
