#pragma once
// The process's answerer of agent requests for buffered audio, and the upload of buffered
// audio it shares with the recovery panel, over the core services and the shared insurance
// recorder. Made on first use; main executor only. Started by the host, which tells the
// user on the desktop each time audio left the computer.
namespace vell::insurance {
class BufferedAudioUpload;
class InsuranceAgentRequests;
}  // namespace vell::insurance

namespace vell::app {

class CoreServices;
class Host;

insurance::BufferedAudioUpload& bufferedAudioUpload(CoreServices& core);
insurance::InsuranceAgentRequests& agentRequests(CoreServices& core);
// Starts the poller, with a notification for every answer that uploaded audio.
void startAgentRequests(Host& host);

}  // namespace vell::app
