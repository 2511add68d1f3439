// InsuranceRequests () -> s: JSON list, oldest first, of the agent requests answered since
// the host started (the newest 100), each as insurance::answerJson writes it.
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
                    list.push_back(insurance::answerJson(a));
                }
                r->returnResults(list.dump());
            });
        });
}

}  // namespace vell::dbus
