#pragma once
// What quitting does: at once without a recording; with one, an alert whose first button
// stops the recording (kept for upload) and quits, and whose second cancels the quit.
#include <optional>
#include <string>

namespace vell::app {

struct QuitAlert {
    std::string message;
    std::string informativeText;
    std::string stopButton;  // first button
    std::string keepButton;  // second button
};

enum class QuitChoice { stopAndQuit, keepRecording };

struct QuitSteps {
    bool runCleanUp = false;
    bool stopRecording = false;  // user-initiated, not discarded
    bool terminate = false;
};

// Nothing: quit now (run the clean-up and terminate). Otherwise the alert to show.
std::optional<QuitAlert> quitAlert(bool isRecording);
QuitSteps quitSteps(bool isRecording, std::optional<QuitChoice> choice = std::nullopt);

}  // namespace vell::app
