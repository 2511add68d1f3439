#pragma once
// Every preference a user sets: the task-switcher entry, open at login (with the desktop's
// real state), the interface language, the microphones for recordings and for insurance
// mode, insurance mode and its window, and the two automatic recorders with the calendars
// to read. Identifier "settings".
#include <QWidget>

class QCheckBox;
class QComboBox;
class QGroupBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;
class QScrollArea;
class QSpinBox;

namespace vell {
class UserDefaults;
}

namespace vell::tray {

class Backend;

class SettingsWindow final : public QWidget {
    Q_OBJECT
public:
    SettingsWindow(Backend& backend, UserDefaults& defaults, QWidget* parent = nullptr);
    void render();

signals:
    // Insurance mode is switched on only after its privacy explanation was accepted.
    void privacyExplanationNeeded();

private:
    void fillMicrophones(QComboBox* box, const std::string& chosen);

    QScrollArea* scroll_ = nullptr;
    Backend& backend_;
    UserDefaults& defaults_;
    QGroupBox* general_;
    QCheckBox* taskSwitcher_;
    QLabel* taskSwitcherNote_;
    QCheckBox* openAtLogin_;
    QLabel* loginStatus_;
    QLabel* languageLabel_;
    QComboBox* language_;
    QGroupBox* microphones_;
    QLabel* recordingMicLabel_;
    QComboBox* recordingMic_;
    QLabel* insuranceMicLabel_;
    QComboBox* insuranceMic_;
    QLabel* bluetoothNote_;
    QLabel* hostNote_;
    QGroupBox* insurance_;
    QCheckBox* insuranceSwitch_;
    QLabel* windowLabel_;
    QSpinBox* window_;
    QGroupBox* automatic_;
    QCheckBox* calls_;
    QLabel* callsNote_;
    QCheckBox* calendar_;
    QLabel* calendarNote_;
    QLabel* sourcesLabel_;
    QListWidget* sources_;
    QLineEdit* newSource_;
    QPushButton* addSource_;
    QPushButton* removeSource_;
    QLabel* sourceError_;
};

}  // namespace vell::tray
