#include "cli/microphone_choice.h"

#include <iostream>

#include "audio/capture_messages.h"
#include "cli/command.h"

namespace vell::cli {

namespace msg = audio::messages;
using audio::MicrophoneSelection;

namespace {

// Source names are UTF-8; anything else cannot be stored in the defaults (JSON) either.
bool isValidUtf8(const std::string& text) {
    try {
        (void)nlohmann::json(text).dump();
        return true;
    } catch (const nlohmann::json::exception&) {
        return false;
    }
}

}  // namespace

std::string soundServerFailure(const audio::MicrophoneSettings& settings) {
    // "No sound server is running" already says it all.
    const auto& error = settings.lastError.get();
    return error == msg::kNoSoundServerRunning.str() ? error : msg::kNoSoundServer.str() + error;
}

Expected<MicrophoneArgument, std::string> parseMicrophoneArgument(const std::string& text,
                                                                  const audio::MicrophoneSettings& settings, bool force) {
    if (!isValidUtf8(text)) return unexpected(msg::kUIDNotText.str());
    if (text == "default") return MicrophoneArgument{MicrophoneSelection::systemDefault(), false};
    if (text == "builtin") return MicrophoneArgument{MicrophoneSelection::builtIn(), false};
    const bool prefixed = text.rfind("uid:", 0) == 0;
    const std::string name = prefixed ? text.substr(4) : text;
    if (name.empty()) return unexpected(prefixed ? msg::kEmptyUID.str() : msg::kBadSelection.str());

    if (!settings.lastError.get().empty()) {
        if (!force) return unexpected(msg::kCannotCheckMicrophone.str() + settings.lastError.get());
        return MicrophoneArgument{MicrophoneSelection::device(name), true};
    }
    const auto devices = settings.devices.get();
    for (const auto& d : devices)
        if (d.uid == name) return MicrophoneArgument{MicrophoneSelection::device(d.uid), false};
    // What people call it, when only one device goes by that name.
    if (!prefixed) {
        std::optional<std::string> byName;
        int matches = 0;
        for (const auto& d : devices) {
            if (d.name == name) {
                byName = d.uid;
                ++matches;
            }
        }
        if (matches == 1) return MicrophoneArgument{MicrophoneSelection::device(*byName), false};
    }
    if (!force) return unexpected(msg::kNoSuchMicrophone.str() + "\"" + name + "\"" + msg::kNoSuchMicrophoneHint.str());
    return MicrophoneArgument{MicrophoneSelection::device(name), true};
}

nlohmann::ordered_json describeMicrophoneChoice(const MicrophoneSelection& selection, const audio::MicrophoneSettings& settings) {
    auto resolution = audio::resolve(selection, settings.devices.get(), settings.systemDefaultUID.get());
    nlohmann::ordered_json out;
    out["selection"] = selection.encoded();
    out["label"] = audio::selectionLabel(selection, settings.devices.get(), settings.systemDefaultUID.get(), interfaceLanguage());
    out["opens"] = resolution.deviceUID ? nlohmann::ordered_json(*resolution.deviceUID) : nlohmann::ordered_json(nullptr);
    out["device"] = resolution.device ? nlohmann::ordered_json(resolution.device->uid) : nlohmann::ordered_json(nullptr);
    out["fellBackToDefault"] = resolution.fellBackToDefault;
    return out;
}

void printMicrophoneChoice(const Text& heading, const MicrophoneSelection& selection, const audio::MicrophoneSettings& settings) {
    auto resolution = audio::resolve(selection, settings.devices.get(), settings.systemDefaultUID.get());
    std::cout << heading.str() << ": "
              << audio::selectionLabel(selection, settings.devices.get(), settings.systemDefaultUID.get(), interfaceLanguage()) << " ["
              << selection.encoded() << "] → " << msg::kOpens.str() << " "
              << (resolution.deviceUID ? *resolution.deviceUID : msg::kSystemDefaultDevice.str());
    if (resolution.fellBackToDefault) std::cout << " " << msg::kFellBack.str();
    std::cout << "\n";
}

}  // namespace vell::cli
