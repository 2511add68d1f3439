#include "tray/recover_window.h"

#include <QComboBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSlider>
#include <QSpinBox>
#include <QStyle>
#include <QVBoxLayout>

#include "insurance/insurance_messages.h"
#include "insurance/insurance_recovery_controller.h"
#include "tray/backend.h"
#include "tray/language_choice.h"
#include "tray/tray_messages.h"
#include "tray/ui_text.h"

namespace vell::tray {

namespace m = messages;

RecoverWindow::RecoverWindow(Backend& backend, QWidget* parent) : QWidget(parent, Qt::Window), backend_(backend) {
    setObjectName("recover");
    auto* layout = new QVBoxLayout(this);
    intro_ = new QLabel(this);
    intro_->setWordWrap(true);
    layout->addWidget(intro_);

    auto* rangeRow = new QHBoxLayout();
    rangeLabel_ = new QLabel(this);
    range_ = new QComboBox(this);
    range_->setObjectName("range");
    for (auto r : {RecoveryRange::lastMinute, RecoveryRange::lastFive, RecoveryRange::custom, RecoveryRange::all})
        range_->addItem(QString(), int(r));
    rangeLabel_->setBuddy(range_);
    minutes_ = new QSpinBox(this);
    minutes_->setObjectName("customMinutes");
    minutes_->setRange(int(insurance::kCustomMinutesMin), int(insurance::kCustomMinutesMax));
    minutes_->setValue(10);
    rangeRow->addWidget(rangeLabel_);
    rangeRow->addWidget(range_, 1);
    rangeRow->addWidget(minutes_);
    layout->addLayout(rangeRow);

    status_ = new QLabel(this);
    status_->setObjectName("statusLabel");
    status_->setWordWrap(true);
    layout->addWidget(status_);
    text_ = new QPlainTextEdit(this);
    text_->setObjectName("resultText");
    text_->setReadOnly(true);
    text_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    layout->addWidget(text_, 1);

    auto* buttons = new QHBoxLayout();
    play_ = new QPushButton(this);
    play_->setObjectName("playButton");
    position_ = new QSlider(Qt::Horizontal, this);
    position_->setObjectName("position");
    copy_ = new QPushButton(this);
    copy_->setObjectName("copyButton");
    copy_->setDefault(true);
    confirmation_ = new QLabel(this);
    confirmation_->setObjectName("copyConfirmation");
    buttons->addWidget(play_);
    buttons->addWidget(position_, 1);
    buttons->addWidget(confirmation_);
    buttons->addWidget(copy_);
    layout->addLayout(buttons);

    connect(range_, &QComboBox::activated, this, [this] { choose(); });
    connect(minutes_, &QSpinBox::editingFinished, this, [this] {
        if (RecoveryRange(range_->currentData().toInt()) == RecoveryRange::custom) choose();
    });
    connect(copy_, &QPushButton::clicked, this, [this] {
        backend_.recoverCopy(text_->textCursor().selectedText().replace(QChar::ParagraphSeparator, '\n').toStdString());
    });
    connect(play_, &QPushButton::clicked, this, [this] {
        if (backend_.recovery().playing) backend_.recoverPause();
        else backend_.recoverPlay();
    });
    connect(&backend_, &Backend::recoveryChanged, this, &RecoverWindow::render);
    connect(&backend_, &Backend::changed, this, &RecoverWindow::render);
    connect(&languageSignal(), &LanguageSignal::changed, this, &RecoverWindow::render);
    resize(fontMetrics().averageCharWidth() * 70, fontMetrics().height() * 24);
    render();
}

void RecoverWindow::choose() {
    backend_.recoverChoose(RecoveryRange(range_->currentData().toInt()), minutes_->value());
    render();
}

void RecoverWindow::render() {
    namespace im = insurance::messages;
    const auto& v = backend_.recovery();
    const auto& s = backend_.state();
    setWindowTitle(q(m::kRecoverTitle));
    intro_->setText(q(m::kRecoverIntro));
    rangeLabel_->setText(q(m::kRange));
    range_->setItemText(0, q(m::kLastMinute));
    range_->setItemText(1, q(m::kLastFive));
    range_->setItemText(2, q(m::kCustom));
    range_->setItemText(3, q(m::kEverything));
    minutes_->setSuffix(q(m::kMinutesSuffix));
    minutes_->setEnabled(RecoveryRange(range_->currentData().toInt()) == RecoveryRange::custom);

    QString status;
    if (!s.insuranceEnabled) status = q(m::kInsuranceOff);
    else if (v.phase == RecoveryView::Phase::failed) status = q(v.message);
    else if (v.phase == RecoveryView::Phase::transcribing && v.display.empty()) status = q(m::kTranscribing);
    else if (!v.hasSelection && v.display.empty()) status = q(im::kNothingSelected);
    status_->setText(status);
    status_->setVisible(!status.isEmpty());
    if (text_->toPlainText() != q(v.display)) text_->setPlainText(q(v.display));

    play_->setText(v.playing ? q(m::kPause) : q(m::kPlay));
    play_->setIcon(style()->standardIcon(v.playing ? QStyle::SP_MediaPause : QStyle::SP_MediaPlay));
    play_->setEnabled(v.canPlay && v.hasSelection);
    play_->setToolTip(v.canPlay ? QString() : q(m::kNoPlayback));
    position_->setVisible(v.canPlay);
    position_->setEnabled(v.playing);
    position_->setValue(int(v.position));
    copy_->setText(q(m::kCopy));
    copy_->setEnabled(!v.display.empty());
    confirmation_->setText(q(v.copyConfirmation));
}

void RecoverWindow::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    choose();
}

void RecoverWindow::closeEvent(QCloseEvent* event) {
    backend_.recoverClose();
    QWidget::closeEvent(event);
}

}  // namespace vell::tray
