#pragma once
// Requests of outside agents for a stretch of a user's buffered audio, and their outcomes.
#include <cstdint>
#include <optional>
#include <string>

#include "devserver/store.h"

namespace vell::devserver {

class AgentRequests {
public:
    explicit AgentRequests(Store& store) : store_(store) {}

    // Adds a pending request; an identical one still pending is reused (with
    // `alsoAnswered`, an identical answered one too: a restart with the same flags must not
    // ask again).
    std::string enqueue(const std::string& email, int64_t fromMs, int64_t toMs, bool alsoAnswered = false);
    // The oldest pending request of the account.
    std::optional<AgentRequest> nextPending(const std::string& email) const;

    enum class Report { Recorded, NotFound, AlreadyReported };
    // Records the outcome; repeating the same outcome is accepted (a retried report).
    Report report(const std::string& email, const std::string& id, const std::string& status,
                  const std::optional<std::string>& recordingId, const std::optional<std::string>& error);

private:
    Store& store_;
};

}  // namespace vell::devserver
