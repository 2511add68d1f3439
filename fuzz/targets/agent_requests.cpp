// An agent's request as the service hands it over: any JSON, any numbers. A request that
// decodes must turn into times on our clock and into a report without throwing.
#include "fuzz_support.h"
#include "base/clock.h"
#include "insurance/insurance_agent_requests.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vell::insurance;
    const auto answer = vell::fuzz::parseJson(data, size);
    auto request = decodeAgentRequest(answer);
    if (!request) return 0;
    (void)vell::fromMillisecondsSince1970(request->fromMs);
    (void)vell::fromMillisecondsSince1970(request->toMs);
    AgentAnswer failed{*request, "failed", std::nullopt, "Upload failed.", false, {}};
    (void)reportBody(failed).dump();
    AgentAnswer uploaded{*request, "uploaded", "rec_1", std::nullopt, false, {}};
    (void)reportBody(uploaded).dump();
    return 0;
}
