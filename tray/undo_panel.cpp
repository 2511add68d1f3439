#include "tray/undo_panel.h"

#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QStyle>
#include <QToolButton>

#include "automation/automation_messages.h"
#include "tray/backend.h"
#include "tray/language_choice.h"
#include "tray/ui_text.h"

namespace vell::tray {

namespace am = automation::messages;

UndoPanel::UndoPanel(Backend& backend, QWidget* parent)
    : QFrame(parent, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint), backend_(backend) {
    setObjectName("undoPanel");
    setAttribute(Qt::WA_ShowWithoutActivating);
    setFrameShape(QFrame::StyledPanel);
    setAutoFillBackground(true);
    auto* layout = new QHBoxLayout(this);
    icon_ = new QLabel(this);
    const int side = fontMetrics().height() * 2;
    icon_->setPixmap(style()->standardIcon(QStyle::SP_TrashIcon).pixmap(side, side));
    headline_ = new QLabel(this);
    headline_->setObjectName("headline");
    headline_->setWordWrap(true);
    undo_ = new QPushButton(this);
    undo_->setObjectName("undoButton");
    undo_->setDefault(true);
    close_ = new QToolButton(this);
    close_->setObjectName("closeButton");
    close_->setIcon(style()->standardIcon(QStyle::SP_TitleBarCloseButton));
    close_->setAutoRaise(true);
    layout->addWidget(icon_);
    layout->addWidget(headline_, 1);
    layout->addWidget(undo_);
    layout->addWidget(close_, 0, Qt::AlignTop);

    connect(undo_, &QPushButton::clicked, this, [this] {
        backend_.undo();
        hide();
    });
    // Closing keeps the discard undoable from the tray until its window ends.
    connect(close_, &QToolButton::clicked, this, &QWidget::hide);
    connect(&backend_, &Backend::changed, this, [this] {
        if (!backend_.state().undoAvailable) hide();
        render();
    });
    connect(&languageSignal(), &LanguageSignal::changed, this, &UndoPanel::render);
    setMinimumWidth(fontMetrics().averageCharWidth() * 50);
    render();
}

void UndoPanel::render() {
    headline_->setText(q(am::kNothingKept));
    undo_->setText(q(am::kUndo));
    close_->setToolTip(q(am::kClosePanel));
    close_->setAccessibleName(q(am::kClosePanel));
}

void UndoPanel::present() {
    adjustSize();
    if (auto* screen = QGuiApplication::primaryScreen()) {
        const QRect area = screen->availableGeometry();
        const int margin = fontMetrics().height();
        move(area.right() - width() - margin, area.top() + margin);
    }
    show();
    raise();
}

}  // namespace vell::tray
