// Agent requests for buffered audio, as the desktop application sees them.
#include <cmath>

#include "devserver/routes.h"

namespace vell::devserver {

using nlohmann::json;

void addAgentRoutes(Router& router, Services& s) {
    router.get(R"(/api/insurance/requests)", [&s](Exchange& ex) {
        auto account = signedIn(ex, s.auth);
        if (!account) return;
        auto request = s.requests.nextPending(account->email);
        if (!request) return ex.reply(200, json::object());
        ex.reply(200, {{"request", {{"id", request->id}, {"fromMs", request->fromMs}, {"toMs", request->toMs}}}});
    });

    router.patch(R"(/api/insurance/requests)", [&s](Exchange& ex) {
        auto account = signedIn(ex, s.auth);
        if (!account) return;
        auto body = ex.json();
        if (!body || !body->is_object() || !body->contains("id") || !(*body)["id"].is_string() ||
            !body->contains("status") || !(*body)["status"].is_string()) {
            return ex.fail(400, "missing_fields");
        }
        const std::string id = (*body)["id"];
        const std::string status = (*body)["status"];
        std::optional<std::string> recordingId, error;
        if (body->contains("recordingId") && (*body)["recordingId"].is_string()) recordingId = (*body)["recordingId"];
        if (body->contains("error") && (*body)["error"].is_string()) error = (*body)["error"];
        if (status != "uploaded" && status != "failed" && status != "empty") return ex.fail(400, "invalid_status");
        if (status == "uploaded" && !recordingId) return ex.fail(400, "missing_fields");
        if (status != "uploaded") recordingId.reset();
        switch (s.requests.report(account->email, id, status, recordingId, error)) {
            case AgentRequests::Report::Recorded:
                return ex.reply(200, {{"ok", true}});
            case AgentRequests::Report::NotFound:
                return ex.fail(404, "not_found");
            case AgentRequests::Report::AlreadyReported:
                return ex.fail(409, "already_reported");
        }
    });
}

}  // namespace vell::devserver
