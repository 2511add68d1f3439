// vell mic [recording|insurance CHOICE [--force]]: shows or stores a microphone choice.
#include <iostream>

#include "audio/capture_messages.h"
#include "audio/microphone_settings.h"
#include "base/preference_keys.h"
#include "base/user_defaults.h"
#include "cli/command.h"
#include "cli/microphone_choice.h"
#include "platform/pulse/pulse_input_devices.h"

namespace vell::cli {

namespace {
namespace msg = audio::messages;

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("mic", msg::kMicDescription.str());
    cmd->footer(msg::kMicShowsChoices.str());
    auto use = std::make_shared<std::string>();
    auto choice = std::make_shared<std::string>();
    auto force = std::make_shared<bool>(false);
    cmd->add_option("use", *use, msg::kMicUseOption.str())->check(CLI::IsMember({"recording", "insurance"}));
    cmd->add_option("choice", *choice, msg::kMicChoiceOption.str());
    cmd->add_flag("--force", *force, msg::kForceOption.str());
    cmd->callback([&context, use, choice, force] {
        auto& defaults = UserDefaults::standard();
        // Without listening: one listing, which says what each choice opens now.
        audio::MicrophoneSettings settings(platform::makePulseInputDevices(), defaults, false);
        if (use->empty()) {
            printMicrophoneChoice(msg::kRecordingLabel, settings.recordingSelection.get(), settings);
            printMicrophoneChoice(msg::kInsuranceLabel, settings.insuranceSelection.get(), settings);
            if (!settings.lastError.get().empty()) std::cerr << "vell: " << soundServerFailure(settings) << "\n";
            return;
        }
        if (choice->empty()) {
            std::cerr << "vell: " << msg::kMicUseMissingChoice.str() << "\n";
            context.exitCode = kExitUsage;
            return;
        }
        auto argument = parseMicrophoneArgument(*choice, settings, *force);
        if (!argument) {
            std::cerr << "vell: " << argument.error() << "\n";
            context.exitCode = kExitUsage;
            return;
        }
        const bool recording = *use == "recording";
        const auto& selection = argument->selection;
        if (!defaults.set(recording ? prefs::kMicrophoneRecording : prefs::kMicrophoneInsurance, selection.encoded())) {
            std::cerr << "vell: " << msg::kCannotSave.str() << defaults.file().string() << "\n";
            context.exitCode = kExitFailure;
            return;
        }
        std::cout << msg::kMicrophoneSaved.str() << " " << (recording ? msg::kRecordingLabel : msg::kInsuranceLabel).str() << ": "
                  << audio::selectionLabel(selection, settings.devices.get(), settings.systemDefaultUID.get(), interfaceLanguage())
                  << "\n";
        if (argument->missing) std::cout << msg::kNotConnectedYet.str() << "\n";
    });
}

VELL_COMMAND(41, setup);
}  // namespace

}  // namespace vell::cli
