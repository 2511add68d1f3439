// InsuranceRequests () -> s: JSON list, oldest first, of the agent requests answered since
// the host started: [{"id", "fromMs", "toMs", "status" (uploaded|failed|empty),
// "recordingId"?, "error"?, "reported" (the service got the report), "answeredAtMs"}].
#include "platform/dbus/control_agent_requests.h"

#include <nlohmann/json.hpp>

#include "app/agent_requests.h"
#include "insurance/insurance_agent_requests.h"

namespace vell::dbus {

void registerAgentRequestsControl(ControlContext& context) {
    auto* ctx = &context;
    context.object.registerMethod("InsuranceRequests").onInterface(kControlInterface).implementedAs(
        [ctx](sdbus::Result<std::string>&& result) {
            ctx->onMain(std::move(result), [ctx](auto& r) {
                nlohmann::json list = nlohmann::json::array();
                for (const auto& a : app::agentRequests(ctx->host.core()).answered.get()) {
                    nlohmann::json item = {{"id", a.request.id},
                                           {"fromMs", a.request.fromMs},
                                           {"toMs", a.request.toMs},
                                           {"status", a.status},
                                           {"reported", a.reported},
                                           {"answeredAtMs", millisecondsSince1970(a.answeredAt)}};
                    if (a.recordingID) item["recordingId"] = *a.recordingID;
                    if (a.error) item["error"] = *a.error;
                    list.push_back(item);
                }
                r->returnResults(list.dump());
            });
        });
}

}  // namespace vell::dbus
