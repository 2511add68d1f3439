#pragma once
// The main window: recording controls; the recordings kept on this computer with their
// state, the results the service made of uploaded ones, and while recording the live
// advice (its page comes forward when a recording starts). Identifier "main". On desktops
// without a tray it is the way in.
#include <QWidget>

class QLabel;
class QPushButton;
class QTableWidget;
class QTabWidget;

namespace vell::tray {

class Backend;
class LiveView;
class ResultsView;

class MainWindow final : public QWidget {
    Q_OBJECT
public:
    explicit MainWindow(Backend& backend, QWidget* parent = nullptr);
    void render();
    // Brings a page forward: "computer", "results" or "live".
    void showPage(const QString& page);
    ResultsView& results() const { return *results_; }
    LiveView& live() const { return *live_; }

signals:
    void openWindow(const QString& identifier);
    void quitRequested();

private:
    Backend& backend_;
    QPushButton* record_;
    QLabel* elapsed_;
    QLabel* account_;
    QPushButton* signIn_;
    QTabWidget* tabs_;
    QWidget* computer_;
    ResultsView* results_;
    LiveView* live_;
    bool wasRecording_ = false;
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
