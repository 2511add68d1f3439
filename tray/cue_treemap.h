#pragma once
// The live advice as a treemap: one tile per cue, its area in proportion to the cue's
// weight, heaviest in the top left. The layout is a pure function (squarified: rows are
// grown while that keeps the tiles closer to square). GUI thread.
#include <QRectF>
#include <QWidget>
#include <vector>

#include "live/live_api.h"

namespace vell::tray {

// One rectangle per weight, in the order given, filling `bounds` without overlap; a weight
// that is not positive (or not a number) gets an empty rectangle.
std::vector<QRectF> squarify(const std::vector<double>& weights, const QRectF& bounds);

class CueTreemap final : public QWidget {
    Q_OBJECT
public:
    explicit CueTreemap(QWidget* parent = nullptr);
    void setTiles(std::vector<live::Tile> tiles);
    const std::vector<live::Tile>& tiles() const { return tiles_; }
    // Where each tile is drawn now (same order as tiles()).
    std::vector<QRectF> layout() const;
    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    bool event(QEvent* event) override;

private:
    std::vector<live::Tile> tiles_;
};

}  // namespace vell::tray
