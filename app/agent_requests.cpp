#include "app/agent_requests.h"

#include "app/core_services.h"
#include "app/host.h"
#include "base/paths.h"
#include "base/runtime.h"
#include "insurance/buffered_audio_upload.h"
#include "insurance/insurance_agent_requests.h"
#include "insurance/insurance_messages.h"
#include "insurance/insurance_recorder.h"
#include "recording/recorder_service.h"

namespace vell::app {

insurance::BufferedAudioUpload& bufferedAudioUpload(CoreServices& core) {
    // Never destroyed: an upload's answer may come while the process ends.
    static auto* made = [&core] {
        auto& recorder = insurance::InsuranceRecorder::shared();
        insurance::BufferedUploadParts parts;
        parts.concatenate = [&recorder](const std::vector<insurance::InsuranceChunk>& chunks, const std::filesystem::path& to) {
            return recorder.store().concatenate(chunks, to, insurance::InsuranceBufferStore::Creation::fresh);
        };
        parts.pending = &core.recorder();
        parts.uploads = &core.uploads();
        parts.accountID = [&core] { return core.accountID(); };
        parts.directory = paths::recordingsDirectory();
        parts.main = &runtime::main();
        return new insurance::BufferedAudioUpload(std::move(parts));
    }();
    return *made;
}

insurance::InsuranceAgentRequests& agentRequests(CoreServices& core) {
    static auto* made = [&core] {
        auto& recorder = insurance::InsuranceRecorder::shared();
        insurance::AgentRequestParts parts;
        parts.insuranceEnabled = [&recorder] { return recorder.isEnabled.get(); };
        parts.signedIn = [&core] { return core.appState().phase.get() == AppState::Phase::signedIn; };
        insurance::useServiceClient(parts, core.client());
        parts.seal = [&recorder] { recorder.writer().seal(); };
        parts.chunks = [&recorder] { return recorder.store().chunks(); };
        parts.upload = [&core](const std::vector<insurance::InsuranceChunk>& chunks, insurance::BufferedAudioUpload::Done done) {
            bufferedAudioUpload(core).upload(chunks, std::move(done));
        };
        parts.now = [] { return runtime::clock().now(); };
        parts.main = &runtime::main();
        return new insurance::InsuranceAgentRequests(std::move(parts));
    }();
    return *made;
}

void startAgentRequests(Host& host) {
    auto& agent = agentRequests(host.core());
    agent.onAnswer = [&host](const insurance::AgentAnswer& answer) {
        if (answer.status != "uploaded") return;
        // One notification per request: a repeat of the same request (its report was lost)
        // replaces it rather than piling up.
        host.post(Notification{std::string(notifications::kAgentUploadPrefix) + answer.request.id, "",
                               insurance::messages::kSentTitle.str(),
                               insurance::sentNotice(answer, interfaceLanguage())});
    };
    agent.start();
}

}  // namespace vell::app
