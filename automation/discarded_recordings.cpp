#include "automation/discarded_recordings.h"

#include <algorithm>
#include <filesystem>

#include "automation/automation_messages.h"
#include "base/log.h"
#include "base/preference_keys.h"
#include "recording/recorder_service.h"

namespace vell::automation {

namespace {
const log::Logger kLog("DiscardedRecordings");
constexpr std::string_view kSilentMeetingPrefix = "app.quillon.mac.silentMeeting.";
using Status = recording::PendingRecording::Status;

double secondsBetween(WallTime from, WallTime to) { return std::chrono::duration<double>(to - from).count(); }

WallTime discardTime(const recording::PendingRecording& r) {
    return r.discardedAt.value_or(r.finishedAt.value_or(r.startedAt));
}
}  // namespace

DiscardedRecordings::DiscardedRecordings(recording::RecorderService& recorder, UserDefaults& defaults, Executor& main,
                                         const Clock& clock, Ports ports)
    : recorder_(recorder), defaults_(defaults), main_(main), clock_(clock), ports_(std::move(ports)) {}

DiscardedRecordings::~DiscardedRecordings() {
    if (timer_) timer_->cancel();
    recorder_.discardAtStop = nullptr;
}

void DiscardedRecordings::start() {
    titleWatch_ = recorder_.state.calendarMeetingTitle.subscribe([this](const std::optional<std::string>& title) {
        if (title && recorder_.currentID()) meetingOfRecording_ = std::make_pair(*recorder_.currentID(), *title);
    });
    if (auto title = recorder_.state.calendarMeetingTitle.get(); title && recorder_.currentID()) {
        meetingOfRecording_ = std::make_pair(*recorder_.currentID(), *title);
    }
    // A meeting recording in which nobody spoke is not kept, whatever stopped it.
    recorder_.discardAtStop = [this](const std::string& id, bool heardSpeech) {
        if (heardSpeech || !meetingOfRecording_ || meetingOfRecording_->first != id) return false;
        kLog.info("nobody spoke in the meeting recording " + id + "; it is discarded");
        nobodySpoke_.insert(id);
        return true;
    };
    // Discards made before this run (a restart, or another process) are not announced again;
    // the newest one still inside its window stays undoable.
    const WallTime now = clock_.now();
    for (const auto& r : recorder_.pending()) {
        if (r.status != Status::discarded) continue;
        seenDiscards_.insert(r.id);
        const auto current = latest.get();
        if (secondsBetween(discardTime(r), now) < kUndoWindowSeconds && (!current || current->discardedAt <= discardTime(r))) {
            latest.set(DiscardedEntry{r.id, discardTime(r), std::nullopt, DiscardReason::user});
        }
    }
    pendingWatch_ = recorder_.state.pending.subscribe([this](const auto&) { pendingChanged(); });
    removeExpired(clock_.now());
    if (somethingMayExpire()) ensureTimer();
    runPendingPurges();
}

void DiscardedRecordings::pendingChanged() {
    for (const auto& r : recorder_.pending()) {
        if (r.status != Status::discarded) {
            seenDiscards_.erase(r.id);
            continue;
        }
        if (!seenDiscards_.insert(r.id).second) continue;
        std::optional<std::string> meeting;
        if (meetingOfRecording_ && meetingOfRecording_->first == r.id) meeting = meetingOfRecording_->second;
        const auto reason = nobodySpoke_.erase(r.id) ? DiscardReason::nobodySpoke : DiscardReason::user;
        if (r.liveSessionID) {
            auto list = purgeList();
            list.push_back(*r.liveSessionID);
            writePurgeList(list);
        }
        recordDiscard(r.id, meeting, reason);
    }
}

void DiscardedRecordings::recordDiscard(const std::string& takeID, std::optional<std::string> meeting,
                                        DiscardReason reason) {
    latest.set(DiscardedEntry{takeID, clock_.now(), meeting, reason});
    kLog.info("recording " + takeID + " discarded; undo stays possible for 5 minutes");
    if (reason == DiscardReason::nobodySpoke && meeting && ports_.post) {
        AutomationNotice notice;
        notice.identifier = std::string(kSilentMeetingPrefix) + takeID;
        notice.title = messages::kNobodySpokeTitle.str();
        notice.body = messages::kNobodySpokeBody.str();
        ports_.post(notice);
    }
    ensureTimer();
}

double DiscardedRecordings::secondsLeft() const {
    const auto entry = latest.get();
    if (!entry) return 0;
    return std::max(0.0, kUndoWindowSeconds - secondsBetween(entry->discardedAt, clock_.now()));
}

bool DiscardedRecordings::undo() {
    const auto entry = latest.get();
    if (!entry) return false;
    const WallTime now = clock_.now();
    std::optional<recording::PendingRecording> found;
    for (const auto& r : recorder_.pending()) {
        if (r.id == entry->takeID && r.status == Status::discarded &&
            secondsBetween(discardTime(r), now) < kUndoWindowSeconds) {
            found = r;
        }
    }
    latest.set(std::nullopt);
    if (!found) {
        kLog.info("undo of " + entry->takeID + " came too late");
        recorder_.state.lastError.set(messages::kTooLateToUndo.str());
        return false;
    }
    recorder_.update(found->id, [](recording::PendingRecording& r) {
        r.status = Status::ready;
        r.discardedAt.reset();
    });
    if (found->liveSessionID) {
        auto list = purgeList();
        std::erase(list, *found->liveSessionID);
        writePurgeList(list);
    }
    kLog.info("recording " + found->id + " restored");
    if (ports_.restored) ports_.restored();
    return true;
}

void DiscardedRecordings::ensureTimer() {
    if (timer_) return;
    std::weak_ptr<int> alive = alive_;
    timer_ = main_.repeat(kTimerSeconds, [this, alive] {
        if (!alive.expired()) tick();
    });
}

void DiscardedRecordings::tick() {
    const WallTime now = clock_.now();
    if (auto entry = latest.get(); entry && secondsBetween(entry->discardedAt, now) >= kUndoWindowSeconds) {
        latest.set(std::nullopt);
    }
    removeExpired(now);
    const double uptime = clock_.uptime();
    if (!lastPurgeRetry_ || uptime - *lastPurgeRetry_ >= kPurgeRetrySeconds) {
        lastPurgeRetry_ = uptime;
        if (!purgeList().empty()) {
            std::weak_ptr<int> alive = alive_;
            main_.post([this, alive] {
                if (!alive.expired()) runPendingPurges();
            });
        }
    }
    // The timer runs only while something may still expire or wait for the service.
    if (!somethingMayExpire()) {
        timer_->cancel();
        timer_.reset();
    }
}

bool DiscardedRecordings::somethingMayExpire() const {
    const auto pending = recorder_.pending();
    const bool discards =
        std::any_of(pending.begin(), pending.end(), [](const auto& r) { return r.status == Status::discarded; });
    return latest.get() || discards || !purgeList().empty() || purging_;
}

void DiscardedRecordings::removeExpired(WallTime now) {
    for (const auto& r : recorder_.pending()) {
        if (r.status != Status::discarded || secondsBetween(discardTime(r), now) < kUndoWindowSeconds) continue;
        std::error_code ec;
        std::filesystem::remove(r.fileURL, ec);
        recorder_.remove(r.id);
        seenDiscards_.erase(r.id);
        kLog.info("discarded recording " + r.id + " removed for good");
    }
}

std::vector<std::string> DiscardedRecordings::purgeList() const {
    return defaults_.stringList(prefs::kPendingLiveSessionPurges).value_or(std::vector<std::string>{});
}

void DiscardedRecordings::writePurgeList(const std::vector<std::string>& list) {
    defaults_.set(prefs::kPendingLiveSessionPurges, list);
}

void DiscardedRecordings::runPendingPurges() {
    if (purging_ || !ports_.purgeServerCopy) return;
    auto list = purgeList();
    if (list.empty()) return;
    lastPurgeRetry_ = clock_.uptime();
    purging_ = true;
    ensureTimer();
    purgeNext(std::move(list));
}

void DiscardedRecordings::purgeNext(std::vector<std::string> remaining) {
    if (remaining.empty()) {
        purging_ = false;
        return;
    }
    const std::string id = remaining.front();
    remaining.erase(remaining.begin());
    // Purged already under another copy of the same id, or restored by an undo meanwhile.
    const auto current = purgeList();
    if (std::find(current.begin(), current.end(), id) == current.end()) return purgeNext(std::move(remaining));
    std::weak_ptr<int> alive = alive_;
    ports_.purgeServerCopy(id, [this, alive, id, remaining](std::optional<std::string> error) mutable {
        if (alive.expired()) return;
        if (error) {
            kLog.error("Vell delete: server clean-up for " + id + " will retry: " + *error);
        } else {
            auto list = purgeList();
            std::erase(list, id);
            writePurgeList(list);
        }
        purgeNext(std::move(remaining));
    });
}

}  // namespace vell::automation
