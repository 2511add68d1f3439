#include "devserver/conversations.h"

#include <chrono>
#include <cstdio>

#include "base/files.h"
#include "devserver/crypto.h"
#include "devserver/speech_recognizer.h"

namespace vell::devserver {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr int kWindowMs = 500;

json wordsJson(const std::vector<TimedWord>& words) {
    json list = json::array();
    for (const auto& w : words) list.push_back({w.word, w.startMs, w.endMs});
    return list;
}
std::vector<TimedWord> wordsFrom(const json& list) {
    std::vector<TimedWord> words;
    for (const auto& w : list) words.push_back({w.at(0).get<std::string>(), w.at(1).get<int64_t>(), w.at(2).get<int64_t>()});
    return words;
}
json namesJson(const std::map<int, std::string>& names) {
    json j = json::object();
    for (const auto& [i, n] : names) j[std::to_string(i)] = n;
    return j;
}
std::map<int, std::string> namesFrom(const json& j) {
    std::map<int, std::string> names;
    for (const auto& [k, v] : j.items()) names[std::stoi(k)] = v.get<std::string>();
    return names;
}

json sessionJson(const LiveSession& s) {
    json chunks = json::array();
    for (const auto& c : s.chunks)
        chunks.push_back({{"index", c.index}, {"startMs", c.startMs}, {"bytes", c.bytes}, {"receivedAtMs", c.receivedAtMs}, {"path", c.path},
                          {"analysed", c.analysed}});
    return {{"id", s.id},
            {"email", s.email},
            {"state", s.state},
            {"openedAtMs", s.openedAtMs},
            {"closedAtMs", s.closedAtMs ? json(*s.closedAtMs) : json(nullptr)},
            {"clientRecordingId", s.clientRecordingId ? json(*s.clientRecordingId) : json(nullptr)},
            {"chunks", chunks},
            {"words", wordsJson(s.words)},
            {"sides", toJson(s.sides)},
            {"tilesFetched", s.tilesFetched},
            {"updatedAtMs", s.updatedAtMs}};
}
LiveSession sessionFrom(const json& j) {
    LiveSession s;
    s.id = j.at("id");
    s.email = j.at("email");
    s.state = j.value("state", "open");
    s.openedAtMs = j.value("openedAtMs", int64_t{0});
    if (j.contains("closedAtMs") && !j["closedAtMs"].is_null()) s.closedAtMs = j["closedAtMs"].get<int64_t>();
    if (j.contains("clientRecordingId") && !j["clientRecordingId"].is_null()) s.clientRecordingId = j["clientRecordingId"];
    for (const auto& c : j.value("chunks", json::array()))
        s.chunks.push_back({c.at("index"), c.value("startMs", int64_t{0}), c.at("bytes"), c.at("receivedAtMs"), c.at("path"),
                            c.value("analysed", false)});
    s.words = wordsFrom(j.value("words", json::array()));
    if (auto sides = sideLevelsFromJson(j.value("sides", json::object()))) s.sides = *sides;
    s.tilesFetched = j.value("tilesFetched", 0);
    s.updatedAtMs = j.value("updatedAtMs", int64_t{0});
    return s;
}

json workJson(const RecordingWork& w) {
    return {{"state", w.state},
            {"error", w.error ? json(*w.error) : json(nullptr)},
            {"queuedAtMs", w.queuedAtMs},
            {"processedAtMs", w.processedAtMs ? json(*w.processedAtMs) : json(nullptr)},
            {"durationMs", w.durationMs},
            {"words", wordsJson(w.words)},
            {"monoLevels", w.monoLevels},
            {"sides", w.sides ? toJson(*w.sides) : json(nullptr)},
            {"names", namesJson(w.names)},
            {"shareToken", w.shareToken ? json(*w.shareToken) : json(nullptr)},
            {"updatedAtMs", w.updatedAtMs}};
}
RecordingWork workFrom(const json& j) {
    RecordingWork w;
    w.state = j.value("state", "queued");
    if (j.contains("error") && !j["error"].is_null()) w.error = j["error"].get<std::string>();
    w.queuedAtMs = j.value("queuedAtMs", int64_t{0});
    if (j.contains("processedAtMs") && !j["processedAtMs"].is_null()) w.processedAtMs = j["processedAtMs"].get<int64_t>();
    w.durationMs = j.value("durationMs", int64_t{0});
    w.words = wordsFrom(j.value("words", json::array()));
    w.monoLevels = j.value("monoLevels", std::vector<int>{});
    if (j.contains("sides") && !j["sides"].is_null()) w.sides = sideLevelsFromJson(j["sides"]);
    w.names = namesFrom(j.value("names", json::object()));
    if (j.contains("shareToken") && !j["shareToken"].is_null()) w.shareToken = j["shareToken"].get<std::string>();
    w.updatedAtMs = j.value("updatedAtMs", int64_t{0});
    return w;
}

std::vector<TimedWord> recognise(const std::string& bytes, std::vector<int16_t>& samples, int64_t offsetMs) {
    samples = decodeToSpeechRate(bytes);
    std::vector<TimedWord> words;
    if (samples.empty()) return words;
    const Recognition heard = recognizeSpeech(samples);
    for (const auto& w : heard.words) {
        words.push_back({w.word, offsetMs + std::llround(w.startSeconds * 1000), offsetMs + std::llround(w.endSeconds * 1000)});
    }
    return words;
}

}  // namespace

