#include "tray/onboarding_window.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QStackedWidget>
#include <QVBoxLayout>

#include "base/user_defaults.h"
#include "tray/backend.h"
#include "tray/language_choice.h"
#include "tray/tray_messages.h"
#include "tray/ui_text.h"

namespace vell::tray {

namespace m = messages;

namespace {
QLabel* text(QWidget* parent, const char* name = "") {
    auto* label = new QLabel(parent);
    label->setObjectName(name);
    label->setWordWrap(true);
    return label;
}
QLabel* heading(QWidget* parent) {
    auto* label = text(parent);
    QFont bold = label->font();
    bold.setBold(true);
    label->setFont(bold);
    return label;
}
}  // namespace

OnboardingWindow::OnboardingWindow(Backend& backend, UserDefaults& defaults, QWidget* parent)
    : QWidget(parent, Qt::Window), backend_(backend), defaults_(defaults) {
    setObjectName("onboarding");
    auto* layout = new QVBoxLayout(this);
    heading_ = text(this);
    QFont big = heading_->font();
    big.setBold(true);
    big.setPointSizeF(big.pointSizeF() * 1.4);
    heading_->setFont(big);
    step_ = text(this, "step");
    step_->setForegroundRole(QPalette::PlaceholderText);
    layout->addWidget(heading_);
    layout->addWidget(step_);
    pages_ = new QStackedWidget(this);
    layout->addWidget(pages_, 1);

    auto* mic = new QWidget(pages_);
    auto* mv = new QVBoxLayout(mic);
    welcome_ = text(mic);
    micHeading_ = heading(mic);
    micIntro_ = text(mic);
    micStatus_ = text(mic, "micStatus");
    checkAgain_ = new QPushButton(mic);
    checkAgain_->setObjectName("checkAgain");
    mv->addWidget(welcome_);
    mv->addSpacing(fontMetrics().height());
    mv->addWidget(micHeading_);
    mv->addWidget(micIntro_);
    mv->addWidget(micStatus_);
    mv->addWidget(checkAgain_, 0, Qt::AlignLeft);
    mv->addStretch();
    pages_->addWidget(mic);

    auto* ins = new QWidget(pages_);
    auto* iv = new QVBoxLayout(ins);
    insuranceHeading_ = heading(ins);
    privacy_ = text(ins, "privacy");
    acceptInsurance_ = new QCheckBox(ins);
    acceptInsurance_->setObjectName("acceptInsurance");
    iv->addWidget(insuranceHeading_);
    iv->addWidget(privacy_);
    iv->addWidget(acceptInsurance_);
    iv->addStretch();
    pages_->addWidget(ins);

    auto* login = new QWidget(pages_);
    auto* lv = new QVBoxLayout(login);
    loginHeading_ = heading(login);
    loginIntro_ = text(login);
    openAtLogin_ = new QCheckBox(login);
    openAtLogin_->setObjectName("openAtLogin");
    lv->addWidget(loginHeading_);
    lv->addWidget(loginIntro_);
    lv->addWidget(openAtLogin_);
    lv->addStretch();
    pages_->addWidget(login);

    auto* buttons = new QHBoxLayout();
    back_ = new QPushButton(this);
    back_->setObjectName("backButton");
    next_ = new QPushButton(this);
    next_->setObjectName("nextButton");
    next_->setDefault(true);
    buttons->addWidget(back_);
    buttons->addStretch();
    buttons->addWidget(next_);
    layout->addLayout(buttons);

    connect(checkAgain_, &QPushButton::clicked, this, [this] { backend_.refreshMicrophones(); });
    connect(openAtLogin_, &QCheckBox::toggled, this, [this] { loginTouched_ = true; });
    connect(back_, &QPushButton::clicked, this, [this] { showPage(Page(std::max(0, pages_->currentIndex() - 1))); });
    connect(next_, &QPushButton::clicked, this, [this] {
        if (pages_->currentIndex() == loginPage) finish();
        else showPage(Page(pages_->currentIndex() + 1));
    });
    connect(&backend_, &Backend::changed, this, &OnboardingWindow::render);
    connect(&languageSignal(), &LanguageSignal::changed, this, &OnboardingWindow::render);
    resize(fontMetrics().averageCharWidth() * 72, fontMetrics().height() * 22);
    {
        QSignalBlocker block(openAtLogin_);
        openAtLogin_->setChecked(backend_.state().opensAtLogin);
    }
    render();
}

void OnboardingWindow::showPage(Page page) {
    pages_->setCurrentIndex(page);
    render();
    next_->setFocus();
}

void OnboardingWindow::render() {
    const auto& s = backend_.state();
    setWindowTitle(q(m::kWelcomeTitle));
    heading_->setText(q(m::kWelcomeTitle));
    step_->setText(q(m::kStepOf).arg(pages_->currentIndex() + 1).arg(pages_->count()));
    welcome_->setText(q(m::kWelcomeIntro));
    micHeading_->setText(q(m::kMicrophoneAccess));
    micIntro_->setText(q(m::kMicrophoneAccessIntro));
    if (s.microphoneCount == 0) micStatus_->setText(q(m::kNoMicrophone));
    else micStatus_->setText(q(m::kMicrophoneFound) + q(s.microphone));
    checkAgain_->setText(q(m::kCheckAgain));
    insuranceHeading_->setText(q(m::kInsuranceMode));
    privacy_->setText(q(m::kInsurancePrivacy));
    acceptInsurance_->setText(q(m::kAcceptInsurance));
    if (s.insuranceEnabled) {
        QSignalBlocker block(acceptInsurance_);
        acceptInsurance_->setChecked(true);
    }
    loginHeading_->setText(q(m::kOpenAtLogin));
    loginIntro_->setText(q(m::kOpenAtLoginIntro));
    openAtLogin_->setText(q(m::kOpenAtLogin));
    if (!loginTouched_) {
        QSignalBlocker block(openAtLogin_);
        openAtLogin_->setChecked(s.opensAtLogin);
    }
    back_->setText(q(m::kBack));
    back_->setEnabled(pages_->currentIndex() > 0);
    next_->setText(pages_->currentIndex() == loginPage ? q(m::kDone) : q(m::kNext));
}

void OnboardingWindow::finish() {
    const auto& s = backend_.state();
    if (acceptInsurance_->isChecked() && !s.insuranceEnabled) backend_.enableInsurance();
    if (openAtLogin_->isChecked() != s.opensAtLogin) backend_.setOpensAtLogin(openAtLogin_->isChecked());
    defaults_.set(kOnboardingDoneKey, true);
    close();
}

}  // namespace vell::tray
