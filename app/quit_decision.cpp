#include "app/quit_decision.h"

#include "app/app_messages.h"

namespace vell::app {

std::optional<QuitAlert> quitAlert(bool isRecording) {
    if (!isRecording) return std::nullopt;
    return QuitAlert{messages::kQuitMessage.str(), messages::kQuitInformative.str(), messages::kQuitStopAndQuit.str(),
                     messages::kQuitKeepRecording.str()};
}

QuitSteps quitSteps(bool isRecording, std::optional<QuitChoice> choice) {
    if (!isRecording) return {true, false, true};
    if (choice == QuitChoice::stopAndQuit) return {true, true, true};
    return {};  // keep recording, or no answer yet: nothing happens
}

}  // namespace vell::app