Conversations::Conversations(Store& store) : store_(store), file_(store.dataDir() / "conversations.json") {}

Conversations::~Conversations() { stopWorker(); }

bool Conversations::load(std::error_code& error) {
    std::error_code readError;
    auto text = files::read(file_, readError, files::kNoLimit);
    std::lock_guard lock(mutex_);
    if (text) {
        try {
            auto j = json::parse(*text);
            for (const auto& s : j.value("sessions", json::array())) {
                auto session = sessionFrom(s);
                sessions_[session.id] = session;
            }
            const json recordings = j.value("recordings", json::object());
            for (const auto& [id, w] : recordings.items()) recordings_[id] = workFrom(w);
        } catch (const std::exception&) {
            error = std::make_error_code(std::errc::illegal_byte_sequence);
            return false;
        }
    } else if (readError != std::errc::no_such_file_or_directory) {
        error = readError;
        return false;
    }
    // Recordings received before (or while a run was cut short) are processed now.
    auto ids = store_.read([](const State& state) {
        std::vector<std::string> list;
        for (const auto& [id, _] : state.recordings) list.push_back(id);
        return list;
    });
    for (const auto& id : ids) {
        auto it = recordings_.find(id);
        if (it != recordings_.end() && (it->second.state == "processed" || it->second.state == "failed")) continue;
        auto& w = recordings_[id];
        w.state = "queued";
        if (!w.queuedAtMs) w.queuedAtMs = crypto::nowMs();
        std::lock_guard jobsLock(jobsMutex_);
        jobs_.push_back([this, id] { processRecording(id); });
    }
    for (auto& [id, s] : sessions_)
        for (const auto& c : s.chunks)
            if (!c.analysed) {
                std::lock_guard jobsLock(jobsMutex_);
                jobs_.push_back([this, id = id, index = c.index] { analyseChunk(id, index); });
            }
    return true;
}

void Conversations::saveLocked() {
    json sessions = json::array();
    for (const auto& [_, s] : sessions_) sessions.push_back(sessionJson(s));
    json recordings = json::object();
    for (const auto& [id, w] : recordings_) recordings[id] = workJson(w);
    std::error_code error;
    if (!files::writeAtomically(file_, json{{"sessions", sessions}, {"recordings", recordings}}.dump(), error)) {
        throw std::system_error(error, "saving conversations.json");
    }
}

void Conversations::startWorker() {
    if (worker_.joinable()) return;
    worker_ = std::thread([this] { run(); });
}

void Conversations::requestStop() {
    {
        std::lock_guard lock(jobsMutex_);
        stopping_ = true;
    }
    jobsChanged_.notify_all();
}

void Conversations::stopWorker() {
    requestStop();
    if (worker_.joinable()) worker_.join();
}

void Conversations::run() {
    while (true) {
        std::function<void()> job;
        {
            std::unique_lock lock(jobsMutex_);
            jobsChanged_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
            if (stopping_) return;
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        try {
            job();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "error: analysis job: %s\n", e.what());
        }
    }
}

// ---- live sessions ----

Conversations::Access Conversations::open(const std::string& email, const std::string& id,
                                          std::optional<std::string> clientRecordingId, LiveSession& out) {
    std::lock_guard lock(mutex_);
    auto it = sessions_.find(id);
    if (it != sessions_.end()) {
        if (it->second.email != email) return Access::notFound;
        out = it->second;
        return it->second.state == "open" ? Access::ok : Access::closed;
    }
    LiveSession s;
    s.id = id;
    s.email = email;
    s.openedAtMs = s.updatedAtMs = crypto::nowMs();
    s.clientRecordingId = std::move(clientRecordingId);
    s.sides.windowMs = kWindowMs;
    sessions_[id] = s;
    saveLocked();
    out = s;
    return Access::ok;
}

