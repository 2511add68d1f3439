// vell devices [--json]: the microphones the sound server offers, the system default, and
// what each stored choice (recordings, insurance mode) opens right now.
#include <iostream>
#include <nlohmann/json.hpp>

#include "audio/capture_messages.h"
#include "audio/microphone_settings.h"
#include "base/user_defaults.h"
#include "cli/command.h"
#include "cli/microphone_choice.h"
#include "platform/pulse/pulse_input_devices.h"

namespace vell::cli {

namespace {
namespace msg = audio::messages;
void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("devices", msg::kDevicesDescription.str());
    auto json = std::make_shared<bool>(false);
    cmd->add_flag("--json", *json, msg::kDevicesJsonOption.str());
    cmd->callback([&context, json] {
        audio::MicrophoneSettings settings(platform::makePulseInputDevices(), UserDefaults::standard(), false);
        if (!settings.lastError.get().empty()) {
            std::cerr << "vell: " << soundServerFailure(settings) << "\n";
            context.exitCode = kExitFailure;
            return;
        }
        auto devices = settings.devices.get();
        auto systemDefault = settings.systemDefaultUID.get();
        if (*json) {
            nlohmann::ordered_json out;
            out["devices"] = nlohmann::ordered_json::array();
            for (const auto& d : devices) {
                out["devices"].push_back({{"uid", d.uid},
                                          {"name", d.name},
                                          {"transport", audio::transportName(d.transport)},
                                          {"default", systemDefault == d.uid}});
            }
            out["systemDefault"] = systemDefault ? nlohmann::ordered_json(*systemDefault) : nlohmann::ordered_json(nullptr);
            out["recording"] = describeMicrophoneChoice(settings.recordingSelection.get(), settings);
            out["insurance"] = describeMicrophoneChoice(settings.insuranceSelection.get(), settings);
            std::cout << out.dump(2) << "\n";
            return;
        }
        if (devices.empty()) std::cout << msg::kNoMicrophones.str() << "\n";
        for (const auto& d : devices) {
            std::cout << (systemDefault == d.uid ? "* " : "  ") << d.uid << "  (" << audio::transportName(d.transport) << ")  "
                      << d.name << "\n";
            if (d.transport == audio::AudioInputDevice::Transport::bluetooth) std::cout << "    " << msg::kBluetoothNote.str() << "\n";
        }
        std::cout << "\n";
        printMicrophoneChoice(msg::kRecordingLabel, settings.recordingSelection.get(), settings);
        printMicrophoneChoice(msg::kInsuranceLabel, settings.insuranceSelection.get(), settings);
    });
}

VELL_COMMAND(40, setup);
}  // namespace

}  // namespace vell::cli
