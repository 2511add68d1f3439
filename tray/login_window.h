#pragma once
// Sign-in: email and password, then (when the account asks for it) the six-digit code of
// an authenticator app or one of the account's backup codes. Identifier "login".
#include <QWidget>

class QLabel;
class QLineEdit;
class QPushButton;
class QStackedWidget;

namespace vell::tray {

class Backend;

class LoginWindow final : public QWidget {
    Q_OBJECT
public:
    explicit LoginWindow(Backend& backend, QWidget* parent = nullptr);
    void render();

protected:
    void showEvent(QShowEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    void submitCredentials();
    void submitCode();
    void setBusy(bool busy);

    Backend& backend_;
    QStackedWidget* pages_;
    QLabel* heading_;
    QLabel* intro_;
    QLabel* emailLabel_;
    QLabel* passwordLabel_;
    QLineEdit* email_;
    QLineEdit* password_;
    QPushButton* signIn_;
    QLabel* codeIntro_;
    QLabel* codeLabel_;
    QLineEdit* code_;
    QPushButton* backupToggle_;
    QPushButton* verify_;
    QPushButton* back_;
    QLabel* error_;
    bool busy_ = false;
    bool backupCode_ = false;
};

}  // namespace vell::tray
