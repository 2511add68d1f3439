#include "tray/icons.h"

#include <QPainter>
#include <QPainterPath>
#include <QPixmap>

namespace vell::tray {

QColor recordingColor() { return QColor(0xE5, 0x39, 0x35); }
QColor troubleColor() { return QColor(0xF5, 0x9E, 0x0B); }

namespace {

// The waveform: five rounded bars.
void drawWave(QPainter& p, double size, const QColor& color) {
    const double heights[] = {0.30, 0.62, 0.86, 0.55, 0.34};
    const double bar = size * 0.11, gap = size * 0.07;
    double x = (size - (5 * bar + 4 * gap)) / 2;
    p.setPen(Qt::NoPen);
    p.setBrush(color);
    for (double h : heights) {
        const double height = h * size * 0.9;
        p.drawRoundedRect(QRectF(x, (size - height) / 2, bar, height), bar / 2, bar / 2);
        x += bar + gap;
    }
}

QPixmap draw(IconState state, const QPalette& palette, int size) {
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    const QColor ink = palette.color(QPalette::WindowText);
    const double s = size;
    switch (state) {
        case IconState::idle:
            drawWave(p, s, ink);
            break;
        case IconState::recording:
            drawWave(p, s, ink);
            p.setBrush(recordingColor());
            p.setPen(QPen(palette.color(QPalette::Window), s * 0.04));
            p.drawEllipse(QRectF(s * 0.56, s * 0.02, s * 0.42, s * 0.42));
            break;
        case IconState::insurance: {
            drawWave(p, s, ink);
            // A ring around the wave: listening all the time.
            p.setBrush(Qt::NoBrush);
            p.setPen(QPen(palette.color(QPalette::Highlight), s * 0.07));
            p.drawEllipse(QRectF(s * 0.05, s * 0.05, s * 0.9, s * 0.9));
            break;
        }
        case IconState::uploadTrouble: {
            drawWave(p, s, ink);
            QPainterPath triangle;
            triangle.moveTo(s * 0.77, s * 0.50);
            triangle.lineTo(s * 0.99, s * 0.95);
            triangle.lineTo(s * 0.55, s * 0.95);
            triangle.closeSubpath();
            p.setPen(Qt::NoPen);
            p.setBrush(troubleColor());
            p.drawPath(triangle);
            p.setBrush(Qt::black);
            p.drawRect(QRectF(s * 0.755, s * 0.64, s * 0.03, s * 0.17));
            p.drawRect(QRectF(s * 0.755, s * 0.85, s * 0.03, s * 0.04));
            break;
        }
    }
    return pixmap;
}

}  // namespace

QIcon recordSymbol() {
    QIcon drawn;
    for (int size : {16, 22, 24, 32, 48}) {
        QPixmap pixmap(size, size);
        pixmap.fill(Qt::transparent);
        QPainter p(&pixmap);
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(Qt::NoPen);
        p.setBrush(recordingColor());
        p.drawEllipse(QRectF(size * 0.2, size * 0.2, size * 0.6, size * 0.6));
        drawn.addPixmap(pixmap);
    }
    return QIcon::fromTheme(QStringLiteral("media-record"), drawn);
}

QString themeName(IconState state) {
    switch (state) {
        case IconState::idle: return QStringLiteral("vell-idle");
        case IconState::recording: return QStringLiteral("vell-recording");
        case IconState::insurance: return QStringLiteral("vell-insurance");
        case IconState::uploadTrouble: return QStringLiteral("vell-upload-trouble");
    }
    return QStringLiteral("vell-idle");
}

QIcon trayIcon(IconState state, const QPalette& palette) {
    QIcon drawn;
    for (int size : {16, 22, 24, 32, 48, 64, 128}) drawn.addPixmap(draw(state, palette, size));
    // Installed, the icon goes to the panel by its theme name, so the panel scales and
    // recolours it itself; a build that is not installed sends the drawn pictures.
    return QIcon::fromTheme(themeName(state), drawn);
}

}  // namespace vell::tray
