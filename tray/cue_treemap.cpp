#include "tray/cue_treemap.h"

#include <QHelpEvent>
#include <QPainter>
#include <QTextLayout>
#include <QToolTip>
#include <algorithm>
#include <cmath>
#include <numeric>

#include "tray/ui_text.h"

namespace vell::tray {

namespace {

// The worst aspect ratio of a row of areas laid along a side of length `side`.
double worst(double sum, double smallest, double largest, double side) {
    const double s2 = sum * sum, w2 = side * side;
    return std::max(w2 * largest / s2, s2 / (w2 * smallest));
}

double luminance(const QColor& c) { return 0.2126 * c.redF() + 0.7152 * c.greenF() + 0.0722 * c.blueF(); }

QColor mix(const QColor& a, const QColor& b, double t) {
    return QColor::fromRgbF(float(a.redF() * (1 - t) + b.redF() * t), float(a.greenF() * (1 - t) + b.greenF() * t),
                            float(a.blueF() * (1 - t) + b.blueF() * t));
}

// The sentence wrapped into the box; a last line that cannot hold the rest ends in "…".
void drawWrapped(QPainter& painter, const QRectF& box, const QString& text, const QFontMetrics& metrics) {
    const int most = int(box.height() / metrics.height());
    if (most <= 0) return;
    QTextLayout layout(text, painter.font());
    layout.beginLayout();
    QStringList lines;
    for (int n = 0; n < most; ++n) {
        QTextLine line = layout.createLine();
        if (!line.isValid()) break;
        line.setLineWidth(box.width());
        const bool more = line.textStart() + line.textLength() < text.size();
        if (n == most - 1 && more) {
            lines << metrics.elidedText(text.mid(line.textStart()), Qt::ElideRight, int(box.width()));
            break;
        }
        lines << text.mid(line.textStart(), line.textLength()).trimmed();
    }
    layout.endLayout();
    for (int i = 0; i < lines.size(); ++i)
        painter.drawText(QPointF(box.left(), box.top() + metrics.ascent() + i * metrics.height()), lines[i]);
}

}  // namespace

std::vector<QRectF> squarify(const std::vector<double>& weights, const QRectF& bounds) {
    std::vector<QRectF> out(weights.size());
    std::vector<size_t> order;
    for (size_t i = 0; i < weights.size(); ++i)
        if (std::isfinite(weights[i]) && weights[i] > 0) order.push_back(i);
    const double total = std::accumulate(order.begin(), order.end(), 0.0, [&](double s, size_t i) { return s + weights[i]; });
    if (order.empty() || !(total > 0) || bounds.width() <= 0 || bounds.height() <= 0) return out;
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return weights[a] > weights[b]; });
    const double scale = bounds.width() * bounds.height() / total;

    QRectF free = bounds;
    size_t start = 0;
    while (start < order.size()) {
        const bool wide = free.width() >= free.height();
        const double side = wide ? free.height() : free.width();
        // Grow the row while the worst tile in it gets closer to square.
        double sum = weights[order[start]] * scale;
        double largest = sum, smallest = sum;
        double best = worst(sum, smallest, largest, side);
        size_t end = start + 1;
        while (end < order.size()) {
            const double area = weights[order[end]] * scale;
            const double next = worst(sum + area, std::min(smallest, area), largest, side);
            if (next > best) break;
            best = next;
            sum += area;
            smallest = std::min(smallest, area);
            ++end;
        }
        // The row takes a strip of the free space: a column on the left when it is wide,
        // a row at the top otherwise. The last row takes what is left exactly.
        const bool last = end == order.size();
        const double thickness = last ? (wide ? free.width() : free.height()) : sum / side;
        double along = wide ? free.top() : free.left();
        for (size_t k = start; k < end; ++k) {
            const double area = weights[order[k]] * scale;
            double length = area / thickness;
            if (k + 1 == end) length = (wide ? free.bottom() : free.right()) - along;  // no sliver from rounding
            out[order[k]] = wide ? QRectF(free.left(), along, thickness, length) : QRectF(along, free.top(), length, thickness);
            along += length;
        }
        if (wide) free.setLeft(free.left() + thickness);
        else free.setTop(free.top() + thickness);
        start = end;
    }
    return out;
}

CueTreemap::CueTreemap(QWidget* parent) : QWidget(parent) {
    setObjectName("cueTreemap");
    setMouseTracking(true);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
}

void CueTreemap::setTiles(std::vector<live::Tile> tiles) {
    if (tiles == tiles_) return;
    tiles_ = std::move(tiles);
    update();
}

std::vector<QRectF> CueTreemap::layout() const {
    std::vector<double> weights;
    for (const auto& t : tiles_) weights.push_back(t.weight);
    return squarify(weights, QRectF(rect()));
}

QSize CueTreemap::sizeHint() const { return {fontMetrics().averageCharWidth() * 60, fontMetrics().height() * 12}; }
QSize CueTreemap::minimumSizeHint() const { return {fontMetrics().averageCharWidth() * 20, fontMetrics().height() * 5}; }

void CueTreemap::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QPalette& p = palette();
    const auto rects = layout();
    const QColor accent = p.color(QPalette::Highlight), ground = p.color(QPalette::Base);
    const QColor texts[] = {p.color(QPalette::Text), p.color(QPalette::HighlightedText)};
    const int pad = fontMetrics().averageCharWidth();
    QFont bold = font();
    bold.setBold(true);
    for (size_t i = 0; i < tiles_.size(); ++i) {
        const QRectF r = rects[i].adjusted(1.5, 1.5, -1.5, -1.5);
        if (r.width() <= 0 || r.height() <= 0) continue;
        // The heaviest in the accent colour, the lighter ones fading towards the background.
        const QColor fill = mix(accent, ground, std::min(0.65, 0.15 * double(i)));
        painter.setPen(Qt::NoPen);
        painter.setBrush(fill);
        painter.drawRoundedRect(r, 4, 4);
        // Whichever of the palette's text colours stands out more on this fill.
        const QColor ink = std::abs(luminance(texts[0]) - luminance(fill)) >= std::abs(luminance(texts[1]) - luminance(fill))
                               ? texts[0] : texts[1];
        painter.setPen(ink);
        const QRectF inner = r.adjusted(pad, pad / 2.0, -pad, -pad / 2.0);
        if (inner.width() <= 0 || inner.height() < fontMetrics().height() * 0.8) continue;
        const QFontMetrics boldMetrics(bold);
        painter.setFont(bold);
        painter.drawText(inner, Qt::AlignLeft | Qt::AlignTop,
                         boldMetrics.elidedText(q(live::tileTitle(tiles_[i])), Qt::ElideRight, int(inner.width())));
        const QRectF body = inner.adjusted(0, boldMetrics.height(), 0, 0);
        painter.setFont(font());
        drawWrapped(painter, body, q(live::tileText(tiles_[i])), fontMetrics());
    }
}

bool CueTreemap::event(QEvent* event) {
    if (event->type() == QEvent::ToolTip) {
        auto* help = static_cast<QHelpEvent*>(event);
        const auto rects = layout();
        for (size_t i = 0; i < tiles_.size(); ++i) {
            if (rects[i].contains(help->pos())) {
                QToolTip::showText(help->globalPos(),
                                   "<b>" + q(live::tileTitle(tiles_[i])).toHtmlEscaped() + "</b><br>" + q(live::tileText(tiles_[i])).toHtmlEscaped(),
                                   this, rects[i].toRect());
                return true;
            }
        }
        QToolTip::hideText();
        event->ignore();
        return true;
    }
    return QWidget::event(event);
}

}  // namespace vell::tray
