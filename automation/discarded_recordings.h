#pragma once
// Recordings thrown away (by the user, or because nobody spoke in a meeting recording) stay
// undoable for five minutes: the latest discard can be restored as an ordinary pending
// recording until then, after which the recording and its audio are removed for good. Owns
// the durable list of live sessions whose server copy must be purged, retried every 30 s
// and at start-up until the service confirms. Main executor only.
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "automation/calendar_auto_recorder.h"
#include "base/executor.h"
#include "base/published.h"
#include "base/user_defaults.h"

namespace vell::recording {
class RecorderService;
}

namespace vell::automation {

enum class DiscardReason { user, nobodySpoke };

struct DiscardedEntry {
    std::string takeID;
    WallTime discardedAt{};
    std::optional<std::string> meeting;  // the calendar meeting it recorded
    DiscardReason reason = DiscardReason::user;
    bool operator==(const DiscardedEntry&) const = default;
};

class DiscardedRecordings {
public:
    static constexpr double kUndoWindowSeconds = 300.0;
    static constexpr double kTimerSeconds = 1.0;
    static constexpr double kPurgeRetrySeconds = 30.0;

    // Asks the service to delete a live session's server copy; done(error) with nothing on
    // success. done may run later, on the main executor.
    using PurgeServerCopy =
        std::function<void(const std::string& liveSessionID, std::function<void(std::optional<std::string> error)> done)>;

    struct Ports {
        PurgeServerCopy purgeServerCopy;
        std::function<void(const AutomationNotice&)> post;
        // A recording was restored as ready (the upload queue may look again).
        std::function<void()> restored;
    };

    DiscardedRecordings(recording::RecorderService& recorder, UserDefaults& defaults, Executor& main, const Clock& clock,
                        Ports ports);
    ~DiscardedRecordings();
    DiscardedRecordings(const DiscardedRecordings&) = delete;
    DiscardedRecordings& operator=(const DiscardedRecordings&) = delete;

    // The one recording that can still be undone.
    Published<std::optional<DiscardedEntry>> latest;

    // The launch step: watches the recorder's discards, removes those whose window ended
    // while Vell was not running, and runs the pending purges once.
    void start();
    // A new discard replaces the latest one and restarts the window.
    void recordDiscard(const std::string& takeID, std::optional<std::string> meeting, DiscardReason reason);
    // Restores the latest discard; false when there was none or it is already gone (the
    // too-late message is then the recorder's last error).
    bool undo();
    void runPendingPurges();
    // Seconds left to undo the latest discard; 0 without one.
    double secondsLeft() const;

    std::vector<std::string> purgeList() const;
    bool timerRunning() const { return static_cast<bool>(timer_); }

private:
    void tick();
    void ensureTimer();
    bool somethingMayExpire() const;
    void removeExpired(WallTime now);
    void pendingChanged();
    void writePurgeList(const std::vector<std::string>& list);
    void purgeNext(std::vector<std::string> remaining);

    recording::RecorderService& recorder_;
    UserDefaults& defaults_;
    Executor& main_;
    const Clock& clock_;
    Ports ports_;
    std::optional<TimerHandle> timer_;
    bool purging_ = false;
    std::optional<double> lastPurgeRetry_;  // uptime; nothing: the distant past
    std::set<std::string> seenDiscards_;
    std::set<std::string> nobodySpoke_;
    std::optional<std::pair<std::string, std::string>> meetingOfRecording_;  // id, title
    Subscription pendingWatch_, titleWatch_;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace vell::automation
