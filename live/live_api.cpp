#include "live/live_api.h"

#include <algorithm>
#include <cmath>

#include "live/live_messages.h"
#include "service/resumable_upload.h"

namespace vell::live {

using service::Json;
using service::UploadError;

namespace {
std::string percent(const Json& value) {
    return value.is_number() ? std::to_string(std::lround(value.get<double>())) + "%" : std::string("?");
}

std::string seconds(const Json& data, const char* key) {
    auto it = data.find(key);
    if (it == data.end() || !it->is_number()) return "?";
    return std::to_string(std::lround(it->get<double>() / 1000));
}
}  // namespace

std::optional<std::vector<Tile>> decodeTiles(const Json& reply) {
    if (!reply.is_object() || !reply.contains("tiles") || !reply["tiles"].is_array()) return std::nullopt;
    std::vector<Tile> tiles;
    for (const auto& t : reply["tiles"]) {
        auto id = service::stringField(t, "id");
        auto kind = service::stringField(t, "kind");
        if (!id || !kind) return std::nullopt;
        Tile tile;
        tile.id = *id;
        tile.kind = *kind;
        if (t.contains("weight") && t["weight"].is_number()) tile.weight = std::clamp(t["weight"].get<double>(), 0.0, 1.0);
        tile.atMs = service::integerField(t, "atMs").value_or(0);
        tile.title = service::stringField(t, "title").value_or("");
        tile.text = service::stringField(t, "text").value_or("");
        if (t.contains("data") && t["data"].is_object()) tile.data = t["data"];
        tile.updatedAt = service::integerField(t, "updatedAt").value_or(0);
        tiles.push_back(std::move(tile));
    }
    return tiles;
}

Json toJson(const Tile& t) {
    return {{"id", t.id},       {"kind", t.kind}, {"weight", t.weight}, {"atMs", t.atMs},
            {"title", t.title}, {"text", t.text}, {"data", t.data},     {"updatedAt", t.updatedAt}};
}

std::string tileTitle(const Tile& tile) {
    if (tile.kind == "talkTime") return messages::kTalkTimeTitle.str();
    if (tile.kind == "monologue") return messages::kMonologueTitle.str();
    if (tile.kind == "questions") return messages::kQuestionsTitle.str();
    if (tile.kind == "silence") return messages::kSilenceTitle.str();
    return tile.title.empty() ? tile.kind : tile.title;
}

std::string tileText(const Tile& tile) {
    const Json& d = tile.data;
    try {
        if (tile.kind == "talkTime" && d.contains("shares") && d["shares"].is_object()) {
            std::string en, es;
            for (const auto& [index, share] : d["shares"].items()) {
                if (!en.empty()) en += ", ", es += ", ";
                en += "Speaker " + index + " " + percent(share);
                es += "Participante " + index + " " + percent(share);
            }
            return localized("Share of the talking: " + en + ".", "Reparto del tiempo de habla: " + es + ".");
        }
        if (tile.kind == "monologue" && d.contains("speaker")) {
            const std::string who = d["speaker"].dump(), s = seconds(d, "durationMs");
            return localized("Speaker " + who + " spoke for " + s + " seconds without a break.",
                             "Participante " + who + " habló " + s + " segundos sin pausa.");
        }
        if (tile.kind == "questions" && d.contains("count")) {
            const std::string n = d["count"].dump();
            return localized(n + " question(s) asked.", n + " pregunta(s) hecha(s).");
        }
        if (tile.kind == "silence" && d.contains("count")) {
            const std::string n = d["count"].dump(), s = seconds(d, "longestMs");
            return localized(n + " long silence(s), the longest " + s + " seconds.",
                             n + " silencio(s) largo(s), el más largo de " + s + " segundos.");
        }
    } catch (const Json::exception&) {
    }
    return tile.text;
}

void ApiLiveService::open(const std::string& sessionID, const std::string& recordingID, Done<Unit> done) {
    const auto& client = client_;
    client.async<Unit>(
        [&client, sessionID, recordingID]() -> Expected<Unit, service::APIError> {
            auto reply = client.send({.method = "POST",
                                      .path = "api/recordings/live",
                                      .json = Json{{"sessionId", sessionID}, {"recordingId", recordingID}}});
            if (!reply) return unexpected(reply.error());
            return Unit{};
        },
        [done](Expected<Unit, service::APIError> r) {
            if (r) return done(Unit{});
            done(unexpected(UploadError(r.error())));
        });
}

void ApiLiveService::sendChunk(const std::string& sessionID, int index, long long startMs, const std::filesystem::path& file,
                               const SideLevels& sides, Done<Unit> done) {
    const auto& client = client_;
    auto result = std::make_shared<Expected<Unit, UploadError>>(Unit{});
    client.spawn([&client, sessionID, index, startMs, file, header = sides.headerValue(), done, result] {
        *result = service::RecordingUploads(client).uploadLiveChunk(
            sessionID, file, service::RecordingUploads::LiveChunkPlace{index, startMs, header});
        runtime::main().post([done, result] { done(std::move(*result)); });
    });
}

void ApiLiveService::tiles(const std::string& sessionID, Done<std::vector<Tile>> done) {
    const auto& client = client_;
    client.async<Json>([&client, sessionID] { return client.send({.path = "api/recordings/live/" + sessionID + "/tiles"}); },
                       [done](Expected<Json, service::APIError> r) {
                           if (!r) return done(unexpected(UploadError(r.error())));
                           auto tiles = decodeTiles(*r);
                           if (!tiles) return done(unexpected(UploadError(service::APIError::decoding("not a list of tiles"))));
                           done(std::move(*tiles));
                       });
}

void ApiLiveService::close(const std::string& sessionID, Done<Unit> done) {
    const auto& client = client_;
    client.async<Json>(
        [&client, sessionID] { return client.send({.method = "POST", .path = "api/recordings/live/" + sessionID + "/close"}); },
        [done](Expected<Json, service::APIError> r) {
            if (!r) return done(unexpected(UploadError(r.error())));
            done(Unit{});
        });
}

}  // namespace vell::live
