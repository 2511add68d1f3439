#pragma once
// How the commands read a microphone named on the command line (`vell mic`, `vell record
// --device`) and show the stored choices. Main thread of a command.
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "audio/microphone_settings.h"
#include "base/expected.h"
#include "base/language.h"

namespace vell::cli {

struct MicrophoneArgument {
    audio::MicrophoneSelection selection;
    // The named device is not in the sound server's list now (accepted with --force).
    bool missing = false;
};

// "default", "builtin", "uid:<UID>", a UID or a name as `vell devices` prints them. A
// device must be in the list unless `force`; the error is a sentence for the user.
Expected<MicrophoneArgument, std::string> parseMicrophoneArgument(const std::string& text,
                                                                  const audio::MicrophoneSettings& settings, bool force);

// Why the sound server's list could not be read, as one sentence (settings.lastError set).
std::string soundServerFailure(const audio::MicrophoneSettings& settings);

// One stored choice: its label, its encoded form and what it opens now.
nlohmann::ordered_json describeMicrophoneChoice(const audio::MicrophoneSelection& selection,
                                                const audio::MicrophoneSettings& settings);
void printMicrophoneChoice(const Text& heading, const audio::MicrophoneSelection& selection,
                           const audio::MicrophoneSettings& settings);

}  // namespace vell::cli
