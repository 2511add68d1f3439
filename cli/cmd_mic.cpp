// vell mic recording|insurance default|builtin|uid:UID: stores a microphone choice.
#include <iostream>
#include <string_view>

#include <nlohmann/json.hpp>

#include "audio/capture_messages.h"
#include "audio/microphone_settings.h"
#include "base/preference_keys.h"
#include "base/user_defaults.h"
#include "cli/command.h"
#include "platform/pulse/pulse_input_devices.h"

namespace vell::cli {

namespace {
namespace msg = audio::messages;
using audio::MicrophoneSelection;

// Source names are UTF-8; anything else cannot be stored in the defaults (JSON) either.
bool isValidUtf8(std::string_view text) {
    try {
        (void)nlohmann::json(std::string(text)).dump();
        return true;
    } catch (const nlohmann::json::exception&) {
        return false;
    }
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("mic", msg::kMicDescription.str());
    auto use = std::make_shared<std::string>();
    auto choice = std::make_shared<std::string>();
    cmd->add_option("use", *use, msg::kMicUseOption.str())->required()->check(CLI::IsMember({"recording", "insurance"}));
    cmd->add_option("choice", *choice, msg::kMicChoiceOption.str())->required();
    cmd->callback([&context, use, choice] {
        auto selection = MicrophoneSelection::parse(*choice);
        if (!selection) {
            std::cerr << "vell: " << msg::kBadSelection.str() << "\n";
            context.exitCode = kExitUsage;
            return;
        }
        if (selection->kind == MicrophoneSelection::Kind::device && selection->uid.empty()) {
            std::cerr << "vell: " << msg::kEmptyUID.str() << "\n";
            context.exitCode = kExitUsage;
            return;
        }
        if (!isValidUtf8(*choice)) {
            std::cerr << "vell: " << msg::kUIDNotText.str() << "\n";
            context.exitCode = kExitUsage;
            return;
        }
        bool recording = *use == "recording";
        auto& defaults = UserDefaults::standard();
        if (!defaults.set(recording ? prefs::kMicrophoneRecording : prefs::kMicrophoneInsurance, selection->encoded())) {
            std::cerr << "vell: " << msg::kCannotSave.str() << defaults.file().string() << "\n";
            context.exitCode = kExitFailure;
            return;
        }
        std::cout << msg::kMicrophoneSaved.str() << " " << (recording ? msg::kRecordingLabel : msg::kInsuranceLabel).str() << ": ";
        // Say what it opens now when the sound server can tell; storing never needs it.
        audio::MicrophoneSettings settings(platform::makePulseInputDevices(), defaults, false);
        auto devices = settings.devices.get();
        auto systemDefault = settings.systemDefaultUID.get();
        std::cout << audio::selectionLabel(*selection, devices, systemDefault, interfaceLanguage()) << "\n";
        if (settings.lastError.get().empty() && audio::resolve(*selection, devices, systemDefault).fellBackToDefault) {
            std::cout << msg::kNotConnectedYet.str() << "\n";
        }
    });
}

VELL_COMMAND(41, setup);
}  // namespace

}  // namespace vell::cli
