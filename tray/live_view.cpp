#include "tray/live_view.h"

#include <QLabel>
#include <QSplitter>
#include <QVBoxLayout>

#include "tray/backend.h"
#include "tray/cue_feed.h"
#include "tray/cue_treemap.h"
#include "tray/language_choice.h"
#include "tray/tray_messages.h"
#include "tray/ui_text.h"

namespace vell::tray {

namespace m = messages;

LiveView::LiveView(Backend& backend, QWidget* parent) : QWidget(parent), backend_(backend) {
    setObjectName("liveView");
    auto* layout = new QVBoxLayout(this);
    status_ = new QLabel(this);
    status_->setObjectName("liveStatus");
    status_->setWordWrap(true);
    layout->addWidget(status_);
    auto* split = new QSplitter(Qt::Horizontal, this);
    treemap_ = new CueTreemap(split);
    feed_ = new CueFeed(split);
    split->addWidget(treemap_);
    split->addWidget(feed_);
    split->setStretchFactor(0, 3);
    split->setStretchFactor(1, 2);
    layout->addWidget(split, 1);
    connect(&backend_, &Backend::changed, this, &LiveView::render);
    connect(&languageSignal(), &LanguageSignal::changed, this, [this] {
        render();
        feed_->render();
        treemap_->update();
    });
    render();
}

bool LiveView::worthShowing() const {
    const auto& s = backend_.state();
    return s.recording || !s.live.sessionID.empty() || !s.live.tiles.empty();
}

void LiveView::render() {
    const auto& s = backend_.state();
    if (s.recording && !wasRecording_) liveThisRun_ = s.phase == SignInPhase::signedIn;
    wasRecording_ = s.recording;
    const LiveState none;
    const auto& live = s.recording && !liveThisRun_ ? none : s.live;
    treemap_->setTiles(live.tiles);
    feed_->show(live.sessionID, live.tiles);
    QString status;
    if (!live.message.empty()) status = q(live.message);
    else if (s.recording && live.sessionID.empty()) status = q(m::kLiveOff);
    else if (s.recording && live.tiles.empty()) status = q(m::kLiveListening);
    else if (!s.recording && !live.tiles.empty()) status = q(m::kLastAdvice);
    else if (!s.recording) status = q(m::kLiveIdle);
    status_->setText(status);
    status_->setVisible(!status.isEmpty());
}

}  // namespace vell::tray
