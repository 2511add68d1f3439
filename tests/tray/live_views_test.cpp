// The live page's parts: the treemap's layout (areas in proportion to the weights, inside
// the bounds, without overlap, close to square) and its painting with the palette; the cue
// feed (newest first, each change once, filtered on title and sentence ignoring case, in
// both languages).
#include <gtest/gtest.h>

#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPalette>
#include <QTabWidget>
#include <cmath>
#include <numeric>

#include "base/language.h"
#include "tests/tray/tray_rig.h"
#include "tray/cue_feed.h"
#include "tray/cue_treemap.h"
#include "tray/live_view.h"
#include "tray/main_window.h"
#include "tray/still_backend.h"
#include "tray/ui_text.h"

namespace vell::tray {
namespace {

using test::child;

double area(const QRectF& r) { return r.width() * r.height(); }

double overlap(const QRectF& a, const QRectF& b) {
    const QRectF i = a.intersected(b);
    return i.isValid() ? area(i) : 0.0;
}

// Every property a treemap must have, for one set of weights in one rectangle.
void expectTreemap(const std::vector<double>& weights, const QRectF& bounds) {
    SCOPED_TRACE(::testing::Message() << weights.size() << " weights in " << bounds.width() << "x" << bounds.height());
    const auto rects = squarify(weights, bounds);
    ASSERT_EQ(rects.size(), weights.size());
    double total = 0;
    for (double w : weights)
        if (std::isfinite(w) && w > 0) total += w;
    const double eps = 1e-6 * area(bounds);
    double covered = 0;
    for (size_t i = 0; i < weights.size(); ++i) {
        if (!(std::isfinite(weights[i]) && weights[i] > 0)) {
            EXPECT_TRUE(rects[i].isEmpty()) << "weight " << weights[i] << " got a tile";
            continue;
        }
        // Its own weight's share of the area, in the order given.
        EXPECT_NEAR(area(rects[i]), weights[i] / total * area(bounds), eps) << "tile " << i;
        EXPECT_GE(rects[i].left(), bounds.left() - 1e-9);
        EXPECT_GE(rects[i].top(), bounds.top() - 1e-9);
        EXPECT_LE(rects[i].right(), bounds.right() + 1e-9);
        EXPECT_LE(rects[i].bottom(), bounds.bottom() + 1e-9);
        covered += area(rects[i]);
        for (size_t j = i + 1; j < weights.size(); ++j) EXPECT_LE(overlap(rects[i], rects[j]), eps) << i << " and " << j;
    }
    EXPECT_NEAR(covered, area(bounds), eps * weights.size());
}

TEST(CueTreemapLayout, AreasFollowTheWeightsInsideTheBoundsWithoutOverlap) {
    const QRectF wide(10, 20, 640, 240), tall(0, 0, 180, 500);
    for (const auto& bounds : {wide, tall}) {
        expectTreemap({0.9, 0.55, 0.3, 0.2}, bounds);     // the service's usual four, heaviest first
        expectTreemap({0.2, 0.9, 0.05, 0.55, 0.3}, bounds);  // not sorted: each keeps its own tile
        expectTreemap({1.0}, bounds);
        expectTreemap({0.6, 0.0, -0.3, std::nan(""), 0.4}, bounds);  // nothing, negative or unreadable: no tile
        expectTreemap(std::vector<double>(13, 0.25), bounds);
        expectTreemap({1.0, 0.001, 0.001, 0.5}, bounds);    // slivers still inside and apart
    }
    EXPECT_TRUE(squarify({0.0, 0.0}, wide)[0].isEmpty());
    EXPECT_TRUE(squarify({0.5}, QRectF(0, 0, 0, 100))[0].isEmpty());
}

TEST(CueTreemapLayout, TilesStayCloseToSquare) {
    // Sixteen equal cues in a square: slicing into strips would give 16:1 tiles.
    const auto rects = squarify(std::vector<double>(16, 1.0), QRectF(0, 0, 400, 400));
    for (const auto& r : rects) {
        const double ratio = std::max(r.width() / r.height(), r.height() / r.width());
        EXPECT_LE(ratio, 2.0) << r.width() << "x" << r.height();
    }
    // The heaviest of a few sits in the top left corner.
    const auto few = squarify({0.3, 0.9, 0.5}, QRectF(0, 0, 300, 200));
    EXPECT_EQ(few[1].topLeft(), QPointF(0, 0));
}

live::Tile tile(const std::string& id, const std::string& kind, double weight, nlohmann::json data, long long atMs = 0) {
    live::Tile t;
    t.id = id;
    t.kind = kind;
    t.weight = weight;
    t.data = std::move(data);
    t.atMs = atMs;
    return t;
}

std::vector<live::Tile> sampleTiles() {
    return {tile("talk-time", "talkTime", 0.8, {{"shares", {{"1", 70}, {"2", 30}}}}, 30000),
            tile("questions", "questions", 0.4, {{"count", 3}}, 30000),
            tile("silence", "silence", 0.2, {{"count", 1}, {"longestMs", 12000}}, 30000)};
}

TEST(CueTreemapWidget, PaintsEachTileInAColourOfThePalette) {
    for (const bool dark : {false, true}) {
        CueTreemap map;
        QPalette palette;
        palette.setColor(QPalette::Highlight, dark ? QColor(0x8A, 0xB4, 0xF8) : QColor(0x30, 0x60, 0xC0));
        palette.setColor(QPalette::Base, dark ? QColor(0x1F, 0x21, 0x24) : QColor(0xFF, 0xFF, 0xFF));
        palette.setColor(QPalette::Text, dark ? QColor(0xE8, 0xEA, 0xED) : QColor(0x10, 0x10, 0x10));
        palette.setColor(QPalette::HighlightedText, dark ? QColor(0x1F, 0x21, 0x24) : QColor(0xFF, 0xFF, 0xFF));
        map.setPalette(palette);
        map.resize(600, 300);
        map.setTiles(sampleTiles());
        const QImage image = map.grab().toImage();
        const auto rects = map.layout();
        ASSERT_EQ(rects.size(), 3u);
        // A corner of the heaviest tile (clear of its text) in the accent colour.
        const QPoint corner = rects[0].toRect().bottomRight() - QPoint(6, 6);
        EXPECT_EQ(image.pixelColor(corner), palette.color(QPalette::Highlight)) << (dark ? "dark" : "light");
        // Lighter tiles move towards the background, never away from the palette.
        const QColor lightest = image.pixelColor(rects[2].toRect().bottomRight() - QPoint(6, 6));
        EXPECT_NE(lightest, palette.color(QPalette::Highlight));
        const auto distance = [](const QColor& a, const QColor& b) {
            return std::abs(a.red() - b.red()) + std::abs(a.green() - b.green()) + std::abs(a.blue() - b.blue());
        };
        EXPECT_LT(distance(lightest, palette.color(QPalette::Base)), distance(palette.color(QPalette::Highlight), palette.color(QPalette::Base)));
    }
}

QStringList rows(QWidget* feed) {
    QStringList out;
    auto* list = child<QListWidget>(feed, "cueList");
    for (int i = 0; i < list->count(); ++i) out << list->item(i)->text();
    return out;
}

TEST(CueFeedTest, NewestFirstEachChangeOnceAndFilteredIgnoringCase) {
    setInterfaceLanguage(Language::English);
    CueFeed feed;
    auto tiles = sampleTiles();
    feed.show("s1", tiles);
    ASSERT_EQ(rows(&feed).size(), 3);
    EXPECT_EQ(rows(&feed)[0], "00:30  Talk time: Share of the talking: Speaker 1 70%, Speaker 2 30%.");
    // The same advice polled again adds nothing; a changed measure comes in on top.
    feed.show("s1", tiles);
    EXPECT_EQ(rows(&feed).size(), 3);
    tiles[1].data = {{"count", 4}};
    tiles[1].atMs = 60000;
    feed.show("s1", tiles);
    ASSERT_EQ(rows(&feed).size(), 4);
    EXPECT_EQ(rows(&feed)[0], "01:00  Questions asked: 4 question(s) asked.");

    // The filter looks at the title and at the sentence, whatever the case.
    auto* filter = child<QLineEdit>(&feed, "cueFilter");
    QTest::keyClicks(filter, "QUESTION");
    EXPECT_EQ(rows(&feed).size(), 2);
    filter->setText("speaker 2");
    ASSERT_EQ(rows(&feed).size(), 1);
    EXPECT_TRUE(rows(&feed)[0].startsWith("00:30  Talk time"));
    filter->setText("nothing like this");
    EXPECT_TRUE(rows(&feed).isEmpty());
    EXPECT_EQ(child<QLabel>(&feed, "cueFeedEmpty")->text(), "No cue matches the filter.");
    EXPECT_FALSE(child<QLabel>(&feed, "cueFeedEmpty")->isHidden());

    // In Spanish the same entries read in Spanish, without being counted as new, and the
    // filter ignores the case of accented letters too.
    setInterfaceLanguage(Language::Spanish);
    feed.show("s1", tiles);
    filter->setText("SILENCIOS LARGOS");
    ASSERT_EQ(rows(&feed).size(), 1);
    EXPECT_EQ(rows(&feed)[0], "00:30  Silencios largos: 1 silencio(s) largo(s), el más largo de 12 segundos.");
    filter->setText("MÁS LARGO");
    EXPECT_EQ(rows(&feed).size(), 1);
    filter->clear();
    EXPECT_EQ(rows(&feed).size(), 4);

    // Another recording's session starts over.
    feed.show("s2", {tiles[2]});
    EXPECT_EQ(rows(&feed).size(), 1);
    feed.show("s2", {});
    EXPECT_EQ(rows(&feed).size(), 1);
    setInterfaceLanguage(Language::English);
}

// The main window brings the live page forward when a recording starts and keeps the last
// advice after it; the page says what is going on.
TEST(LiveViewTest, ComesForwardWhileRecordingAndKeepsTheLastAdvice) {
    setInterfaceLanguage(Language::English);
    StillBackend backend;
    MainWindow window(backend);
    auto* tabs = child<QTabWidget>(&window, "mainTabs");
    auto* live = &window.live();
    auto* status = child<QLabel>(live, "liveStatus");
    EXPECT_FALSE(tabs->isTabVisible(tabs->indexOf(live))) << "nothing to show before any recording";

    backend.state_.phase = SignInPhase::signedIn;
    backend.state_.recording = true;
    backend.state_.live.sessionID = "s1";
    emit backend.changed();
    EXPECT_TRUE(tabs->isTabVisible(tabs->indexOf(live)));
    EXPECT_EQ(tabs->currentWidget(), live);
    EXPECT_EQ(status->text(), "Listening… the first cues come once the service has heard a little of the conversation.");

    // The user may look elsewhere while it records: new advice does not pull the page back.
    window.showPage("computer");
    backend.state_.live.tiles = sampleTiles();
    emit backend.changed();
    EXPECT_NE(tabs->currentWidget(), live);
    EXPECT_EQ(child<CueTreemap>(live, "cueTreemap")->tiles().size(), 3u);
    EXPECT_EQ(rows(child<CueFeed>(live, "cueFeed")).size(), 3);

    backend.state_.live.message = "Live advice is paused: the service cannot be reached. The recording goes on.";
    emit backend.changed();
    EXPECT_EQ(status->text(), q(backend.state_.live.message));

    backend.state_.recording = false;
    backend.state_.live.message.clear();
    backend.state_.live.closed = true;
    emit backend.changed();
    EXPECT_TRUE(tabs->isTabVisible(tabs->indexOf(live)));
    EXPECT_EQ(status->text(), "The advice of the last recording.");
    EXPECT_EQ(child<CueTreemap>(live, "cueTreemap")->tiles().size(), 3u);

    // Recording signed out gets no live session: the last recording's advice, still held,
    // is not shown as this one's, and the page says why there is none.
    backend.state_.phase = SignInPhase::signedOut;
    backend.state_.recording = true;
    emit backend.changed();
    EXPECT_TRUE(child<CueTreemap>(live, "cueTreemap")->tiles().empty());
    EXPECT_EQ(tabs->currentWidget(), live);
    setInterfaceLanguage(Language::Spanish);
    emit languageSignal().changed();
    EXPECT_EQ(status->text(), "No hay consejos en vivo para esta grabación (hace falta una sesión iniciada). La grabación sigue.");
    EXPECT_EQ(tabs->tabText(tabs->indexOf(live)), "En vivo");
    setInterfaceLanguage(Language::English);
}

}  // namespace
}  // namespace vell::tray
