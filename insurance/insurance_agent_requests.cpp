#include "insurance/insurance_agent_requests.h"

#include "base/log.h"
#include "insurance/insurance_messages.h"
#include "service/api_client.h"

namespace vell::insurance {

namespace {
const log::Logger kLog("InsuranceAgentRequests");
}  // namespace

nlohmann::json reportBody(const AgentAnswer& answer) {
    nlohmann::json body = {{"id", answer.request.id}, {"status", answer.status}};
    if (answer.status == "uploaded" && answer.recordingID) body["recordingId"] = *answer.recordingID;
    if (answer.status == "failed") body["error"] = answer.error.value_or("");
    return body;
}

void useServiceClient(AgentRequestParts& parts, const service::APIClient& client) {
    parts.poll = [&client](std::function<void(Expected<std::optional<AgentRequest>, service::APIError>)> done) {
        client.async<std::optional<AgentRequest>>(
            [&client]() -> Expected<std::optional<AgentRequest>, service::APIError> {
                service::ApiRequest request;
                request.path = kAgentRequestsPath;
                auto answer = client.send(std::move(request));
                if (!answer) return unexpected(answer.error());
                return decodeAgentRequest(*answer);
            },
            std::move(done));
    };
    parts.report = [&client](const nlohmann::json& body, std::function<void(Expected<Unit, service::APIError>)> done) {
        client.async<Unit>(
            [&client, body]() -> Expected<Unit, service::APIError> {
                service::ApiRequest request;
                request.method = "PATCH";
                request.path = kAgentRequestsPath;
                request.json = body;
                auto answer = client.send(std::move(request));
                if (!answer) return unexpected(answer.error());
                return Unit{};
            },
            std::move(done));
    };
}

InsuranceAgentRequests::InsuranceAgentRequests(AgentRequestParts parts) : parts_(std::move(parts)) {}

InsuranceAgentRequests::~InsuranceAgentRequests() { timer_.cancel(); }

void InsuranceAgentRequests::start() {
    if (timer_.active()) return;
    std::weak_ptr<int> alive = alive_;
    timer_ = parts_.main->repeat(kAgentPollSeconds, [this, alive] {
        if (alive.lock()) tick();
    });
}

std::vector<InsuranceChunk> InsuranceAgentRequests::chunksFor(const std::vector<InsuranceChunk>& all, WallTime from, WallTime to) {
    std::vector<InsuranceChunk> out;
    for (const auto& c : all) {
        if (!c.isOpen && c.end > from && c.start < to && c.bytes >= 1) out.push_back(c);
    }
    return out;
}

void InsuranceAgentRequests::tick() {
    if (busy_) return;
    busy_ = true;
    if (!parts_.insuranceEnabled() || !parts_.signedIn()) return idle();
    std::weak_ptr<int> alive = alive_;
    parts_.poll([this, alive](Expected<std::optional<AgentRequest>, service::APIError> polled) {
        if (!alive.lock()) return;
        // A failed poll waits for the next tick; the service keeps the request.
        if (!polled || !*polled) return idle();
        handle(**polled);
    });
}

void InsuranceAgentRequests::handle(const AgentRequest& request) {
    kLog.info("agent request " + request.id);
    parts_.seal();
    const auto from = fromMillisecondsSince1970(request.fromMs);
    const auto to = fromMillisecondsSince1970(request.toMs);
    const auto chunks = chunksFor(parts_.chunks(), from, to);
    AgentAnswer outcome;
    outcome.request = request;
    if (chunks.empty()) {
        outcome.status = "empty";
        return answer(std::move(outcome));
    }
    SentAudio sent{chunks.front().start, chunks.front().end, 0};
    for (const auto& c : chunks) {
        sent.from = std::min(sent.from, c.start);
        sent.to = std::max(sent.to, c.end);
        sent.seconds += std::chrono::duration<double>(c.end - c.start).count();
    }
    std::weak_ptr<int> alive = alive_;
    parts_.upload(chunks, [this, alive, outcome, sent](BufferedAudioUpload::Result result) mutable {
        if (!alive.lock()) return;
        if (!result) {
            outcome.status = "failed";
            outcome.error = result.error();
        } else if (!*result) {
            outcome.status = "failed";
            outcome.error = messages::kUploadedWithoutId;
        } else {
            outcome.status = "uploaded";
            outcome.recordingID = **result;
            outcome.sent = sent;
        }
        answer(std::move(outcome));
    });
}

void InsuranceAgentRequests::answer(AgentAnswer outcome) {
    std::weak_ptr<int> alive = alive_;
    const auto body = reportBody(outcome);
    parts_.report(body, [this, alive, outcome](Expected<Unit, service::APIError> reported) mutable {
        if (!alive.lock()) return;
        outcome.reported = bool(reported);
        outcome.answeredAt = parts_.now();
        if (!reported) kLog.error("report of agent request " + outcome.request.id + " failed: " +
                                  reported.error().description(Language::English));
        answered.modify([&](std::vector<AgentAnswer>& list) {
            list.push_back(outcome);
            if (list.size() > kAnswersKept) list.erase(list.begin(), list.end() - kAnswersKept);
        });
        idle();
        if (onAnswer) onAnswer(outcome);
    });
}

std::vector<AgentAnswer> InsuranceAgentRequests::recentAnswers() const {
    auto list = answered.get();
    if (list.size() > kRecentAnswers) list.erase(list.begin(), list.end() - kRecentAnswers);
    return list;
}

}  // namespace vell::insurance
