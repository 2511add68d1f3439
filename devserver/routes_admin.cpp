// The admin API that tests use to set the service up and look inside it.
#include <cmath>

#include "devserver/crypto.h"
#include "devserver/quick_transcriber.h"
#include "devserver/routes.h"

namespace vell::devserver {

using nlohmann::json;

namespace {
bool admittedHere(Exchange& ex, const Services& s) {
    if (s.adminToken.empty()) {
        ex.fail(403, "admin_disabled");
        return false;
    }
    if (!crypto::equal(ex.req.get_header_value("X-Admin-Token"), s.adminToken)) {
        ex.fail(403, "forbidden");
        return false;
    }
    return true;
}

std::optional<int64_t> milliseconds(const json& body, const char* key) {
    auto it = body.find(key);
    if (it == body.end() || !it->is_number()) return std::nullopt;
    return static_cast<int64_t>(std::llround(it->get<double>()));
}

json uploadJson(const Upload& u) {
    return {{"uploadId", u.id},
            {"email", u.email},
            {"key", u.key},
            {"filename", u.filename},
            {"mimeType", u.mimeType},
            {"bytesReceived", u.bytesReceived},
            {"totalBytes", u.totalBytes},
            {"finalized", u.finalized},
            {"recordingId", u.finalized ? json(u.recordingId) : json(nullptr)}};
}
}  // namespace

bool adminRefused(Exchange& ex, const Services& s) { return !admittedHere(ex, s); }

void addAdminRoutes(Router& router, Services& s) {
    router.post(R"(/admin/faults)", [&s](Exchange& ex) {
        if (!admittedHere(ex, s)) return;
        auto body = ex.json();
        std::string error = "body must be JSON";
        auto fault = body ? parseFault(*body, error) : std::nullopt;
        if (!fault) return ex.fail(400, "invalid_fault", {{"message", error}});
        ex.reply(200, {{"id", s.faults.add(*fault)}});
    });
    router.del(R"(/admin/faults)", [&s](Exchange& ex) {
        if (!admittedHere(ex, s)) return;
        s.faults.clear();
        ex.reply(200, {{"ok", true}});
    });

    router.post(R"(/admin/insurance/requests)", [&s](Exchange& ex) {
        if (!admittedHere(ex, s)) return;
        auto body = ex.json();
        if (!body || !body->is_object() || !body->contains("email") || !(*body)["email"].is_string()) {
            return ex.fail(400, "missing_fields");
        }
        auto from = milliseconds(*body, "fromMs");
        auto to = milliseconds(*body, "toMs");
        if (!from || !to) return ex.fail(400, "missing_fields");
        const std::string email = Auth::normalizeEmail((*body)["email"]);
        bool known = s.store.read([&](const State& state) { return state.accounts.count(email) > 0; });
        if (!known) return ex.fail(404, "unknown_account");
        ex.reply(200, {{"id", s.requests.enqueue(email, *from, *to)}});
    });
    router.post(R"(/admin/insurance/transcribe/release)", [&s](Exchange& ex) {
        if (!admittedHere(ex, s)) return;
        releaseHeldStreams();
        ex.reply(200, {{"ok", true}});
    });
    router.get(R"(/admin/insurance/requests)", [&s](Exchange& ex) {
        if (!admittedHere(ex, s)) return;
        ex.reply(200, s.store.read([](const State& state) { return json(state.requests); }));
    });

    router.get(R"(/admin/uploads)", [&s](Exchange& ex) {
        if (!admittedHere(ex, s)) return;
        ex.reply(200, s.store.read([](const State& state) {
            json list = json::array();
            for (const auto& [id, upload] : state.uploads) list.push_back(uploadJson(upload));
            return list;
        }));
    });
    router.get(R"(/admin/recordings)", [&s](Exchange& ex) {
        if (!admittedHere(ex, s)) return;
        ex.reply(200, s.store.read([](const State& state) {
            json list = json::array();
            for (const auto& [id, recording] : state.recordings) list.push_back(recording);
            return list;
        }));
    });

    router.post(R"(/admin/sessions/expire)", [&s](Exchange& ex) {
        if (!admittedHere(ex, s)) return;
        auto body = ex.json();
        if (!body || !body->is_object() || !body->contains("email") || !(*body)["email"].is_string()) {
            return ex.fail(400, "missing_fields");
        }
        ex.reply(200, {{"ok", true}, {"expired", s.auth.expireSessions((*body)["email"])}});
    });

    router.post(R"(/admin/users)", [&s](Exchange& ex) {
        if (!admittedHere(ex, s)) return;
        auto body = ex.json();
        if (!body || !body->is_object()) return ex.fail(400, "missing_fields");
        NewUser user;
        try {
            user.email = body->value("email", "");
            user.password = body->value("password", "");
            user.totpSecret = body->value("totpSecret", "");
            user.role = body->value("role", "user");
            user.backupCodes = body->value("backupCodes", std::vector<std::string>{});
        } catch (const json::exception&) {
            return ex.fail(400, "missing_fields");
        }
        if (user.email.empty() || user.password.empty()) return ex.fail(400, "missing_fields");
        auto id = s.auth.upsertUser(user);
        if (!id) return ex.fail(400, "invalid_totp_secret");
        ex.reply(200, {{"ok", true}, {"id", *id}});
    });
}

}  // namespace vell::devserver
