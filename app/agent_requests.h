#pragma once
// The process's answerer of agent requests for buffered audio, and the upload of buffered
// audio it shares with the recovery panel, over the core services and the shared insurance
// recorder. Made on first use; main executor only.
namespace vell::insurance {
class BufferedAudioUpload;
class InsuranceAgentRequests;
}  // namespace vell::insurance

namespace vell::app {

class CoreServices;

insurance::BufferedAudioUpload& bufferedAudioUpload(CoreServices& core);
insurance::InsuranceAgentRequests& agentRequests(CoreServices& core);

}  // namespace vell::app
