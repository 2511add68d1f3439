#include "tray/login_window.h"

#include <QFormLayout>
#include <QPointer>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QStackedWidget>
#include <QVBoxLayout>

#include "tray/backend.h"
#include "tray/language_choice.h"
#include "tray/tray_messages.h"
#include "tray/ui_text.h"

namespace vell::tray {

namespace m = messages;

LoginWindow::LoginWindow(Backend& backend, QWidget* parent) : QWidget(parent, Qt::Window), backend_(backend) {
    setObjectName("login");
    auto* layout = new QVBoxLayout(this);
    heading_ = new QLabel(this);
    QFont big = heading_->font();
    big.setBold(true);
    big.setPointSizeF(big.pointSizeF() * 1.3);
    heading_->setFont(big);
    layout->addWidget(heading_);
    pages_ = new QStackedWidget(this);
    layout->addWidget(pages_);

    auto* credentials = new QWidget(pages_);
    auto* form = new QFormLayout(credentials);
    intro_ = new QLabel(credentials);
    intro_->setWordWrap(true);
    form->addRow(intro_);
    email_ = new QLineEdit(credentials);
    email_->setObjectName("email");
    email_->setInputMethodHints(Qt::ImhEmailCharactersOnly);
    password_ = new QLineEdit(credentials);
    password_->setObjectName("password");
    password_->setEchoMode(QLineEdit::Password);
    emailLabel_ = new QLabel(credentials);
    emailLabel_->setBuddy(email_);
    passwordLabel_ = new QLabel(credentials);
    passwordLabel_->setBuddy(password_);
    form->addRow(emailLabel_, email_);
    form->addRow(passwordLabel_, password_);
    signIn_ = new QPushButton(credentials);
    signIn_->setObjectName("signInButton");
    signIn_->setDefault(true);
    form->addRow(signIn_);
    pages_->addWidget(credentials);

    auto* second = new QWidget(pages_);
    auto* codeForm = new QFormLayout(second);
    codeIntro_ = new QLabel(second);
    codeIntro_->setObjectName("codeIntro");
    codeIntro_->setWordWrap(true);
    codeForm->addRow(codeIntro_);
    code_ = new QLineEdit(second);
    code_->setObjectName("code");
    codeLabel_ = new QLabel(second);
    codeLabel_->setBuddy(code_);
    codeForm->addRow(codeLabel_, code_);
    backupToggle_ = new QPushButton(second);
    backupToggle_->setObjectName("backupToggle");
    backupToggle_->setFlat(true);
    codeForm->addRow(backupToggle_);
    auto* buttons = new QHBoxLayout();
    back_ = new QPushButton(second);
    back_->setObjectName("backButton");
    verify_ = new QPushButton(second);
    verify_->setObjectName("verifyButton");
    verify_->setDefault(true);
    buttons->addWidget(back_);
    buttons->addStretch();
    buttons->addWidget(verify_);
    codeForm->addRow(buttons);
    pages_->addWidget(second);

    error_ = new QLabel(this);
    error_->setObjectName("errorLabel");
    error_->setWordWrap(true);
    layout->addWidget(error_);
    layout->addStretch();

    connect(signIn_, &QPushButton::clicked, this, &LoginWindow::submitCredentials);
    connect(password_, &QLineEdit::returnPressed, this, &LoginWindow::submitCredentials);
    connect(email_, &QLineEdit::returnPressed, this, [this] { password_->setFocus(); });
    connect(verify_, &QPushButton::clicked, this, &LoginWindow::submitCode);
    connect(code_, &QLineEdit::returnPressed, this, &LoginWindow::submitCode);
    connect(backupToggle_, &QPushButton::clicked, this, [this] {
        backupCode_ = !backupCode_;
        code_->clear();
        render();
        code_->setFocus();
    });
    connect(back_, &QPushButton::clicked, this, [this] {
        backend_.cancelSecondFactor();
        error_->clear();
        pages_->setCurrentIndex(0);
        render();
    });
    connect(&backend_, &Backend::changed, this, &LoginWindow::render);
    connect(&languageSignal(), &LanguageSignal::changed, this, &LoginWindow::render);
    setMinimumWidth(fontMetrics().averageCharWidth() * 56);
    render();
}

void LoginWindow::render() {
    const auto& s = backend_.state();
    const bool second = pages_->currentIndex() == 1;
    setWindowTitle(q(m::kSignInTitle));
    heading_->setText(second ? q(m::kTwoStepTitle) : q(m::kSignInTitle));
    intro_->setText(q(m::kSignInIntro));
    emailLabel_->setText(q(m::kEmail));
    passwordLabel_->setText(q(m::kPassword));
    signIn_->setText(busy_ && !second ? q(m::kSigningIn) : q(m::kSignIn));
    codeIntro_->setText(backupCode_ ? q(m::kBackupIntro) : q(m::kTwoStepIntro));
    codeLabel_->setText(backupCode_ ? q(m::kBackupCode) : q(m::kCode));
    code_->setInputMethodHints(backupCode_ ? Qt::ImhNone : Qt::ImhDigitsOnly);
    backupToggle_->setText(backupCode_ ? q(m::kUseAuthenticator) : q(m::kUseBackupCode));
    verify_->setText(busy_ && second ? q(m::kVerifying) : q(m::kVerify));
    back_->setText(q(m::kBack));
    // The host asked for the code (another front end may have started the sign-in).
    if (s.phase == SignInPhase::mfaRequired && !second && !busy_) {
        pages_->setCurrentIndex(1);
        render();
    }
}

void LoginWindow::setBusy(bool busy) {
    busy_ = busy;
    for (QWidget* w : std::initializer_list<QWidget*>{email_, password_, signIn_, code_, verify_, back_, backupToggle_})
        w->setEnabled(!busy);
    render();
}

void LoginWindow::submitCredentials() {
    if (busy_) return;
    const auto email = email_->text().trimmed().toStdString();
    const auto password = password_->text().toStdString();
    if (email.empty() || password.empty()) {
        error_->setText(q(m::kFillBoth));
        return;
    }
    error_->clear();
    setBusy(true);
    QPointer<LoginWindow> self(this);
    backend_.signIn(email, password, [self](Expected<bool, std::string> step) {
        if (!self) return;
        self->setBusy(false);
        if (!step) {
            self->error_->setText(q(step.error()));
            self->password_->selectAll();
            self->password_->setFocus();
            return;
        }
        self->password_->clear();
        if (*step) {
            self->backupCode_ = false;
            self->pages_->setCurrentIndex(1);
            self->render();
            self->code_->setFocus();
        } else {
            self->close();
        }
    });
}

void LoginWindow::submitCode() {
    if (busy_) return;
    const auto code = code_->text().trimmed().toStdString();
    if (code.empty()) {
        error_->setText(q(m::kEnterCode));
        return;
    }
    error_->clear();
    setBusy(true);
    QPointer<LoginWindow> self(this);
    backend_.verifyCode(code, [self](std::optional<std::string> error) {
        if (!self) return;
        self->setBusy(false);
        if (error) {
            self->error_->setText(q(*error));
            self->code_->selectAll();
            self->code_->setFocus();
            return;
        }
        self->code_->clear();
        self->pages_->setCurrentIndex(0);
        self->close();
    });
}

void LoginWindow::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    if (pages_->currentIndex() == 0) (email_->text().isEmpty() ? email_ : password_)->setFocus();
    else code_->setFocus();
}

void LoginWindow::closeEvent(QCloseEvent* event) {
    error_->clear();
    QWidget::closeEvent(event);
}

}  // namespace vell::tray
