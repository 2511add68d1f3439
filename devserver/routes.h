#pragma once
// The service's endpoints, one group per file.
#include <optional>
#include <string>

#include "devserver/agent_requests.h"
#include "devserver/auth.h"
#include "devserver/conversations.h"
#include "devserver/faults.h"
#include "devserver/recordings.h"
#include "devserver/router.h"
#include "devserver/uploads.h"

namespace vell::devserver {

struct Services {
    Store& store;
    Auth& auth;
    Uploads& uploads;
    AgentRequests& requests;
    LiveChunks& live;
    FaultTable& faults;
    std::string adminToken;  // empty: the admin API is off
    Conversations* conversations = nullptr;  // live sessions and the processing of recordings
};

// The signed-in account of the request; answers 401 "unauthorized" when there is none.
std::optional<Account> signedIn(Exchange& ex, Auth& auth);

// Reads an integer field that may be absent; false when present with another type.
bool optionalInteger(const nlohmann::json& body, const char* key, std::optional<int64_t>& out);

void addAuthRoutes(Router& router, Services& services);
void addUploadRoutes(Router& router, Services& services);
void addAgentRoutes(Router& router, Services& services);
void addTranscribeRoutes(Router& router, Services& services);
void addAdminRoutes(Router& router, Services& services);
void addLiveRoutes(Router& router, Services& services);
void addResultRoutes(Router& router, Services& services);
// Admin: true (and the request answered) when the admin token is missing or wrong.
bool adminRefused(Exchange& ex, const Services& services);

}  // namespace vell::devserver
