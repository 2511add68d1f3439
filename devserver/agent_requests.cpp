#include "devserver/agent_requests.h"

#include "devserver/crypto.h"

namespace vell::devserver {

std::string AgentRequests::enqueue(const std::string& email, int64_t fromMs, int64_t toMs, bool alsoAnswered) {
    return store_.mutate([&](State& state) {
        for (const auto& r : state.requests) {
            if ((alsoAnswered || r.status == "pending") && r.email == email && r.fromMs == fromMs && r.toMs == toMs) return r.id;
        }
        AgentRequest request;
        request.id = "req_" + crypto::randomHex(8);
        request.email = email;
        request.fromMs = fromMs;
        request.toMs = toMs;
        request.createdAtMs = crypto::nowMs();
        state.requests.push_back(request);
        return request.id;
    });
}

std::optional<AgentRequest> AgentRequests::nextPending(const std::string& email) const {
    return store_.read([&](const State& state) -> std::optional<AgentRequest> {
        for (const auto& r : state.requests) {
            if (r.email == email && r.status == "pending") return r;
        }
        return std::nullopt;
    });
}

AgentRequests::Report AgentRequests::report(const std::string& email, const std::string& id, const std::string& status,
                                            const std::optional<std::string>& recordingId,
                                            const std::optional<std::string>& error) {
    return store_.mutate([&](State& state) {
        for (auto& r : state.requests) {
            if (r.id != id || r.email != email) continue;
            if (r.status != "pending") {
                return r.status == status && r.recordingId == recordingId ? Report::Recorded : Report::AlreadyReported;
            }
            r.status = status;
            r.recordingId = recordingId;
            r.error = error;
            r.reportedAtMs = crypto::nowMs();
            return Report::Recorded;
        }
        return Report::NotFound;
    });
}

}  // namespace vell::devserver
