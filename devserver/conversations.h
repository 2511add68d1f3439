#pragma once
// What the reference service knows about conversations beyond their audio: live sessions
// (their chunks in order, the words heard so far, the two sides' levels) and the processing
// of uploaded recordings (queued, processing, processed or failed, with the recognised
// words). Kept in "conversations.json" beside the service state, saved atomically after
// every change. One worker thread decodes and recognises, one job at a time, so request
// threads never wait for it.
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "devserver/analysis.h"
#include "devserver/store.h"

namespace vell::devserver {

struct LiveChunkInfo {
    int index = 0;
    int64_t startMs = 0;  // where in the conversation it begins
    int64_t bytes = 0;
    int64_t receivedAtMs = 0;
    std::string path;
    bool analysed = false;
};

struct LiveSession {
    std::string id;
    std::string email;
    std::string state = "open";  // open, closed
    int64_t openedAtMs = 0;
    std::optional<int64_t> closedAtMs;
    std::optional<std::string> clientRecordingId;
    std::vector<LiveChunkInfo> chunks;
    std::vector<TimedWord> words;
    SideLevels sides;
    int tilesFetched = 0;
    int64_t updatedAtMs = 0;
    int lastIndex() const { return chunks.empty() ? -1 : chunks.back().index; }
};

struct RecordingWork {
    std::string state = "queued";  // queued, processing, processed, failed
    std::optional<std::string> error;
    int64_t queuedAtMs = 0;
    std::optional<int64_t> processedAtMs;
    int64_t durationMs = 0;
    std::vector<TimedWord> words;
    std::vector<int> monoLevels;
    std::optional<SideLevels> sides;
    std::map<int, std::string> names;
    std::optional<std::string> shareToken;
    int64_t updatedAtMs = 0;
};

class Conversations {
public:
    static constexpr int64_t kChunkMs = 30'000;  // a live segment's length, when the client names no start

    explicit Conversations(Store& store);
    ~Conversations();

    // Reads conversations.json and queues every recording not yet processed.
    bool load(std::error_code& error);
    void startWorker();
    // Any thread: the worker takes no further job and a job's injected delay ends now.
    void requestStop();
    // One thread (the owner's): requestStop(), then waits for the job under way.
    void stopWorker();

    // ---- live sessions ----
    enum class Access { ok, notFound, closed };
    // Opens (or finds) the account's session; notFound when the id belongs to another account.
    Access open(const std::string& email, const std::string& id, std::optional<std::string> clientRecordingId,
                LiveSession& out);
    enum class ChunkOutcome { stored, duplicate, outOfOrder, closed, notFound };
    struct ChunkResult {
        ChunkOutcome outcome;
        int index = 0;
        int nextIndex = 0;
    };
    // Decides where a chunk goes before its body is read: its index (the next one when the
    // client names none). A session never opened is opened by its first chunk.
    ChunkResult admitChunk(const std::string& email, const std::string& id, std::optional<int> index);
    // Records a stored chunk (starting startMs into the conversation) and queues its analysis.
    void chunkStored(const std::string& id, int index, int64_t startMs, int64_t bytes, const std::filesystem::path& path,
                     const std::optional<SideLevels>& sides);
    std::optional<LiveSession> session(const std::string& email, const std::string& id, bool countTilesFetch = false);
    Access close(const std::string& email, const std::string& id, LiveSession& out);
    // Deletes the session and its chunks; false when it is unknown.
    bool purge(const std::string& email, const std::string& id, const std::filesystem::path& chunkDir);
    std::vector<LiveSession> allSessions() const;

    // ---- recordings ----
    void enqueueRecording(const std::string& recordingId);
    std::optional<RecordingWork> work(const std::string& recordingId) const;
    // Changes a recording's analysis inputs (side levels, speaker names, share token).
    bool change(const std::string& recordingId, const std::function<void(RecordingWork&)>& f);

    // Admin: the next `count` processing jobs fail; every job waits delayMs first.
    void setProcessingFaults(int failNext, int64_t delayMs);

    // What a live session's analysis and a recording's analysis are.
    static Analysis analyze(const LiveSession& session);
    static Analysis analyze(const RecordingWork& work);

private:
    void saveLocked();
    void run();
    void processRecording(const std::string& recordingId);
    void analyseChunk(const std::string& sessionId, int index);

    Store& store_;
    std::filesystem::path file_;
    mutable std::mutex mutex_;
    std::map<std::string, LiveSession> sessions_;
    std::map<std::string, RecordingWork> recordings_;
    int failNext_ = 0;
    int64_t delayMs_ = 0;

    std::mutex jobsMutex_;
    std::condition_variable jobsChanged_;
    std::deque<std::function<void()>> jobs_;
    bool stopping_ = false;
    std::thread worker_;
};

}  // namespace vell::devserver
