#pragma once
// The main window: recording controls and every recording kept on this computer with its
// state. Identifier "main". On desktops without a tray it is the way in.
#include <QWidget>

class QLabel;
class QPushButton;
class QTableWidget;

namespace vell::tray {

class Backend;

class MainWindow final : public QWidget {
    Q_OBJECT
public:
    explicit MainWindow(Backend& backend, QWidget* parent = nullptr);
    void render();

signals:
    void openWindow(const QString& identifier);
    void quitRequested();

private:
    Backend& backend_;
    QPushButton* record_;
    QLabel* elapsed_;
    QLabel* account_;
    QPushButton* signIn_;
    QLabel* heading_;
    QTableWidget* table_;
    QLabel* empty_;
    QPushButton* upload_;
    QPushButton* undo_;
    QPushButton* recover_;
    QPushButton* settings_;
    QPushButton* quit_;
};

}  // namespace vell::tray
