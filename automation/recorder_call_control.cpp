#include "automation/recorder_call_control.h"

#include "recording/recorder_service.h"

namespace vell::automation {

bool RecorderCallControl::isRecording() const { return recorder_.state.isRecording.get(); }
std::optional<std::string> RecorderCallControl::currentID() const { return recorder_.currentID(); }
bool RecorderCallControl::isAutomaticRecording() const { return recorder_.isAutomaticRecording(); }

bool RecorderCallControl::systemAudioSilent() const {
    if (!isRecording()) return false;
    const auto since = recorder_.systemSilentSince();
    return since && std::chrono::duration<double>(clock_.now() - *since).count() >= kSilentSeconds;
}

void RecorderCallControl::startAutomatic(std::function<void(bool started)> done) {
    recorder_.start(recording::RecordingStartOptions{.automatic = true}, std::move(done));
}

void RecorderCallControl::stopAutomatic() { recorder_.stop(false, false); }
void RecorderCallControl::finishByUser() { recorder_.stop(true, false); }

}  // namespace vell::automation
