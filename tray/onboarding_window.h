#pragma once
// The first run: whether a microphone is there to record, what insurance mode keeps and
// its privacy acceptance, and opening at login. Identifier "onboarding".
#include <QWidget>

class QCheckBox;
class QLabel;
class QPushButton;
class QStackedWidget;

namespace vell {
class UserDefaults;
}

namespace vell::tray {

class Backend;

class OnboardingWindow final : public QWidget {
    Q_OBJECT
public:
    enum Page { microphonePage = 0, insurancePage = 1, loginPage = 2 };
    OnboardingWindow(Backend& backend, UserDefaults& defaults, QWidget* parent = nullptr);
    void showPage(Page page);
    void render();

private:
    void finish();

    Backend& backend_;
    UserDefaults& defaults_;
    QLabel* heading_;
    QLabel* step_;
    QStackedWidget* pages_;
    QLabel* welcome_;
    QLabel* micHeading_;
    QLabel* micIntro_;
    QLabel* micStatus_;
    QPushButton* checkAgain_;
    QLabel* insuranceHeading_;
    QLabel* privacy_;
    QCheckBox* acceptInsurance_;
    QLabel* loginHeading_;
    QLabel* loginIntro_;
    QCheckBox* openAtLogin_;
    QPushButton* back_;
    QPushButton* next_;
    bool loginTouched_ = false;
};

}  // namespace vell::tray
