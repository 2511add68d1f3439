#include "tray/panel.h"

#include <QCheckBox>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QScreen>
#include <QStyle>
#include <QVBoxLayout>

#include "audio/capture_messages.h"
#include "automation/automation_messages.h"
#include "tray/backend.h"
#include "tray/icons.h"
#include "tray/language_choice.h"
#include "tray/tray_messages.h"
#include "tray/ui_text.h"

namespace vell::tray {

namespace m = messages;

namespace {

QFrame* line(QWidget* parent) {
    auto* f = new QFrame(parent);
    f->setFrameShape(QFrame::HLine);
    f->setFrameShadow(QFrame::Sunken);
    return f;
}

QProgressBar* meter(QWidget* parent, const char* name) {
    auto* bar = new QProgressBar(parent);
    bar->setObjectName(name);
    bar->setRange(0, 100);
    bar->setTextVisible(false);
    bar->setMaximumHeight(bar->fontMetrics().height() / 2 + 2);
    return bar;
}

QLabel* wrapped(QWidget* parent, const char* name) {
    auto* label = new QLabel(parent);
    label->setObjectName(name);
    label->setWordWrap(true);
    return label;
}

// Fixed widths would cut words at 200 % or in Spanish: the panel is as wide as a line of
// about 46 average characters.
int panelWidth(const QWidget* w) { return w->fontMetrics().averageCharWidth() * 46; }

}  // namespace

Panel::Panel(Backend& backend, QWidget* parent) : QFrame(parent, Qt::Popup | Qt::FramelessWindowHint), backend_(backend) {
    setObjectName("panel");
    setFrameShape(QFrame::StyledPanel);
    setAutoFillBackground(true);
    auto* layout = new QVBoxLayout(this);

    auto* header = new QHBoxLayout();
    title_ = new QLabel(this);
    QFont bold = title_->font();
    bold.setBold(true);
    bold.setPointSizeF(bold.pointSizeF() * 1.15);
    title_->setFont(bold);
    statusLabel_ = new QLabel(this);
    statusLabel_->setObjectName("statusLabel");
    header->addWidget(title_);
    header->addStretch();
    header->addWidget(statusLabel_);
    layout->addLayout(header);

    auto* recordRow = new QHBoxLayout();
    recordButton_ = new QPushButton(this);
    recordButton_->setObjectName("recordButton");
    recordButton_->setDefault(true);
    elapsedLabel_ = new QLabel(this);
    elapsedLabel_->setObjectName("elapsedLabel");
    QFont mono = elapsedLabel_->font();
    mono.setFamily("monospace");
    mono.setStyleHint(QFont::Monospace);
    mono.setPointSizeF(mono.pointSizeF() * 1.3);
    elapsedLabel_->setFont(mono);
    recordRow->addWidget(recordButton_);
    recordRow->addStretch();
    recordRow->addWidget(elapsedLabel_);
    layout->addLayout(recordRow);

    auto* levels = new QGridLayout();
    microphoneCaption_ = new QLabel(this);
    systemCaption_ = new QLabel(this);
    microphoneLevel_ = meter(this, "microphoneLevel");
    systemLevel_ = meter(this, "systemLevel");
    levels->addWidget(microphoneCaption_, 0, 0);
    levels->addWidget(microphoneLevel_, 0, 1);
    levels->addWidget(systemCaption_, 1, 0);
    levels->addWidget(systemLevel_, 1, 1);
    levels->setColumnStretch(1, 1);
    layout->addLayout(levels);

    microphoneLabel_ = wrapped(this, "microphoneLabel");
    callersLabel_ = wrapped(this, "callersLabel");
    errorLabel_ = wrapped(this, "errorLabel");
    errorLabel_->setForegroundRole(QPalette::Highlight);
    layout->addWidget(microphoneLabel_);
    layout->addWidget(callersLabel_);
    layout->addWidget(errorLabel_);

    undoButton_ = new QPushButton(this);
    undoButton_->setObjectName("undoButton");
    undoButton_->setIcon(style()->standardIcon(QStyle::SP_TrashIcon));
    layout->addWidget(undoButton_);

    layout->addWidget(line(this));
    pendingHeading_ = new QLabel(this);
    pendingHeading_->setFont(bold);
    pendingHeading_->setWordWrap(true);
    layout->addWidget(pendingHeading_);
    pendingBox_ = new QWidget(this);
    pendingBox_->setObjectName("pendingList");
    pendingLayout_ = new QVBoxLayout(pendingBox_);
    pendingLayout_->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(pendingBox_);

    layout->addWidget(line(this));
    auto* insuranceRow = new QHBoxLayout();
    insuranceSwitch_ = new QCheckBox(this);
    insuranceSwitch_->setObjectName("insuranceSwitch");
    recoverButton_ = new QPushButton(this);
    recoverButton_->setObjectName("recoverButton");
    insuranceRow->addWidget(insuranceSwitch_);
    insuranceRow->addStretch();
    insuranceRow->addWidget(recoverButton_);
    layout->addLayout(insuranceRow);
    insuranceLabel_ = wrapped(this, "insuranceLabel");
    layout->addWidget(insuranceLabel_);

    layout->addWidget(line(this));
    auto* account = new QHBoxLayout();
    accountLabel_ = wrapped(this, "accountLabel");
    signInButton_ = new QPushButton(this);
    signInButton_->setObjectName("signInButton");
    signOutButton_ = new QPushButton(this);
    signOutButton_->setObjectName("signOutButton");
    account->addWidget(accountLabel_, 1);
    account->addWidget(signInButton_);
    account->addWidget(signOutButton_);
    layout->addLayout(account);

    auto* footer = new QHBoxLayout();
    openButton_ = new QPushButton(this);
    openButton_->setObjectName("openButton");
    settingsButton_ = new QPushButton(this);
    settingsButton_->setObjectName("settingsButton");
    quitButton_ = new QPushButton(this);
    quitButton_->setObjectName("quitButton");
    footer->addWidget(openButton_);
    footer->addWidget(settingsButton_);
    footer->addStretch();
    footer->addWidget(quitButton_);
    layout->addLayout(footer);

    connect(recordButton_, &QPushButton::clicked, this, [this] {
        if (backend_.state().recording) backend_.stopRecording(false);
        else backend_.startRecording();
    });
    connect(undoButton_, &QPushButton::clicked, this, [this] { backend_.undo(); });
    connect(insuranceSwitch_, &QCheckBox::toggled, this, [this](bool on) {
        // Switching on before the privacy explanation was accepted goes through the window
        // that shows it.
        if (on && !backend_.state().privacyAccepted) {
            QSignalBlocker block(insuranceSwitch_);
            insuranceSwitch_->setChecked(false);
            emit openWindow("onboarding");
            return;
        }
        if (on) backend_.enableInsurance();
        else backend_.disableInsurance();
    });
    connect(recoverButton_, &QPushButton::clicked, this, [this] {
        hide();
        emit openWindow("recover");
    });
    connect(signInButton_, &QPushButton::clicked, this, [this] {
        hide();
        emit openWindow("login");
    });
    connect(signOutButton_, &QPushButton::clicked, this, [this] { backend_.signOut(); });
    connect(openButton_, &QPushButton::clicked, this, [this] {
        hide();
        emit openWindow("main");
    });
    connect(settingsButton_, &QPushButton::clicked, this, [this] {
        hide();
        emit openWindow("settings");
    });
    connect(quitButton_, &QPushButton::clicked, this, [this] {
        hide();
        emit quitRequested();
    });
    connect(&backend_, &Backend::changed, this, &Panel::render);
    connect(&languageSignal(), &LanguageSignal::changed, this, [this] {
        shownPending_.clear();
        render();
    });
    setMinimumWidth(panelWidth(this));
    render();
}

void Panel::render() {
    const auto& s = backend_.state();
    title_->setText(q(m::kAppName));
    QString status = s.recording ? q(m::kRecordingNow) : s.starting ? q(m::kStarting) : q(m::kNotRecording);
    // A recording started by the calendar says which meeting it is.
    if (s.recording && !s.calendarMeeting.empty()) status += QString::fromUtf8(" \u201c") + q(s.calendarMeeting) + QString::fromUtf8("\u201d");
    statusLabel_->setText(status);
    recordButton_->setText(s.recording ? q(m::kStop) : s.starting ? q(m::kStarting) : q(m::kRecord));
    recordButton_->setIcon(s.recording ? style()->standardIcon(QStyle::SP_MediaStop) : recordSymbol());
    recordButton_->setEnabled(!s.starting || s.recording);
    elapsedLabel_->setText(elapsedText(s.recording ? s.elapsed : 0));
    microphoneCaption_->setText(q(m::kMicrophone));
    systemCaption_->setText(q(m::kSystemAudio));
    microphoneLevel_->setValue(int(std::clamp(s.microphoneLevel, 0.0, 1.0) * 100));
    systemLevel_->setValue(int(std::clamp(s.systemLevel, 0.0, 1.0) * 100));
    microphoneLevel_->setEnabled(s.recording);
    systemLevel_->setEnabled(s.recording);

    QString mic = q(m::kMicrophone) + ": ";
    if (s.microphoneDisconnected) mic += q(audio::messages::kDisconnectedMicrophone) + " → " + q(s.microphone);
    else mic += q(s.microphone);
    microphoneLabel_->setText(mic);
    microphoneLabel_->setVisible(!s.microphone.empty() || s.microphoneDisconnected);

    QStringList callers;
    for (const auto& c : s.callers) callers << q(c);
    callersLabel_->setText(q(m::kInCall) + callers.join(", "));
    callersLabel_->setVisible(!callers.isEmpty());
    errorLabel_->setText(q(s.lastError));
    errorLabel_->setVisible(!s.lastError.empty());

    undoButton_->setText(q(automation::messages::kUndo) + (s.undoMeeting.empty() ? QString() : " · " + q(s.undoMeeting)) +
                         QString(" (%1)").arg(elapsedText(s.undoSecondsLeft)));
    undoButton_->setToolTip(q(automation::messages::kNothingKept));
    undoButton_->setVisible(s.undoAvailable);

    pendingHeading_->setText(q(m::kPendingHeading));
    renderPending();

    {
        QSignalBlocker block(insuranceSwitch_);
        insuranceSwitch_->setChecked(s.insuranceEnabled);
    }
    insuranceSwitch_->setText(q(m::kInsuranceMode));
    recoverButton_->setText(q(m::kRecoverSpeech));
    recoverButton_->setEnabled(s.insuranceEnabled);
    QString insurance;
    if (s.insuranceEnabled) {
        insurance = s.insuranceListening ? q(m::kListeningOn) + q(s.insuranceDevice) : q(m::kNotListening);
        insurance += " · " + q(m::kBuffered) + spanText(s.bufferedSeconds);
        if (!s.insuranceError.empty()) insurance += "\n" + q(s.insuranceError);
    }
    // Shown even after the mode is switched off: the user should still see what left.
    for (const auto& answer : s.agentRequests) {
        if (!insurance.isEmpty()) insurance += "\n";
        insurance += q(vell::insurance::answerLine(answer, interfaceLanguage()));
    }
    insuranceLabel_->setText(insurance);
    insuranceLabel_->setVisible(!insurance.isEmpty());

    switch (s.phase) {
        case SignInPhase::signedIn: accountLabel_->setText(q(m::kSignedInAs) + q(s.email)); break;
        case SignInPhase::launching: accountLabel_->setText(q(m::kCheckingSession)); break;
        case SignInPhase::mfaRequired: accountLabel_->setText(q(m::kCodeAsked)); break;
        case SignInPhase::signedOut: accountLabel_->setText(q(m::kNotSignedIn)); break;
    }
    if (backend_.remote()) accountLabel_->setToolTip(q(m::kFrontEndOf));
    signInButton_->setText(q(m::kSignInEllipsis));
    signInButton_->setVisible(s.phase == SignInPhase::signedOut || s.phase == SignInPhase::mfaRequired);
    signOutButton_->setText(q(m::kSignOut));
    signOutButton_->setVisible(s.phase == SignInPhase::signedIn);
    openButton_->setText(q(m::kOpenVell));
    settingsButton_->setText(q(m::kSettingsEllipsis));
    quitButton_->setText(q(m::kQuitVell));
}

// Only what still waits (or failed) is listed; the main window lists everything.
void Panel::renderPending() {
    const auto& s = backend_.state();
    std::vector<const PendingRow*> rows;
    for (auto it = s.pending.rbegin(); it != s.pending.rend(); ++it) {
        if (it->status == "uploaded" || it->status == "discarded") continue;
        rows.push_back(&*it);
        if (rows.size() == 5) break;
    }
    std::string key;
    for (const auto* r : rows) {
        key += r->id + r->status + r->lastError + std::to_string(r->attempts) +
               std::to_string(int(r->progress.value_or(-1) * 100)) + ";";
    }
    if (key == shownPending_ && pendingBox_->layout()->count() > 0) return;
    shownPending_ = key;
    while (auto* item = pendingLayout_->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    if (rows.empty()) {
        auto* none = new QLabel(q(m::kNothingPending), pendingBox_);
        none->setObjectName("nothingPending");
        none->setEnabled(false);
        pendingLayout_->addWidget(none);
        return;
    }
    for (const auto* r : rows) {
        auto* row = new QWidget(pendingBox_);
        row->setObjectName(QString::fromStdString("pending-" + r->id));
        auto* v = new QVBoxLayout(row);
        v->setContentsMargins(0, 2, 0, 2);
        auto* top = new QHBoxLayout();
        auto* what = new QLabel(dateText(r->startedAt) + " · " + statusText(r->status), row);
        what->setObjectName("pendingStatus");
        what->setWordWrap(true);
        top->addWidget(what, 1);
        if (r->status == "failed" || r->status == "ready") {
            auto* retry = new QPushButton(q(r->status == "failed" ? m::kRetry : m::kUploadNow), row);
            retry->setObjectName("retryButton");
            connect(retry, &QPushButton::clicked, this, [this] { backend_.retryUploads(); });
            top->addWidget(retry);
        }
        v->addLayout(top);
        if (r->progress) {
            auto* progress = new QProgressBar(row);
            progress->setObjectName("uploadProgress");
            progress->setRange(0, 100);
            progress->setValue(int(*r->progress * 100));
            v->addWidget(progress);
        }
        if (!r->lastError.empty()) {
            auto* error = new QLabel(q(r->lastError) + q(m::kAttempts) + QString::number(r->attempts), row);
            error->setObjectName("pendingError");
            error->setWordWrap(true);
            v->addWidget(error);
        }
        pendingLayout_->addWidget(row);
    }
    // Rows that came while it is open make it grow rather than squeeze their text.
    if (isVisible()) QMetaObject::invokeMethod(this, [this] { place(); }, Qt::QueuedConnection);
}

void Panel::place() {
    adjustSize();
    QScreen* screen = QGuiApplication::screenAt(anchor_);
    if (!screen) screen = QGuiApplication::primaryScreen();
    const QRect area = screen ? screen->availableGeometry() : QRect(0, 0, 1920, 1080);
    QPoint at(anchor_.x() - width() / 2, anchor_.y());
    // Below a panel at the top of the screen, above one at the bottom.
    if (anchor_.y() > area.center().y()) at.setY(anchor_.y() - height());
    at.setX(std::clamp(at.x(), area.left(), std::max(area.left(), area.right() - width())));
    at.setY(std::clamp(at.y(), area.top(), std::max(area.top(), area.bottom() - height())));
    move(at);
}

void Panel::popUpAt(const QPoint& anchor) {
    anchor_ = anchor;
    place();
    show();
    raise();
    activateWindow();
    recordButton_->setFocus();
}

}  // namespace vell::tray
