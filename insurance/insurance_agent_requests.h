#pragma once
// Answers an outside agent's requests for a stretch of the insurance buffer: every 5 s,
// while insurance mode is on and the user is signed in, asks the service for a pending
// request, cuts the asked span out of the buffer, hands it over as an ordinary recording and
// reports the outcome ("uploaded" with the recording id, "empty", or "failed" with the
// reason). Only the chunks that overlap the asked span leave the computer, and each answer
// that sent audio is handed to `onAnswer` so the user is told. One request at a time.
//
// Main executor only, except `seal`, which blocks on the chunk writer's queue, and the
// network calls, whose answers come back on the main executor.
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/clock.h"
#include "base/executor.h"
#include "base/expected.h"
#include "base/published.h"
#include "insurance/agent_answer.h"
#include "insurance/buffered_audio_upload.h"
#include "insurance/insurance_buffer_store.h"
#include "service/api_error.h"

namespace vell::service {
class APIClient;
}

namespace vell::insurance {

inline constexpr double kAgentPollSeconds = 5;
inline constexpr const char* kAgentRequestsPath = "api/insurance/requests";

// The answers kept for the control interface (oldest dropped first), and how many of the
// newest a status shows.
inline constexpr size_t kAnswersKept = 100;
inline constexpr size_t kRecentAnswers = 5;

// The report body of an answer.
nlohmann::json reportBody(const AgentAnswer& answer);

struct AgentRequestParts {
    std::function<bool()> insuranceEnabled;
    std::function<bool()> signedIn;
    // GET of the pending request; the answer on the main executor.
    std::function<void(std::function<void(Expected<std::optional<AgentRequest>, service::APIError>)>)> poll;
    // PATCH of the report; the answer on the main executor.
    std::function<void(const nlohmann::json& body, std::function<void(Expected<Unit, service::APIError>)>)> report;
    std::function<void()> seal;  // blocks until the open chunk is sealed
    std::function<std::vector<InsuranceChunk>()> chunks;
    // The shared upload of buffered audio (BufferedAudioUpload::upload).
    std::function<void(const std::vector<InsuranceChunk>&, BufferedAudioUpload::Done)> upload;
    std::function<WallTime()> now;
    Executor* main = nullptr;
};

// `poll` and `report` over the service client (the rest is the caller's).
void useServiceClient(AgentRequestParts& parts, const service::APIClient& client);

class InsuranceAgentRequests {
public:
    explicit InsuranceAgentRequests(AgentRequestParts parts);
    ~InsuranceAgentRequests();
    InsuranceAgentRequests(const InsuranceAgentRequests&) = delete;
    InsuranceAgentRequests& operator=(const InsuranceAgentRequests&) = delete;

    // Once: the 5 s timer, for the life of the process.
    void start();
    // One tick now (what the timer runs).
    void tick();
    bool busy() const { return busy_; }

    // The requests answered since start, oldest first; at most kAnswersKept.
    Published<std::vector<AgentAnswer>> answered;
    // The newest kRecentAnswers of them, oldest first.
    std::vector<AgentAnswer> recentAnswers() const;
    // Each answer as it is made, after `answered` holds it.
    std::function<void(const AgentAnswer&)> onAnswer;

    // The chunks a request takes: sealed, overlapping the span strictly, not empty.
    static std::vector<InsuranceChunk> chunksFor(const std::vector<InsuranceChunk>& all, WallTime from, WallTime to);

private:
    void handle(const AgentRequest& request);
    void answer(AgentAnswer outcome);
    void idle() { busy_ = false; }

    AgentRequestParts parts_;
    TimerHandle timer_;
    bool busy_ = false;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace vell::insurance
