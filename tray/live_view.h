#pragma once
// The main window's live page: while a recording runs, the advice as a treemap (tile area
// by weight) beside the feed of cues as they arrived; afterwards the last advice stays.
// A sentence above says what is going on (listening, no live session, a problem). GUI thread.
#include <QWidget>

class QLabel;

namespace vell::tray {

class Backend;
class CueFeed;
class CueTreemap;

class LiveView final : public QWidget {
    Q_OBJECT
public:
    explicit LiveView(Backend& backend, QWidget* parent = nullptr);
    void render();
    // Something to show: a recording runs, or the last one left advice.
    bool worthShowing() const;

private:
    Backend& backend_;
    // A recording started signed out has no live session: what the advisor still holds is
    // an earlier recording's.
    bool wasRecording_ = false, liveThisRun_ = true;
    QLabel* status_;
    CueTreemap* treemap_;
    CueFeed* feed_;
};

}  // namespace vell::tray
