#include "results/recording_results.h"

#include <algorithm>
#include <cmath>

#include "base/private_folder.h"
#include "base/files.h"
#include "base/log.h"
#include "results/results_messages.h"

namespace vell::results {

namespace fs = std::filesystem;
using service::APIError;
using service::Json;

namespace {
const log::Logger kLog("Results");

bool safeID(const std::string& id) {
    return !id.empty() && id.size() < 200 && id.front() != '.' &&
           std::all_of(id.begin(), id.end(), [](unsigned char c) { return std::isalnum(c) || c == '-' || c == '_'; });
}

bool offlineError(const APIError& e) { return e.isNetwork() || (e.kind == APIError::Kind::http && e.status >= 500); }
}  // namespace

Expected<std::vector<RecordingResult>, APIError> fetchList(const service::APIClient& client) {
    auto reply = client.send({.path = "api/recordings"});
    if (!reply) return unexpected(reply.error());
    if (!reply->is_object() || !reply->contains("recordings") || !(*reply)["recordings"].is_array()) {
        return unexpected(APIError::decoding("not a list of recordings"));
    }
    std::vector<RecordingResult> list;
    for (const auto& item : (*reply)["recordings"]) {
        auto r = decodeResult(item);
        if (!r) return unexpected(APIError::decoding("a recording without id or state"));
        list.push_back(std::move(*r));
    }
    return list;
}

Expected<RecordingResult, APIError> fetchDetail(const service::APIClient& client, const std::string& id) {
    auto reply = client.send({.path = "api/recordings/" + id});
    if (!reply) return unexpected(reply.error());
    auto r = decodeResult(*reply);
    if (!r) return unexpected(APIError::decoding("not a recording"));
    return std::move(*r);
}

RecordingResults::RecordingResults(const service::APIClient& client, Executor& main, fs::path directory,
                                   ResultsSettings settings)
    : client_(client), main_(main), directory_(std::move(directory)), settings_(settings) {
    loadKept();
}

RecordingResults::~RecordingResults() {
    for (auto& [_, poll] : polls_) poll.timer.cancel();
}

fs::path RecordingResults::fileFor(const std::string& id) const { return directory_ / (id + ".json"); }

void RecordingResults::loadKept() {
    std::map<std::string, RecordingResult> all;
    std::error_code ec;
    for (fs::directory_iterator it(directory_, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->path().extension() != ".json") continue;
        std::error_code readError;
        auto text = files::read(it->path(), readError);
        if (!text) continue;
        auto r = decodeResult(Json::parse(*text, nullptr, false));
        if (r) all[r->id] = std::move(*r);
    }
    results.set(std::move(all));
}

std::optional<RecordingResult> RecordingResults::kept(const std::string& id) const {
    const auto all = results.get();
    auto it = all.find(id);
    if (it == all.end()) return std::nullopt;
    return it->second;
}

void RecordingResults::keep(const RecordingResult& result) {
    if (!safeID(result.id)) return;
    std::error_code ec;
    files::createPrivateDirectories(directory_, ec);
    if (!files::writeAtomically(fileFor(result.id), encodeResult(result).dump(), ec)) {
        kLog.error("cannot keep the results of " + result.id + ": " + ec.message());
    }
    results.modify([&](auto& all) { all[result.id] = result; });
}

bool meansSignedOut(const std::string& sentence) {
    return sentence == messages::kSignedOut.str() || sentence == APIError::unauthenticated().description();
}

void RecordingResults::list(Done<std::vector<Fetched>> done) {
    if (!client_.hasSessionCookie()) return main_.post([done] { done(unexpected(messages::kSignedOut.str())); });
    std::weak_ptr<int> alive = alive_;
    const auto& client = client_;
    client_.async<std::vector<RecordingResult>>([&client] { return fetchList(client); },
        [this, alive, done](Expected<std::vector<RecordingResult>, APIError> r) {
            if (alive.expired()) return;
            std::vector<Fetched> out;
            if (r) {
                for (auto& item : *r) {
                    // The list tells the state; the finished details kept here fill the rest.
                    auto mine = kept(item.id);
                    if (mine && mine->state == item.state && item.state == "processed") {
                        mine->durationMs = item.durationMs;
                        out.push_back({*mine, std::nullopt});
                    } else {
                        out.push_back({item, std::nullopt});
                    }
                }
                return done(std::move(out));
            }
            if (!offlineError(r.error())) return done(unexpected(r.error().descriptionWithCause()));
            for (const auto& [_, kept] : results.get()) out.push_back({kept, r.error().descriptionWithCause()});
            std::sort(out.begin(), out.end(), [](const Fetched& a, const Fetched& b) { return a.result.createdAt > b.result.createdAt; });
            done(std::move(out));
        });
}

void RecordingResults::detail(const std::string& id, Done<Fetched> done) {
    if (!safeID(id)) return main_.post([done, id] { done(unexpected(messages::kNotKept.str() + id)); });
    std::weak_ptr<int> alive = alive_;
    const auto& client = client_;
    client_.async<RecordingResult>([&client, id] { return fetchDetail(client, id); },
        [this, alive, id, done](Expected<RecordingResult, APIError> r) {
            if (alive.expired()) return;
            if (r) {
                if (r->finished()) keep(*r);
                return done(Fetched{*r, std::nullopt});
            }
            const auto mine = kept(id);
            if (mine && (offlineError(r.error()) || r.error().kind == APIError::Kind::decoding)) {
                return done(Fetched{*mine, r.error().kind == APIError::Kind::decoding ? messages::kUnreadable.str()
                                                                                        : r.error().descriptionWithCause()});
            }
            if (r.error().kind == APIError::Kind::decoding) return done(unexpected(messages::kUnreadable.str()));
            done(unexpected(r.error().descriptionWithCause()));
        });
}

void RecordingResults::renameSpeakers(const std::string& id, const std::map<int, std::string>& names,
                                      Done<RecordingResult> done) {
    Json speakers = Json::object();
    for (const auto& [index, name] : names) speakers[std::to_string(index)] = name;
    std::weak_ptr<int> alive = alive_;
    const auto& client = client_;
    client_.async<RecordingResult>(
        [&client, id, speakers]() -> Expected<RecordingResult, APIError> {
            auto reply = client.send({.method = "PATCH", .path = "api/recordings/" + id + "/speakers",
                                      .json = Json{{"speakers", speakers}}});
            if (!reply) return unexpected(reply.error());
            return fetchDetail(client, id);
        },
        [this, alive, done](Expected<RecordingResult, APIError> r) {
            if (alive.expired()) return;
            if (!r && r.error().code == "unknown_speaker") return done(unexpected(messages::kNoSuchSpeaker.str()));
            if (!r) return done(unexpected(r.error().descriptionWithCause()));
            if (r->finished()) keep(*r);
            done(*r);
        });
}

void RecordingResults::share(const std::string& id, Done<std::string> done) {
    std::weak_ptr<int> alive = alive_;
    const auto& client = client_;
    client_.async<std::string>(
        [&client, id]() -> Expected<std::string, APIError> {
            auto reply = client.send({.method = "POST", .path = "api/recordings/" + id + "/share"});
            if (!reply) return unexpected(reply.error());
            auto url = service::stringField(*reply, "url");
            if (!url || url->empty()) return unexpected(APIError::decoding("no share link"));
            return *url;
        },
        [this, alive, id, done](Expected<std::string, APIError> r) {
            if (alive.expired()) return;
            if (!r) return done(unexpected(r.error().descriptionWithCause()));
            if (auto mine = kept(id)) {
                mine->shareUrl = *r;
                keep(*mine);
            }
            done(*r);
        });
}

void RecordingResults::follow(const std::string& recordingID, const fs::path& audioFile) {
    if (!safeID(recordingID) || polls_.count(recordingID)) return;
    if (auto mine = kept(recordingID); mine && mine->finished()) return;
    Poll poll;
    if (!audioFile.empty()) {
        auto sides = audioFile;
        sides.replace_extension(".sides.json");
        poll.sidesFile = sides;
    }
    polls_[recordingID] = poll;
    kLog.info("following the processing of " + recordingID);
    pollNow(recordingID);
}

void RecordingResults::pollNow(const std::string& id) {
    auto it = polls_.find(id);
    if (it == polls_.end()) return;
    std::optional<std::string> sides;
    std::error_code ec;
    if (!it->second.sidesFile.empty() && fs::exists(it->second.sidesFile, ec)) {
        sides = files::read(it->second.sidesFile, ec);
    }
    const fs::path sidesFile = it->second.sidesFile;
    std::weak_ptr<int> alive = alive_;
    const auto& client = client_;
    struct Outcome {
        std::optional<RecordingResult> result;
        bool sidesSent = false;
        bool gone = false;
    };
    client_.async<Outcome>(
        [&client, id, sides]() -> Expected<Outcome, APIError> {
            Outcome out;
            if (sides) {
                // The levels let the service tell the speakers apart; they go before the results are read.
                auto sent = client.send({.method = "PUT", .path = "api/recordings/" + id + "/sides",
                                         .json = Json::parse(*sides, nullptr, false)});
                if (!sent && offlineError(sent.error())) return unexpected(sent.error());
                out.sidesSent = true;  // refused for good counts as done: nothing would change it
            }
            auto detail = fetchDetail(client, id);
            if (!detail) {
                if (detail.error().kind == APIError::Kind::http && detail.error().status == 404) {
                    out.gone = true;
                    return out;
                }
                return unexpected(detail.error());
            }
            out.result = std::move(*detail);
            return out;
        },
        [this, alive, id, sidesFile](Expected<Outcome, APIError> r) {
            if (alive.expired()) return;
            if (r && r->sidesSent) {
                std::error_code ignored;
                fs::remove(sidesFile, ignored);
                polls_[id].sidesFile.clear();
            }
            if (r && r->gone) {
                kLog.info("the service no longer has " + id);
                polls_.erase(id);
                return;
            }
            if (r && r->result && r->result->finished()) {
                kLog.info("results of " + id + ": " + r->result->state);
                keep(*r->result);
                polls_.erase(id);
                return;
            }
            if (!r) kLog.debug("results of " + id + " not fetched: " + r.error().description());
            scheduleNext(id);
        });
}

void RecordingResults::scheduleNext(const std::string& id) {
    auto it = polls_.find(id);
    if (it == polls_.end()) return;
    auto& poll = it->second;
    const double delay = std::min(settings_.pollCapSeconds, settings_.pollBaseSeconds * std::pow(2.0, poll.attempts));
    ++poll.attempts;
    std::weak_ptr<int> alive = alive_;
    poll.timer = main_.postAfter(delay, [this, alive, id] {
        if (!alive.expired()) pollNow(id);
    });
}

}  // namespace vell::results
