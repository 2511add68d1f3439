// Live sessions: open, chunks in order, advice tiles, close and purge; and the admin view
// of them.
#include <charconv>

#include "devserver/crypto.h"
#include "devserver/routes.h"

namespace vell::devserver {

using nlohmann::json;

namespace {

std::optional<int> chunkIndexHeader(const httplib::Request& req, bool& invalid) {
    invalid = false;
    if (!req.has_header("X-Vell-Chunk-Index")) return std::nullopt;
    const std::string text = req.get_header_value("X-Vell-Chunk-Index");
    int value = -1;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || value < 0) {
        invalid = true;
        return std::nullopt;
    }
    return value;
}

json sessionJson(const LiveSession& s) {
    return {{"id", s.id}, {"state", s.state}, {"openedAt", s.openedAtMs}, {"nextIndex", s.lastIndex() + 1},
            {"chunks", s.chunks.size()}};
}

void openSession(Exchange& ex, Services& s) {
    auto account = signedIn(ex, s.auth);
    if (!account) return;
    auto body = ex.json();
    if (!body || !body->is_object() || !body->contains("sessionId") || !(*body)["sessionId"].is_string()) {
        return ex.fail(400, "missing_fields");
    }
    const std::string id = (*body)["sessionId"];
    if (!LiveChunks::validSessionId(id)) return ex.fail(400, "invalid_session");
    std::optional<std::string> recordingId;
    if (body->contains("recordingId") && (*body)["recordingId"].is_string()) recordingId = (*body)["recordingId"];
    LiveSession session;
    switch (s.conversations->open(account->email, id, recordingId, session)) {
        case Conversations::Access::ok:
            return ex.reply(200, sessionJson(session));
        case Conversations::Access::closed:
            return ex.fail(409, "session_closed", sessionJson(session));
        case Conversations::Access::notFound:
            return ex.fail(404, "not_found");
    }
}

void chunk(Exchange& ex, Services& s) {
    auto account = signedIn(ex, s.auth);
    if (!account) return;
    const std::string id = ex.req.matches[1];
    if (!LiveChunks::validSessionId(id)) return ex.fail(400, "invalid_session");
    bool invalidIndex = false;
    auto index = chunkIndexHeader(ex.req, invalidIndex);
    if (invalidIndex) return ex.fail(400, "invalid_index");
    std::optional<SideLevels> sides;
    if (ex.req.has_header("X-Vell-Sides")) {
        sides = sideLevelsFromHeader(ex.req.get_header_value("X-Vell-Sides"));
        if (!sides) return ex.fail(400, "invalid_sides");
    }
    std::optional<int64_t> startMs;
    if (ex.req.has_header("X-Vell-Chunk-Start-Ms")) {
        const std::string text = ex.req.get_header_value("X-Vell-Chunk-Start-Ms");
        int64_t value = -1;
        auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (ec != std::errc() || end != text.data() + text.size() || value < 0) return ex.fail(400, "invalid_start");
        startMs = value;
    }
    auto admitted = s.conversations->admitChunk(account->email, id, index);
    using O = Conversations::ChunkOutcome;
    switch (admitted.outcome) {
        case O::notFound:
            return ex.fail(404, "not_found");
        case O::closed:
            return ex.fail(409, "session_closed", {{"nextIndex", admitted.nextIndex}});
        case O::outOfOrder:
            return ex.fail(409, "chunk_out_of_order", {{"nextIndex", admitted.nextIndex}});
        case O::duplicate:
            // Sent again after a lost answer: already stored.
            return ex.reply(200, {{"ok", true}, {"index", admitted.index}, {"nextIndex", admitted.nextIndex}, {"duplicate", true}});
        case O::stored:
            break;
    }
    auto path = s.live.next(account->id, id);
    FileSink file;
    if (!path || !file.open(*path, 0)) return ex.fail(500, "storage_failed");
    bool failed = false;
    bool complete = ex.body()([&](const char* data, size_t size) {
        if (!failed && !file.write(data, size)) failed = true;
        return true;
    });
    auto discard = [&] {
        file.close();
        std::error_code ignored;
        std::filesystem::remove(*path, ignored);
    };
    if (failed || !file.sync()) {
        discard();
        return ex.fail(500, "storage_failed");
    }
    if (!complete) {
        discard();
        return ex.fail(400, "bad_request");
    }
    if (file.written() == 0) {
        discard();
        return ex.fail(400, "empty_part");
    }
    const int64_t bytes = file.written();
    file.close();
    s.conversations->chunkStored(id, admitted.index, startMs.value_or(int64_t(admitted.index) * Conversations::kChunkMs), bytes,
                                 *path, sides);
    ex.reply(200, {{"ok", true}, {"index", admitted.index}, {"nextIndex", admitted.index + 1}});
}

void tiles(Exchange& ex, Services& s) {
    auto account = signedIn(ex, s.auth);
    if (!account) return;
    const std::string id = ex.req.matches[1];
    auto session = s.conversations->session(account->email, id, true);
    if (!session) return ex.fail(404, "not_found");
    const Analysis analysis = Conversations::analyze(*session);
    json list = json::array();
    for (const auto& cue : analysis.cues) {
        json tile = toJson(cue);
        tile["updatedAt"] = session->updatedAtMs;
        list.push_back(tile);
    }
    json reply = sessionJson(*session);
    reply["tiles"] = list;
    reply["updatedAt"] = session->updatedAtMs;
    reply["heardWords"] = session->words.size();
    ex.reply(200, reply);
}

void closeSession(Exchange& ex, Services& s) {
    auto account = signedIn(ex, s.auth);
    if (!account) return;
    LiveSession session;
    if (s.conversations->close(account->email, ex.req.matches[1], session) != Conversations::Access::ok) {
        return ex.fail(404, "not_found");
    }
    json reply = sessionJson(session);
    reply["ok"] = true;
    reply["closedAt"] = session.closedAtMs.value_or(0);
    ex.reply(200, reply);
}

void purge(Exchange& ex, Services& s) {
    auto account = signedIn(ex, s.auth);
    if (!account) return;
    const std::string id = ex.req.matches[1];
    if (!LiveChunks::validSessionId(id)) return ex.fail(400, "invalid_session");
    const auto dir = s.store.liveDir() / account->id / id;
    if (!s.conversations->purge(account->email, id, dir)) return ex.fail(404, "not_found");
    ex.reply(200, {{"ok", true}});
}

}  // namespace

