#include "tray/text_fit.h"

#include <QAbstractButton>
#include <QLabel>
#include <QRegularExpression>
#include <QWidget>
#include <optional>

namespace vell::tray {

namespace {

QString describe(const QWidget* window, const QWidget* w, const QString& text, QSize needed) {
    QString name = w->objectName().isEmpty() ? QString("(unnamed)") : w->objectName();
    QString shown = text.simplified();
    if (shown.size() > 40) shown = shown.left(40) + "…";
    return QString("%1/%2 %3 '%4' needs %5x%6, has %7x%8")
        .arg(window->objectName(), name, w->metaObject()->className(), shown)
        .arg(needed.width())
        .arg(needed.height())
        .arg(w->width())
        .arg(w->height());
}

// A label's own need: one line for a plain label; for a wrapped one, its lines at its
// width and its longest word on one line.
std::optional<QSize> labelNeed(const QLabel* label) {
    if (label->text().isEmpty() || label->pixmap().isNull() == false) return std::nullopt;
    const QSize hint = label->sizeHint();
    if (!label->wordWrap()) return hint;
    const int width = label->width();
    QSize need(0, label->heightForWidth(width));
    const QString plain = label->textFormat() == Qt::PlainText ? label->text()
                                                                : QString(label->text()).remove(QRegularExpression("<[^>]*>"));
    const auto margins = label->contentsMargins();
    for (const QString& word : plain.split(QRegularExpression("\\s+"), Qt::SkipEmptyParts)) {
        need.setWidth(std::max(need.width(), label->fontMetrics().horizontalAdvance(word) + margins.left() + margins.right() +
                                                 2 * label->margin()));
    }
    return need;
}

}  // namespace

QStringList cutTexts(const QWidget* window) {
    QStringList cut;
    constexpr int kSlack = 1;  // rounding of fractional font metrics
    for (const QWidget* w : window->findChildren<QWidget*>()) {
        if (!w->isVisibleTo(window)) continue;
        // Cut off at the side by what holds it (a scroll area wider than its window): pages
        // may scroll down, never sideways.
        const QRect shown = w->visibleRegion().boundingRect();
        const bool hasText = (qobject_cast<const QLabel*>(w) && !qobject_cast<const QLabel*>(w)->text().isEmpty()) ||
                             (qobject_cast<const QAbstractButton*>(w) && !qobject_cast<const QAbstractButton*>(w)->text().isEmpty());
        if (hasText && !shown.isEmpty() && shown.width() + kSlack < w->width()) {
            const QString text = qobject_cast<const QLabel*>(w) ? qobject_cast<const QLabel*>(w)->text()
                                                                 : qobject_cast<const QAbstractButton*>(w)->text();
            cut << describe(window, w, text, w->size()) + QString(", shows %1 of its width").arg(shown.width());
            continue;
        }
        if (const auto* label = qobject_cast<const QLabel*>(w)) {
            const auto need = labelNeed(label);
            if (need && (need->width() > w->width() + kSlack || need->height() > w->height() + kSlack)) {
                cut << describe(window, w, label->text(), *need);
            }
        } else if (const auto* button = qobject_cast<const QAbstractButton*>(w)) {
            if (button->text().isEmpty()) continue;
            const QSize need = button->sizeHint();
            if (need.width() > w->width() + kSlack || need.height() > w->height() + kSlack) {
                cut << describe(window, w, button->text(), need);
            }
        }
    }
    return cut;
}

}  // namespace vell::tray
