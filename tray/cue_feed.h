#pragma once
// The cues of the running recording as they arrive, newest first, with a filter. Each cue
// enters the feed when it first comes and again whenever the service changes what it says
// (the same measure with new numbers); the filter keeps the entries whose title or
// sentence contains its text, ignoring case. GUI thread.
#include <QString>
#include <QWidget>
#include <map>
#include <string>
#include <vector>

#include "live/live_api.h"

class QLineEdit;
class QListWidget;
class QLabel;

namespace vell::tray {

class CueFeedModel {
public:
    // The latest advice: what is new or changed goes on top. false when nothing was added.
    bool add(const std::vector<live::Tile>& tiles);
    void clear();
    const std::vector<live::Tile>& entries() const { return entries_; }  // newest first
    // The entries that match `filter` (all for an empty one), newest first.
    std::vector<live::Tile> matching(const QString& filter) const;
    static bool matches(const live::Tile& tile, const QString& filter);

private:
    std::vector<live::Tile> entries_;
    std::map<std::string, std::string> said_;  // id -> what it said last (in the service's terms)
};

class CueFeed final : public QWidget {
    Q_OBJECT
public:
    explicit CueFeed(QWidget* parent = nullptr);
    // The advice of the session: another session starts the feed over.
    void show(const std::string& sessionID, const std::vector<live::Tile>& tiles);
    void render();
    const CueFeedModel& model() const { return model_; }

private:
    CueFeedModel model_;
    std::string session_;
    QLineEdit* filter_;
    QListWidget* list_;
    QLabel* empty_;
};

}  // namespace vell::tray
