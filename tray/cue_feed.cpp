#include "tray/cue_feed.h"

#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QVBoxLayout>

#include "results/recording_result.h"
#include "tray/tray_messages.h"
#include "tray/ui_text.h"

namespace vell::tray {

namespace m = messages;

namespace {
// What a tile says, whatever the interface language: a change here is a new entry.
std::string saying(const live::Tile& tile) { return tile.kind + '\n' + tile.text + '\n' + tile.data.dump(); }
}  // namespace

bool CueFeedModel::add(const std::vector<live::Tile>& tiles) {
    std::vector<live::Tile> fresh;
    for (const auto& tile : tiles) {
        auto& said = said_[tile.id];
        const std::string now = saying(tile);
        if (said == now) continue;
        said = now;
        fresh.push_back(tile);
    }
    if (fresh.empty()) return false;
    // Of those arriving together the latest in the conversation goes on top, the heavier
    // first at the same moment.
    std::stable_sort(fresh.begin(), fresh.end(), [](const live::Tile& a, const live::Tile& b) { return a.atMs > b.atMs; });
    entries_.insert(entries_.begin(), fresh.begin(), fresh.end());
    return true;
}

void CueFeedModel::clear() {
    entries_.clear();
    said_.clear();
}

bool CueFeedModel::matches(const live::Tile& tile, const QString& filter) {
    const QString wanted = filter.trimmed();
    if (wanted.isEmpty()) return true;
    return q(live::tileTitle(tile)).contains(wanted, Qt::CaseInsensitive) ||
           q(live::tileText(tile)).contains(wanted, Qt::CaseInsensitive);
}

std::vector<live::Tile> CueFeedModel::matching(const QString& filter) const {
    std::vector<live::Tile> out;
    for (const auto& tile : entries_)
        if (matches(tile, filter)) out.push_back(tile);
    return out;
}

CueFeed::CueFeed(QWidget* parent) : QWidget(parent) {
    setObjectName("cueFeed");
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    filter_ = new QLineEdit(this);
    filter_->setObjectName("cueFilter");
    filter_->setClearButtonEnabled(true);
    list_ = new QListWidget(this);
    list_->setObjectName("cueList");
    list_->setWordWrap(true);
    list_->setAlternatingRowColors(true);
    empty_ = new QLabel(this);
    empty_->setObjectName("cueFeedEmpty");
    empty_->setWordWrap(true);
    layout->addWidget(filter_);
    layout->addWidget(list_, 1);
    layout->addWidget(empty_);
    connect(filter_, &QLineEdit::textChanged, this, &CueFeed::render);
    render();
}

void CueFeed::show(const std::string& sessionID, const std::vector<live::Tile>& tiles) {
    bool moved = false;
    if (sessionID != session_) {
        session_ = sessionID;
        model_.clear();
        moved = true;
    }
    if (model_.add(tiles)) moved = true;
    if (moved) render();
}

void CueFeed::render() {
    filter_->setPlaceholderText(q(m::kFilterCues));
    const auto shown = model_.matching(filter_->text());
    list_->clear();
    for (const auto& tile : shown) {
        list_->addItem(QString("%1  %2: %3")
                           .arg(q(results::conversationClock(tile.atMs)), q(live::tileTitle(tile)), q(live::tileText(tile))));
    }
    empty_->setText(model_.entries().empty() ? q(m::kNoCuesYet) : q(m::kNoMatchingCues));
    empty_->setVisible(shown.empty());
}

}  // namespace vell::tray
