// What came of a recording: the list, the detail with its processing state, the two sides'
// levels the client measured, speaker names, share links and the shared page.
#include "devserver/crypto.h"
#include "devserver/routes.h"

namespace vell::devserver {

using nlohmann::json;

namespace {

json optionalMs(const std::optional<int64_t>& value) { return value ? json(*value) : json(nullptr); }

std::optional<Recording> ownRecording(Exchange& ex, Services& s, const Account& account, const std::string& id) {
    auto recording = s.store.read([&](const State& state) -> std::optional<Recording> {
        auto it = state.recordings.find(id);
        if (it == state.recordings.end() || it->second.email != account.email) return std::nullopt;
        return it->second;
    });
    if (!recording) ex.fail(404, "not_found");
    return recording;
}

std::string shareUrl(const Exchange& ex, const std::string& token) {
    const std::string host = ex.req.get_header_value("Host");
    return "http://" + (host.empty() ? std::string("127.0.0.1") : host) + "/s/" + token;
}

json listItem(const Recording& r, const std::optional<RecordingWork>& w) {
    return {{"id", r.id},
            {"filename", r.filename},
            {"createdAt", r.createdAtMs},
            {"captureStartedAt", optionalMs(r.captureStartedAt)},
            {"captureEndedAt", optionalMs(r.captureEndedAt)},
            {"durationMs", w ? w->durationMs : 0},
            {"state", w ? w->state : "queued"},
            {"updatedAt", w ? w->updatedAtMs : r.createdAtMs}};
}

json detail(const Exchange& ex, const Recording& r, const std::optional<RecordingWork>& w) {
    json out = listItem(r, w);
    if (!w) return out;
    out["processedAt"] = optionalMs(w->processedAtMs);
    if (w->state == "failed") {
        out["error"] = w->error.value_or("processing_failed");
        out["message"] = "The service could not process this recording.";
    }
    if (w->state != "processed") return out;
    const Analysis analysis = Conversations::analyze(*w);
    json transcript = json::array(), speakers = json::array(), cues = json::array();
    for (const auto& t : analysis.transcript) transcript.push_back(toJson(t));
    for (const auto& sp : analysis.speakers) speakers.push_back(toJson(sp));
    for (const auto& c : analysis.cues) cues.push_back(toJson(c));
    out["summary"] = analysis.summary;
    out["transcript"] = transcript;
    out["speakers"] = speakers;
    out["cues"] = cues;
    out["sideLevels"] = w->sides.has_value();
    out["shareUrl"] = w->shareToken ? json(shareUrl(ex, *w->shareToken)) : json(nullptr);
    return out;
}

}  // namespace

void addResultRoutes(Router& router, Services& s) {
    router.get(R"(/api/recordings)", [&s](Exchange& ex) {
        auto account = signedIn(ex, s.auth);
        if (!account) return;
        auto mine = s.store.read([&](const State& state) {
            std::vector<Recording> list;
            for (const auto& [_, r] : state.recordings)
                if (r.email == account->email) list.push_back(r);
            return list;
        });
        std::sort(mine.begin(), mine.end(), [](const Recording& a, const Recording& b) { return a.createdAtMs > b.createdAtMs; });
        json list = json::array();
        for (const auto& r : mine) list.push_back(listItem(r, s.conversations->work(r.id)));
        ex.reply(200, {{"recordings", list}});
    });

    router.get(R"(/api/recordings/([^/]+))", [&s](Exchange& ex) {
        auto account = signedIn(ex, s.auth);
        if (!account) return;
        auto recording = ownRecording(ex, s, *account, ex.req.matches[1]);
        if (!recording) return;
        ex.reply(200, detail(ex, *recording, s.conversations->work(recording->id)));
    });

    router.put(R"(/api/recordings/([^/]+)/sides)", [&s](Exchange& ex) {
        auto account = signedIn(ex, s.auth);
        if (!account) return;
        auto recording = ownRecording(ex, s, *account, ex.req.matches[1]);
        if (!recording) return;
        auto body = ex.json();
        auto sides = body ? sideLevelsFromJson(*body) : std::nullopt;
        if (!sides) return ex.fail(400, "invalid_sides");
        s.conversations->change(recording->id, [&](RecordingWork& w) { w.sides = *sides; });
        ex.reply(200, {{"ok", true}});
    });

    router.patch(R"(/api/recordings/([^/]+)/speakers)", [&s](Exchange& ex) {
        auto account = signedIn(ex, s.auth);
        if (!account) return;
        auto recording = ownRecording(ex, s, *account, ex.req.matches[1]);
        if (!recording) return;
        auto body = ex.json();
        if (!body || !body->is_object() || !body->contains("speakers") || !(*body)["speakers"].is_object()) {
            return ex.fail(400, "missing_fields");
        }
        auto work = s.conversations->work(recording->id);
        if (!work || work->state != "processed") return ex.fail(409, "not_processed");
        std::map<int, std::string> names;
        int known = 0;
        for (const auto& sp : Conversations::analyze(*work).speakers) known = std::max(known, sp.index);
        for (const auto& [key, value] : (*body)["speakers"].items()) {
            int index = 0;
            try {
                index = std::stoi(key);
            } catch (...) {
                return ex.fail(400, "unknown_speaker");
            }
            if (index < 1 || index > known || !value.is_string() || value.get<std::string>().size() > 80) {
                return ex.fail(400, "unknown_speaker");
            }
            names[index] = value.get<std::string>();
        }
        s.conversations->change(recording->id, [&](RecordingWork& w) {
            for (const auto& [i, n] : names) {
                if (n.empty()) {
                    w.names.erase(i);
                } else {
                    w.names[i] = n;
                }
            }
        });
        json speakers = json::array();
        for (const auto& sp : Conversations::analyze(*s.conversations->work(recording->id)).speakers) speakers.push_back(toJson(sp));
        ex.reply(200, {{"ok", true}, {"speakers", speakers}});
    });

    router.post(R"(/api/recordings/([^/]+)/share)", [&s](Exchange& ex) {
        auto account = signedIn(ex, s.auth);
        if (!account) return;
        auto recording = ownRecording(ex, s, *account, ex.req.matches[1]);
        if (!recording) return;
        auto work = s.conversations->work(recording->id);
        if (!work || work->state != "processed") return ex.fail(409, "not_processed");
        std::string token = work->shareToken.value_or("");
        if (token.empty()) {
            token = crypto::randomHex(16);
            s.conversations->change(recording->id, [&](RecordingWork& w) { w.shareToken = token; });
        }
        ex.reply(200, {{"ok", true}, {"url", shareUrl(ex, token)}, {"token", token}});
    });

    // The shared page needs no session: whoever holds the link reads it.
    router.get(R"(/s/([0-9a-f]+))", [&s](Exchange& ex) {
        const std::string token = ex.req.matches[1];
        auto ids = s.store.read([](const State& state) {
            std::vector<std::string> list;
            for (const auto& [id, _] : state.recordings) list.push_back(id);
            return list;
        });
        for (const auto& id : ids) {
            auto work = s.conversations->work(id);
            if (!work || work->shareToken != token || work->state != "processed") continue;
            ex.res.status = 200;
            ex.res.set_content(sharePage(Conversations::analyze(*work), "Recording " + id), "text/markdown; charset=utf-8");
            return;
        }
        ex.fail(404, "not_found");
    });
}

}  // namespace vell::devserver