void addLiveRoutes(Router& router, Services& s) {
    router.post(R"(/api/recordings/live)", [&s](Exchange& ex) { openSession(ex, s); });
    router.post(R"(/api/recordings/live/([^/]+)/chunk)", [&s](Exchange& ex) { chunk(ex, s); });
    router.get(R"(/api/recordings/live/([^/]+)/tiles)", [&s](Exchange& ex) { tiles(ex, s); });
    router.post(R"(/api/recordings/live/([^/]+)/close)", [&s](Exchange& ex) { closeSession(ex, s); });
    router.del(R"(/api/recordings/live/([^/]+))", [&s](Exchange& ex) { purge(ex, s); });

    router.get(R"(/admin/live)", [&s](Exchange& ex) {
        if (adminRefused(ex, s)) return;
        json list = json::array();
        for (const auto& session : s.conversations->allSessions()) {
            json chunks = json::array();
            for (const auto& c : session.chunks)
                chunks.push_back({{"index", c.index}, {"bytes", c.bytes}, {"receivedAt", c.receivedAtMs}, {"analysed", c.analysed}});
            list.push_back({{"id", session.id},
                            {"email", session.email},
                            {"state", session.state},
                            {"openedAt", session.openedAtMs},
                            {"closedAt", session.closedAtMs ? json(*session.closedAtMs) : json(nullptr)},
                            {"recordingId", session.clientRecordingId ? json(*session.clientRecordingId) : json(nullptr)},
                            {"chunks", chunks},
                            {"heardWords", session.words.size()},
                            {"sideWindows", session.sides.microphone.size()},
                            {"tilesFetched", session.tilesFetched}});
        }
        ex.reply(200, list);
    });
    router.post(R"(/admin/processing)", [&s](Exchange& ex) {
        if (adminRefused(ex, s)) return;
        auto body = ex.json();
        if (!body || !body->is_object()) return ex.fail(400, "missing_fields");
        const int failNext = body->value("failNext", 0);
        const int64_t delayMs = body->value("delayMs", int64_t{0});
        if (failNext < 0 || delayMs < 0 || delayMs > 60'000) return ex.fail(400, "invalid_fields");
        s.conversations->setProcessingFaults(failNext, delayMs);
        ex.reply(200, {{"ok", true}});
    });
}

}  // namespace vell::devserver
