#pragma once
// What insurance mode is doing, as front ends show it: from the running recorder (main
// executor) or, without a host, from the stored settings and the folder alone.
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "insurance/agent_answer.h"
#include "insurance/insurance_buffer_store.h"

namespace vell {
class UserDefaults;
}

namespace vell::insurance {

class InsuranceRecorder;

struct InsuranceStatus {
    bool enabled = false;
    bool privacyAccepted = false;
    bool listening = false;
    int windowMinutes = 15;
    std::optional<std::string> device;
    std::optional<std::string> lastError;
    std::optional<WallTime> bufferedFrom, bufferedTo;
    std::int64_t bytes = 0;
    int chunks = 0;
    // The host's newest answers to agent requests, oldest first (the host fills them in).
    std::vector<AgentAnswer> agentRequests;
};

InsuranceStatus statusOf(InsuranceRecorder& recorder);
InsuranceStatus storedStatus(UserDefaults& defaults, const InsuranceBufferStore& store);

// {"enabled","privacyAccepted","listening","windowMinutes","device","lastError",
//  "bufferedFrom","bufferedTo" (ms since 1970),"bufferedSeconds","bytes","chunks",
//  "agentRequests" (answerJson each)}
nlohmann::json toJson(const InsuranceStatus& status);
InsuranceStatus statusFromJson(const nlohmann::json& json);
// [{"file","start","end" (ms since 1970),"activity" (absent while open),"bytes","open"}]
nlohmann::json chunksJson(const std::vector<InsuranceChunk>& chunks);

}  // namespace vell::insurance