Conversations::ChunkResult Conversations::admitChunk(const std::string& email, const std::string& id,
                                                     std::optional<int> index) {
    std::lock_guard lock(mutex_);
    auto it = sessions_.find(id);
    if (it == sessions_.end()) {
        LiveSession s;
        s.id = id;
        s.email = email;
        s.openedAtMs = s.updatedAtMs = crypto::nowMs();
        s.sides.windowMs = kWindowMs;
        it = sessions_.emplace(id, s).first;
        saveLocked();
    }
    auto& s = it->second;
    if (s.email != email) return {ChunkOutcome::notFound};
    const int next = s.lastIndex() + 1;
    if (s.state != "open") return {ChunkOutcome::closed, 0, next};
    const int chosen = index.value_or(next);
    if (chosen < next) {
        for (const auto& c : s.chunks)
            if (c.index == chosen) return {ChunkOutcome::duplicate, chosen, next};
        return {ChunkOutcome::outOfOrder, chosen, next};
    }
    // Gaps are allowed: a client drops segments it could not send in time.
    return {ChunkOutcome::stored, chosen, next};
}

void Conversations::chunkStored(const std::string& id, int index, int64_t startMs, int64_t bytes, const fs::path& path,
                                const std::optional<SideLevels>& sides) {
    {
        std::lock_guard lock(mutex_);
        auto it = sessions_.find(id);
        if (it == sessions_.end()) return;
        auto& s = it->second;
        s.chunks.push_back({index, startMs, bytes, crypto::nowMs(), path.string(), false});
        if (sides) s.sides.place(*sides, startMs);
        s.updatedAtMs = crypto::nowMs();
        saveLocked();
    }
    {
        std::lock_guard lock(jobsMutex_);
        jobs_.push_back([this, id, index] { analyseChunk(id, index); });
    }
    jobsChanged_.notify_one();
}

void Conversations::analyseChunk(const std::string& sessionId, int index) {
    std::string path;
    int64_t startMs = 0;
    {
        std::lock_guard lock(mutex_);
        auto it = sessions_.find(sessionId);
        if (it == sessions_.end()) return;
        for (const auto& c : it->second.chunks)
            if (c.index == index && !c.analysed) path = c.path, startMs = c.startMs;
    }
    if (path.empty()) return;
    std::error_code error;
    auto bytes = files::read(path, error, files::kNoLimit);
    std::vector<int16_t> samples;
    auto words = bytes ? recognise(*bytes, samples, startMs) : std::vector<TimedWord>{};
    std::lock_guard lock(mutex_);
    auto it = sessions_.find(sessionId);
    if (it == sessions_.end()) return;
    for (auto& c : it->second.chunks)
        if (c.index == index) c.analysed = true;
    auto& all = it->second.words;
    all.insert(all.end(), words.begin(), words.end());
    it->second.updatedAtMs = crypto::nowMs();
    saveLocked();
}

std::optional<LiveSession> Conversations::session(const std::string& email, const std::string& id, bool countTilesFetch) {
    std::lock_guard lock(mutex_);
    auto it = sessions_.find(id);
    if (it == sessions_.end() || it->second.email != email) return std::nullopt;
    if (countTilesFetch) {
        it->second.tilesFetched++;
        saveLocked();
    }
    return it->second;
}

Conversations::Access Conversations::close(const std::string& email, const std::string& id, LiveSession& out) {
    std::lock_guard lock(mutex_);
    auto it = sessions_.find(id);
    if (it == sessions_.end() || it->second.email != email) return Access::notFound;
    if (it->second.state == "open") {
        it->second.state = "closed";
        it->second.closedAtMs = crypto::nowMs();
        it->second.updatedAtMs = *it->second.closedAtMs;
        saveLocked();
    }
    out = it->second;
    return Access::ok;
}

bool Conversations::purge(const std::string& email, const std::string& id, const fs::path& chunkDir) {
    std::lock_guard lock(mutex_);
    auto it = sessions_.find(id);
    std::error_code ignored;
    if (it == sessions_.end() || it->second.email != email) {
        // Chunks that arrived without any record of the session still go.
        return fs::remove_all(chunkDir, ignored) > 0;
    }
    fs::remove_all(chunkDir, ignored);
    sessions_.erase(it);
    saveLocked();
    return true;
}

