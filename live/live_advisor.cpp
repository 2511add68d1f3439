#include "live/live_advisor.h"

#include <algorithm>
#include <cmath>

#include "base/log.h"
#include "base/uuid.h"
#include "live/live_messages.h"

namespace vell::live {

namespace {
const log::Logger kLog("LiveAdvisor");

std::string lowerUUID() {
    std::string id = newUUIDString();
    std::transform(id.begin(), id.end(), id.begin(), [](unsigned char c) { return std::tolower(c); });
    return id;
}
}  // namespace

std::optional<std::pair<std::string, int>> parseSegmentName(const std::string& name) {
    const std::string prefix = "seg_", suffix = ".m4a";
    if (name.size() < prefix.size() + suffix.size() + 8 || name.rfind(prefix, 0) != 0 ||
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
        return std::nullopt;
    }
    const std::string stem = name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
    const size_t underscore = stem.rfind('_');
    if (underscore == std::string::npos || underscore == 0) return std::nullopt;
    const std::string digits = stem.substr(underscore + 1);
    if (digits.empty() || !std::all_of(digits.begin(), digits.end(), ::isdigit)) return std::nullopt;
    return std::make_pair(stem.substr(0, underscore), std::stoi(digits));
}

nlohmann::json toJson(const LiveAdvice& a) {
    nlohmann::json tiles = nlohmann::json::array();
    for (const auto& t : a.tiles) tiles.push_back(toJson(t));
    return {{"sessionId", a.sessionID ? nlohmann::json(*a.sessionID) : nlohmann::json(nullptr)},
            {"tiles", tiles},
            {"message", a.message ? nlohmann::json(*a.message) : nlohmann::json(nullptr)},
            {"segmentsSent", a.segmentsSent},
            {"segmentsDropped", a.segmentsDropped},
            {"segmentsWaiting", a.segmentsWaiting},
            {"closed", a.closed}};
}

std::optional<LiveAdvice> liveAdviceFromJson(const nlohmann::json& j) {
    if (!j.is_object()) return std::nullopt;
    auto tiles = decodeTiles(j);
    if (!tiles) return std::nullopt;
    LiveAdvice a;
    a.sessionID = service::stringField(j, "sessionId");
    a.tiles = std::move(*tiles);
    a.message = service::stringField(j, "message");
    a.segmentsSent = static_cast<int>(service::integerField(j, "segmentsSent").value_or(0));
    a.segmentsDropped = static_cast<int>(service::integerField(j, "segmentsDropped").value_or(0));
    a.segmentsWaiting = static_cast<int>(service::integerField(j, "segmentsWaiting").value_or(0));
    a.closed = j.value("closed", false);
    return a;
}

LiveAdvisor::LiveAdvisor(LiveApi& api, std::shared_ptr<recording::LiveSegmentWriter> writer,
                         std::shared_ptr<SideLevelMeter> meter, Executor& main, LiveAdvisorSettings settings)
    : api_(api), writer_(std::move(writer)), meter_(std::move(meter)), main_(main), settings_(settings) {
    std::weak_ptr<int> alive = alive_;
    writer_->onSegment = [this, alive](const std::filesystem::path& file) {
        if (!alive.expired()) segmentSealed(file);
    };
    // Segments of an earlier run can no longer be sent in order with anything.
    writer_->cleanUpStaleFiles();
}

LiveAdvisor::~LiveAdvisor() {
    retry_.cancel();
    settle_.cancel();
    tilesTimer_.cancel();
    writer_->onSegment = nullptr;
}

recording::LiveAdvisorHooks LiveAdvisor::hooks() {
    recording::LiveAdvisorHooks hooks;
    std::weak_ptr<int> alive = alive_;
    hooks.begin = [this, alive](const std::string& recordingID) -> std::optional<std::string> {
        if (alive.expired()) return std::nullopt;
        return begin(recordingID);
    };
    hooks.recordingEnded = [this, alive](const std::string& recordingID) {
        if (!alive.expired()) recordingStopped(recordingID);
    };
    auto active = active_;
    hooks.isActive = [active] { return active->load(); };
    return hooks;
}

std::optional<std::string> LiveAdvisor::begin(const std::string& recordingID) {
    // The client names the session, so the recording knows it from its first moment, even
    // while the service cannot be reached; opening it is idempotent.
    const std::string sessionID = lowerUUID();
    // Sessions that are over have nothing more to say.
    std::erase_if(runs_, [this](const auto& entry) {
        return entry.second.closed &&
               std::none_of(queue_.begin(), queue_.end(), [&](const Segment& s) { return s.sessionID == entry.first; });
    });
    runs_[sessionID] = Run{recordingID};
    current_ = sessionID;
    writer_->begin(sessionID);
    active_->store(true);
    advice.set(LiveAdvice{sessionID});
    kLog.info("[live-advisor] live session " + sessionID + " for recording " + recordingID);
    std::weak_ptr<int> alive = alive_;
    tilesTimer_.cancel();
    tilesTimer_ = main_.repeat(settings_.tilesPollSeconds, [this, alive] {
        if (!alive.expired()) pollTiles();
    });
    pump();
    return sessionID;
}

void LiveAdvisor::recordingStopped(const std::string& recordingID) {
    for (auto& [sessionID, run] : runs_) {
        if (run.recordingID != recordingID || run.stopped) continue;
        run.stopped = true;
        kLog.info("[live-advisor] recording " + recordingID + " ended; live session " + sessionID +
                  " closes once its last segment is sent");
        if (current_ == sessionID) {
            active_->store(false);
            tilesTimer_.cancel();
            writer_->finish();  // a start that failed never reached the recorder's own finish
        }
    }
    pump();
}

void LiveAdvisor::pendingChanged(const std::vector<recording::PendingRecording>& pending) {
    using Status = recording::PendingRecording::Status;
    for (const auto& r : pending) {
        if (!r.liveSessionID) continue;
        auto it = runs_.find(*r.liveSessionID);
        if (it == runs_.end() || it->second.dropped) continue;
        if (r.status == Status::uploaded) {
            // The service has the whole recording now; late live segments add nothing.
            it->second.dropped = true;
            dropSegmentsOf(it->first, "the recording was uploaded");
        } else if (r.status == Status::discarded) {
            // Its server copy is purged; nothing more goes there.
            it->second.dropped = true;
            it->second.closed = true;
            dropSegmentsOf(it->first, "the recording was discarded");
            kLog.info("[live-advisor] recording " + r.id + " discarded; live session " + it->first + " is to be purged");
            if (onDiscarded) onDiscarded(it->first);
        }
    }
    pump();
}

void LiveAdvisor::segmentSealed(const std::filesystem::path& file) {
    auto parsed = parseSegmentName(file.filename().string());
    auto run = parsed ? runs_.find(parsed->first) : runs_.end();
    if (run == runs_.end() || run->second.dropped) {
        writer_->release(file);
        return;
    }
    const long long segmentMs = std::llround(settings_.segmentSeconds * 1000);
    const long long from = static_cast<long long>(parsed->second) * segmentMs;
    queue_.push_back(Segment{parsed->first, parsed->second, from, file, meter_->range(from, from + segmentMs)});
    kLog.debug("[live-segments] sealed " + file.filename().string());
    while (static_cast<int>(queue_.size()) > settings_.maxSegmentsOnDisk) dropFront("more segments waiting than kept on disk");
    publishCounts();
    pump();
}

void LiveAdvisor::dropFront(const char* why) {
    // The one in flight stays; the oldest of those waiting goes.
    auto it = queue_.begin();
    if (busy_ && it != queue_.end()) ++it;
    if (it == queue_.end()) return;
    kLog.info(std::string("[live-segments] dropped unsent segment ") + it->file.filename().string() + ": " + why);
    writer_->release(it->file);
    queue_.erase(it);
    ++dropped_;
    setMessage(messages::kSegmentsDropped.str());
}

void LiveAdvisor::dropSegmentsOf(const std::string& sessionID, const char* why) {
    int count = 0;
    for (auto it = queue_.begin(); it != queue_.end();) {
        if (it->sessionID != sessionID || (busy_ && it == queue_.begin())) {
            ++it;
            continue;
        }
        writer_->release(it->file);
        it = queue_.erase(it);
        ++count;
    }
    if (count > 0) {
        dropped_ += count;
        kLog.info("[live-segments] dropped " + std::to_string(count) + " unsent segments of " + sessionID + ": " + why);
    }
    publishCounts();
}

bool LiveAdvisor::awaitingSeal(const std::string& sessionID) const {
    const std::string prefix = "seg_" + sessionID + "_";
    for (const auto& name : writer_->pendingHandoffs()) {
        if (name.rfind(prefix, 0) != 0) continue;
        bool queued = std::any_of(queue_.begin(), queue_.end(), [&](const Segment& s) { return s.file.filename() == name; });
        if (!queued) return true;
    }
    return false;
}

void LiveAdvisor::pump() {
    if (busy_ || retry_.active()) return;
    std::weak_ptr<int> alive = alive_;
    // Segments of runs that no longer take any.
    while (!queue_.empty() && runs_[queue_.front().sessionID].dropped) {
        writer_->release(queue_.front().file);
        queue_.pop_front();
    }
    // A session opens as soon as it can, so its advice starts before its first segment.
    for (auto& [sessionID, run] : runs_) {
        if (run.opened || run.dropped || run.closed) continue;
        busy_ = true;
        api_.open(sessionID, run.recordingID, [this, alive, id = sessionID](Expected<Unit, service::UploadError> r) {
            if (alive.expired()) return;
            busy_ = false;
            if (!r) return failed(r.error(), id, false);
            runs_[id].opened = true;
            kLog.info("[live-advisor] live session " + id + " opened");
            failures_ = 0;
            if (advice.get().message == messages::kServiceUnreachable.str()) setMessage(std::nullopt);
            pump();
        });
        return;
    }
    if (!queue_.empty()) {
        const Segment segment = queue_.front();
        busy_ = true;
        api_.sendChunk(segment.sessionID, segment.index, segment.startMs, segment.file, segment.sides,
                       [this, alive, segment](Expected<Unit, service::UploadError> r) {
                           if (alive.expired()) return;
                           busy_ = false;
                           if (!r) return failed(r.error(), segment.sessionID, true);
                           kLog.info("[live-segments] sent " + segment.file.filename().string());
                           if (!queue_.empty() && queue_.front().file == segment.file) queue_.pop_front();
                           writer_->release(segment.file);
                           ++sent_;
                           failures_ = 0;
                           const auto shown = advice.get().message;
                           if (shown == messages::kServiceUnreachable.str()) setMessage(std::nullopt);
                           publishCounts();
                           pump();
                       });
        return;
    }
    // Nothing waits: close the runs that ended and have nothing left to send.
    bool waitingForSeal = false;
    for (auto& [sessionID, run] : runs_) {
        if (!run.stopped || run.closed) continue;
        if (!run.dropped && awaitingSeal(sessionID)) {
            waitingForSeal = true;
            continue;
        }
        busy_ = true;
        const std::string id = sessionID;
        api_.close(id, [this, alive, id](Expected<Unit, service::UploadError> r) {
            if (alive.expired()) return;
            busy_ = false;
            Run& closing = runs_[id];
            if (!r && r.error().isNetwork() && !closing.dropped) return failed(r.error(), id, false);
            // Closed, or refused for good (gone, never opened): either way nothing is left to do.
            closing.closed = true;
            failures_ = 0;
            kLog.info("[live-advisor] live session " + id + (r ? " closed" : " not closed: " + r.error().description()));
            if (advice.get().sessionID == id) {
                advice.modify([](LiveAdvice& a) { a.closed = true; });
                pollTiles();  // the advice as it stands at the end
            }
            pump();
        });
        return;
    }
    if (waitingForSeal && !settle_.active()) {
        settle_ = main_.postAfter(settings_.settlePollSeconds, [this, alive] {
            if (alive.expired()) return;
            settle_ = {};
            pump();
        });
    }
}

void LiveAdvisor::failed(const service::UploadError& error, const std::string& sessionID, bool sending) {
    const auto& api = error.api;
    const bool retry = error.isNetwork() || (api && api->kind == service::APIError::Kind::http &&
                                             (api->status >= 500 || api->status == 429));
    if (retry) {
        kLog.info("[live-advisor] service unreachable, retrying: " + error.description());
        setMessage(messages::kServiceUnreachable.str());
        return scheduleRetry();
    }
    if (error.isUnauthenticated()) {
        kLog.info("[live-advisor] session rejected; live advice stops");
        for (auto& [id, run] : runs_) {
            run.dropped = true;
            run.closed = true;
            dropSegmentsOf(id, "the session was rejected");
        }
        return pump();
    }
    const std::string code = api && api->code ? *api->code : "";
    if (!sending) {
        // An open refused for good: this session's segments have nowhere to go.
        kLog.info("[live-advisor] live session " + sessionID + " could not be opened: " + error.description());
        setMessage(messages::kSessionNotOpened.str());
        runs_[sessionID].dropped = true;
        runs_[sessionID].closed = true;
        dropSegmentsOf(sessionID, "the live session could not be opened");
        return pump();
    }
    if (api && (api->status == 404 || code == "session_closed")) {
        runs_[sessionID].dropped = true;
        dropSegmentsOf(sessionID, "the live session is gone");
    } else if (code == "chunk_out_of_order") {
        // The service holds later segments already; this one cannot join them.
        if (!queue_.empty()) {
            kLog.info("[live-segments] the service is past " + queue_.front().file.filename().string() + "; dropped");
            writer_->release(queue_.front().file);
            queue_.pop_front();
            ++dropped_;
        }
    } else {
        kLog.info("[live-segments] segment rejected: " + error.description());
        setMessage(messages::kSegmentRejected.str());
        if (!queue_.empty()) {
            writer_->release(queue_.front().file);
            queue_.pop_front();
            ++dropped_;
        }
    }
    publishCounts();
    pump();
}

void LiveAdvisor::scheduleRetry() {
    ++failures_;
    const double delay = std::min(settings_.retryCapSeconds, settings_.retryBaseSeconds * std::pow(2.0, failures_ - 1));
    std::weak_ptr<int> alive = alive_;
    retry_ = main_.postAfter(delay, [this, alive] {
        if (alive.expired()) return;
        retry_ = {};
        pump();
    });
}

void LiveAdvisor::pollTiles() {
    const auto sessionID = advice.get().sessionID;
    if (!sessionID || tilesInFlight_) return;
    auto it = runs_.find(*sessionID);
    if (it == runs_.end() || it->second.dropped || !it->second.opened) return;
    tilesInFlight_ = true;
    std::weak_ptr<int> alive = alive_;
    api_.tiles(*sessionID, [this, alive, id = *sessionID](Expected<std::vector<Tile>, service::UploadError> r) {
        if (alive.expired()) return;
        tilesInFlight_ = false;
        if (advice.get().sessionID != id) return;
        if (!r) {
            const bool unreadable = r.error().api && r.error().api->kind == service::APIError::Kind::decoding;
            kLog.info("[live-advisor] tiles not fetched: " + r.error().description());
            setMessage(unreadable ? messages::kTilesUnreadable.str() : messages::kServiceUnreachable.str());
            return;
        }
        auto tiles = std::move(*r);
        std::stable_sort(tiles.begin(), tiles.end(), [](const Tile& a, const Tile& b) { return a.weight > b.weight; });
        advice.modify([&](LiveAdvice& a) {
            a.tiles = std::move(tiles);
            if (a.message == messages::kTilesUnreadable.str()) a.message.reset();
        });
    });
}

bool LiveAdvisor::settled() const {
    if (busy_ || tilesInFlight_ || !queue_.empty()) return false;
    for (const auto& [_, run] : runs_)
        if (run.stopped && !run.closed) return false;
    return true;
}

void LiveAdvisor::publishCounts() {
    advice.modify([&](LiveAdvice& a) {
        a.segmentsSent = sent_;
        a.segmentsDropped = dropped_;
        a.segmentsWaiting = static_cast<int>(queue_.size());
    });
}

void LiveAdvisor::setMessage(std::optional<std::string> message) {
    advice.modify([&](LiveAdvice& a) { a.message = std::move(message); });
}

}  // namespace vell::live
