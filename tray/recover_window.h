#pragma once
// The "Recover speech" panel: which stretch of the insurance buffer (last minute, last
// five, a custom number of minutes, everything kept), its draft and then final text,
// playback of that stretch when this host offers it, and copy with its confirmations.
// Identifier "recover".
#include <QWidget>

class QComboBox;
class QLabel;
class QPlainTextEdit;
class QPushButton;
class QSlider;
class QSpinBox;

namespace vell::tray {

class Backend;

class RecoverWindow final : public QWidget {
    Q_OBJECT
public:
    explicit RecoverWindow(Backend& backend, QWidget* parent = nullptr);
    void render();

protected:
    void showEvent(QShowEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    void choose();

    Backend& backend_;
    QLabel* intro_;
    QLabel* rangeLabel_;
    QComboBox* range_;
    QSpinBox* minutes_;
    QLabel* status_;
    QPlainTextEdit* text_;
    QPushButton* play_;
    QSlider* position_;
    QPushButton* copy_;
    QLabel* confirmation_;
};

}  // namespace vell::tray