std::vector<LiveSession> Conversations::allSessions() const {
    std::lock_guard lock(mutex_);
    std::vector<LiveSession> list;
    for (const auto& [_, s] : sessions_) list.push_back(s);
    return list;
}

// ---- recordings ----

void Conversations::enqueueRecording(const std::string& recordingId) {
    {
        std::lock_guard lock(mutex_);
        auto& w = recordings_[recordingId];
        if (w.state == "processed" || w.state == "processing") return;
        w.state = "queued";
        w.error.reset();
        w.queuedAtMs = w.updatedAtMs = crypto::nowMs();
        saveLocked();
    }
    {
        std::lock_guard lock(jobsMutex_);
        jobs_.push_back([this, recordingId] { processRecording(recordingId); });
    }
    jobsChanged_.notify_one();
}

void Conversations::processRecording(const std::string& recordingId) {
    int64_t delay = 0;
    bool fail = false;
    {
        std::lock_guard lock(mutex_);
        auto it = recordings_.find(recordingId);
        if (it == recordings_.end() || it->second.state != "queued") return;
        it->second.state = "processing";
        it->second.updatedAtMs = crypto::nowMs();
        delay = delayMs_;
        if (failNext_ > 0) {
            --failNext_;
            fail = true;
        }
        saveLocked();
    }
    if (delay > 0) {
        std::unique_lock lock(jobsMutex_);
        jobsChanged_.wait_for(lock, std::chrono::milliseconds(delay), [this] { return stopping_; });
    }
    auto recording = store_.read([&](const State& state) -> std::optional<Recording> {
        auto it = state.recordings.find(recordingId);
        if (it == state.recordings.end()) return std::nullopt;
        return it->second;
    });
    std::optional<std::string> failure;
    std::vector<TimedWord> words;
    std::vector<int16_t> samples;
    if (fail) {
        failure = "processing_failed";
    } else if (!recording) {
        failure = "not_found";
    } else {
        std::error_code error;
        auto bytes = files::read(recording->path, error, files::kNoLimit);
        if (!bytes) {
            failure = "storage_failed";
        } else {
            words = recognise(*bytes, samples, 0);
        }
    }
    std::lock_guard lock(mutex_);
    auto& w = recordings_[recordingId];
    w.updatedAtMs = crypto::nowMs();
    if (failure) {
        w.state = "failed";
        w.error = failure;
        saveLocked();
        return;
    }
    w.words = std::move(words);
    w.monoLevels = loudnessWindows(samples, kWindowMs);
    w.durationMs = int64_t(samples.size()) / 16;
    if (!w.durationMs && recording->captureStartedAt && recording->captureEndedAt) {
        w.durationMs = std::max<int64_t>(0, *recording->captureEndedAt - *recording->captureStartedAt);
    }
    w.state = "processed";
    w.processedAtMs = w.updatedAtMs;
    saveLocked();
}

std::optional<RecordingWork> Conversations::work(const std::string& recordingId) const {
    std::lock_guard lock(mutex_);
    auto it = recordings_.find(recordingId);
    if (it == recordings_.end()) return std::nullopt;
    return it->second;
}

bool Conversations::change(const std::string& recordingId, const std::function<void(RecordingWork&)>& f) {
    std::lock_guard lock(mutex_);
    auto it = recordings_.find(recordingId);
    if (it == recordings_.end()) return false;
    f(it->second);
    it->second.updatedAtMs = crypto::nowMs();
    saveLocked();
    return true;
}

void Conversations::setProcessingFaults(int failNext, int64_t delayMs) {
    std::lock_guard lock(mutex_);
    failNext_ = failNext;
    delayMs_ = delayMs;
}

Analysis Conversations::analyze(const LiveSession& s) {
    AnalysisInput input;
    input.words = s.words;
    if (!s.sides.empty()) input.sides = s.sides;
    input.durationMs = int64_t(s.sides.microphone.size()) * s.sides.windowMs;
    return devserver::analyze(input);
}

Analysis Conversations::analyze(const RecordingWork& w) {
    AnalysisInput input;
    input.words = w.words;
    if (w.sides && !w.sides->empty()) input.sides = w.sides;
    input.monoLevels = w.monoLevels;
    input.monoWindowMs = kWindowMs;
    input.durationMs = w.durationMs;
    input.names = w.names;
    if (!w.durationMs && input.sides) {
        input.durationMs = int64_t(std::max(input.sides->microphone.size(), input.sides->system.size())) * input.sides->windowMs;
    }
    return devserver::analyze(input);
}

}  // namespace vell::devserver
