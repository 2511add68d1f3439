#pragma once
// Where the program's parts are put together. Audio backends, the API client and the
// automations join here as they are built; the core never reaches for them itself.
#include <functional>
#include <optional>
#include <string>

#include "recording/recorder_parts.h"

namespace vell::service {
class APIClient;
}

namespace vell::app {

// The parts of the process's recorder.
recording::RecorderParts recorderParts();

// Makes RecorderService::shared() use recorderParts(). Call once at start-up, before the
// recorder is first used.
void installComposition();

// Who new recordings belong to (the signed-in account), once an AppState exists.
void setAccountSource(std::function<std::optional<std::string>()> source);

class AppState;
// The process's client of the service (its cookie jar restored from session storage).
service::APIClient& apiClient();
// The process's application state over apiClient(): made on first use on the main
// executor; new recordings are stamped with its account, and its one-time adoption of
// unowned recordings goes through RecorderService::shared().
AppState& appState();

}  // namespace vell::app
