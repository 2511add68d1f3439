#pragma once
// The live advisor: while a recording runs with a service session, it keeps a live session
// on the service and feeds it the recording's 30-second segments, in order, one at a time;
// each segment file is deleted once the service acknowledged it. A service that cannot be
// reached is retried with a capped backoff, keeping the order; no more than a few segments
// ever wait on disk (the oldest unsent one is dropped beyond that), and whatever is still
// unsent when the recording itself has been uploaded is dropped. Advice tiles are polled
// while the recording runs, and the session is closed once the last segment went out.
// Nothing here can stop or change the recording: every failure ends in a sentence.
// Lives on the main executor.
#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/executor.h"
#include "base/published.h"
#include "live/live_api.h"
#include "live/side_levels.h"
#include "recording/live_segment_writer.h"
#include "recording/pending_recording.h"
#include "recording/recorder_parts.h"

namespace vell::live {

// What the front ends show while a recording runs.
struct LiveAdvice {
    std::optional<std::string> sessionID;  // the live session of the running (or last) recording
    std::vector<Tile> tiles;               // the latest advice, heaviest first
    std::optional<std::string> message;    // what is wrong with live advice right now, if anything
    int segmentsSent = 0;
    int segmentsDropped = 0;
    int segmentsWaiting = 0;
    bool closed = false;  // the service was told the session ended
    bool operator==(const LiveAdvice&) const = default;
};

// The JSON form the control interface passes to other programs.
nlohmann::json toJson(const LiveAdvice& advice);
std::optional<LiveAdvice> liveAdviceFromJson(const nlohmann::json& json);

struct LiveAdvisorSettings {
    int maxSegmentsOnDisk = 4;
    double retryBaseSeconds = 2;
    double retryCapSeconds = 60;
    double tilesPollSeconds = 5;
    double settlePollSeconds = 0.25;  // while waiting for the last segment to be sealed
    double segmentSeconds = 30;       // the writer's segment length
};

class LiveAdvisor {
public:
    LiveAdvisor(LiveApi& api, std::shared_ptr<recording::LiveSegmentWriter> writer, std::shared_ptr<SideLevelMeter> meter,
                Executor& main, LiveAdvisorSettings settings = {});
    ~LiveAdvisor();
    LiveAdvisor(const LiveAdvisor&) = delete;
    LiveAdvisor& operator=(const LiveAdvisor&) = delete;

    // The recorder's side: begin opens a session (never blocking, never failing the start).
    recording::LiveAdvisorHooks hooks();
    // Any end of the recording (user stop, limits, write error, a start that failed).
    void recordingStopped(const std::string& recordingID);
    // The pending list changed: a recording with a live session was uploaded or discarded.
    void pendingChanged(const std::vector<recording::PendingRecording>& pending);

    Published<LiveAdvice> advice;

    // A recording with a live session was discarded: its server copy is to be purged (the
    // durable purge list; the same id twice is harmless).
    std::function<void(const std::string& sessionID)> onDiscarded;

    // Nothing left to do: every segment sent or dropped and every ended session closed (a
    // program that is about to exit waits for this, for a while).
    bool settled() const;

    std::shared_ptr<recording::LiveSegmentWriter> writer() const { return writer_; }

private:
    struct Run {
        std::string recordingID;
        bool opened = false;
        bool stopped = false;
        bool dropped = false;  // uploaded or discarded: nothing more is sent
        bool closed = false;
    };
    struct Segment {
        std::string sessionID;
        int index = 0;
        long long startMs = 0;
        std::filesystem::path file;
        SideLevels sides;
    };

    std::optional<std::string> begin(const std::string& recordingID);
    void segmentSealed(const std::filesystem::path& file);
    void pump();
    void failed(const service::UploadError& error, const std::string& sessionID, bool sending);
    void scheduleRetry();
    void dropSegmentsOf(const std::string& sessionID, const char* why);
    void dropFront(const char* why);
    bool awaitingSeal(const std::string& sessionID) const;
    void pollTiles();
    void publishCounts();
    void setMessage(std::optional<std::string> message);

    LiveApi& api_;
    std::shared_ptr<recording::LiveSegmentWriter> writer_;
    std::shared_ptr<SideLevelMeter> meter_;
    Executor& main_;
    LiveAdvisorSettings settings_;

    std::map<std::string, Run> runs_;
    std::optional<std::string> current_;  // the session of the running recording
    std::deque<Segment> queue_;
    bool busy_ = false;  // a request of the send loop is out
    int failures_ = 0;
    TimerHandle retry_, settle_, tilesTimer_;
    bool tilesInFlight_ = false;
    int sent_ = 0, dropped_ = 0;
    std::shared_ptr<std::atomic<bool>> active_ = std::make_shared<std::atomic<bool>>(false);
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

// "seg_<token>_<index>.m4a" -> token and index.
std::optional<std::pair<std::string, int>> parseSegmentName(const std::string& fileName);

}  // namespace vell::live
