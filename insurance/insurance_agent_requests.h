#pragma once
// Answers an outside agent's requests for a stretch of the insurance buffer: every 5 s,
// while insurance mode is on and the user is signed in, asks the service for a pending
// request, cuts the asked span out of the buffer, hands it over as an ordinary recording and
// reports the outcome ("uploaded" with the recording id, "empty", or "failed" with the
// reason). Only the asked audio leaves the computer. One request at a time.
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
#include "insurance/buffered_audio_upload.h"
#include "insurance/insurance_buffer_store.h"
#include "service/api_error.h"

namespace vell::service {
class APIClient;
}

namespace vell::insurance {

inline constexpr double kAgentPollSeconds = 5;
inline constexpr const char* kAgentRequestsPath = "api/insurance/requests";

struct AgentRequest {
    std::string id;
    double fromMs = 0;  // milliseconds since 1970
    double toMs = 0;
    bool operator==(const AgentRequest&) const = default;
};

// One request answered in this run, as reported (or as it would have been, when the report
// did not reach the service: the service then asks again).
struct AgentAnswer {
    AgentRequest request;
    std::string status;  // "uploaded", "failed", "empty"
    std::optional<std::string> recordingID;
    std::optional<std::string> error;
    bool reported = false;
    WallTime answeredAt;
    bool operator==(const AgentAnswer&) const = default;
};

// The report body of an answer.
nlohmann::json reportBody(const AgentAnswer& answer);
// The "request" of a poll's answer; nothing when absent, null or not a request.
std::optional<AgentRequest> decodeAgentRequest(const nlohmann::json& answer);

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

    // The requests answered since start, oldest first.
    Published<std::vector<AgentAnswer>> answered;

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
