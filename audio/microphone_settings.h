#pragma once
// The list of microphones, the two stored choices (recordings and insurance mode), the rule
// that turns a choice into the device actually opened, and the labels menus show.
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "audio/ports.h"
#include "base/language.h"
#include "base/published.h"

namespace vell {
class UserDefaults;
}

namespace vell::audio {

struct AudioInputDevice {
    enum class Transport { builtIn, bluetooth, usb, other };
    std::string uid;
    std::string name;
    Transport transport = Transport::other;
    uint32_t deviceID = 0;  // the sound server's index of the source (changes on replug)
    bool operator==(const AudioInputDevice&) const = default;
};

// Transport from the device's properties: bus "bluetooth" or "usb", form factor "internal".
inline AudioInputDevice::Transport transportFor(const std::string& bus, const std::string& formFactor) {
    if (bus == "bluetooth") return AudioInputDevice::Transport::bluetooth;
    if (bus == "usb") return AudioInputDevice::Transport::usb;
    if (formFactor == "internal") return AudioInputDevice::Transport::builtIn;
    return AudioInputDevice::Transport::other;
}
const char* transportName(AudioInputDevice::Transport transport);

struct MicrophoneSelection {
    enum class Kind { systemDefault, builtIn, device };
    Kind kind = Kind::systemDefault;
    std::string uid;  // for device

    static MicrophoneSelection systemDefault() { return {}; }
    static MicrophoneSelection builtIn() { return {Kind::builtIn, {}}; }
    static MicrophoneSelection device(std::string uid) { return {Kind::device, std::move(uid)}; }
    bool operator==(const MicrophoneSelection&) const = default;

    // "default", "builtin" or "uid:" + UID.
    std::string encoded() const;
    // Unknown or missing text reads as the system default.
    static MicrophoneSelection decode(const std::optional<std::string>& text);
    // Strict parse for user input; nothing when the text is not one of the three forms.
    static std::optional<MicrophoneSelection> parse(const std::string& text);
};

struct MicrophoneHealth {
    std::set<std::string> failedUIDs;
    bool operator==(const MicrophoneHealth&) const = default;
};

struct MicrophoneResolution {
    std::optional<std::string> deviceUID;     // absent: open the system default
    std::optional<AudioInputDevice> device;   // what will be used, for display
    bool fellBackToDefault = false;
    bool operator==(const MicrophoneResolution&) const = default;
};

MicrophoneResolution resolve(const MicrophoneSelection& selection, const std::vector<AudioInputDevice>& devices,
                             const std::optional<std::string>& systemDefaultUID);

// The menu label of a selection.
std::string selectionLabel(const MicrophoneSelection& selection, const std::vector<AudioInputDevice>& devices,
                           const std::optional<std::string>& systemDefaultUID, Language language);
// The name of a device by UID, "System default" when none is known.
std::string deviceName(const std::string& uid, const std::vector<AudioInputDevice>& devices, Language language);

// Where the device list comes from (the sound server; tests may inject their own).
class InputDeviceProvider {
public:
    virtual ~InputDeviceProvider() = default;
    // Input devices without monitors; throws CoreAudioError when the server cannot answer.
    virtual std::vector<AudioInputDevice> devices() = 0;
    virtual std::optional<std::string> systemDefaultUID() = 0;
    // Called from any thread when the list or the default may have changed.
    virtual void setChangeHandler(std::function<void()> onChange) = 0;
};

using InputDeviceProviderFactory = std::function<std::unique_ptr<InputDeviceProvider>()>;

class MicrophoneSettings final : public MicrophoneChooser {
public:
    // Reads both selections from the defaults store and enumerates once. With `listen`,
    // changes reported by the provider re-enumerate on the main executor.
    MicrophoneSettings(std::unique_ptr<InputDeviceProvider> provider, UserDefaults& defaults, bool listen);
    ~MicrophoneSettings() override;

    // Where shared() takes its devices from; installed once at start-up by the composition root.
    static void setDefaultDeviceProvider(InputDeviceProviderFactory factory);
    // The process-wide instance on the installed provider and the standard defaults store; needs
    // the main executor.
    static MicrophoneSettings& shared();
    // Records that a device failed (or opened again); safe from any thread, published on the
    // main executor when the shared instance exists.
    static void reportDeviceHealth(const std::string& uid, bool failed);

    Published<std::vector<AudioInputDevice>> devices;
    Published<std::optional<std::string>> systemDefaultUID;
    Published<MicrophoneHealth> health;
    Published<MicrophoneSelection> recordingSelection;
    Published<MicrophoneSelection> insuranceSelection;
    // The last enumeration error (empty when the server answered).
    Published<std::string> lastError;

    void setRecordingSelection(const MicrophoneSelection& selection);
    void setInsuranceSelection(const MicrophoneSelection& selection);

    MicrophoneResolution recordingResolution() const;
    MicrophoneResolution insuranceResolution() const;
    MicrophoneTarget recordingTarget() override;
    bool recordingFellBackToDefault() override { return recordingResolution().fellBackToDefault; }
    MicrophoneTarget insuranceTarget() override;
    MicrophoneTarget target(const MicrophoneResolution& resolution) const;
    // What a selection opens now (a missing device: the system default).
    MicrophoneTarget target(const MicrophoneSelection& selection) const;

    // Enumerates now (also what a change notification does).
    void refresh();

private:
    void retryLater();

    std::unique_ptr<InputDeviceProvider> provider_;
    UserDefaults& defaults_;
    bool listening_ = false;
    bool retryScheduled_ = false;
    std::shared_ptr<bool> alive_;
};

}  // namespace vell::audio
