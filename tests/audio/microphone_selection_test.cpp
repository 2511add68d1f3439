// How a stored microphone choice is written, read back, resolved against the devices that
// are present, and labelled — without a sound server.
#include <gtest/gtest.h>

#include "audio/microphone_settings.h"
#include "base/preference_keys.h"
#include "base/user_defaults.h"
#include "tests/support/temp_home.h"

namespace vell::audio {
namespace {

using T = AudioInputDevice::Transport;
using Sel = MicrophoneSelection;

const AudioInputDevice kUSB{"alsa_input.usb-Rode", "RØDE NT-USB", T::usb, 3};
const AudioInputDevice kInternal{"alsa_input.pci.analog-stereo", "Built-in Audio", T::builtIn, 1};
const AudioInputDevice kInternal2{"alsa_input.pci.digital", "Built-in Digital", T::builtIn, 2};
const AudioInputDevice kHeadset{"bluez_input.AA_BB", "WH-1000XM4", T::bluetooth, 7};

TEST(MicrophoneSelectionTest, EncodesAndDecodesEveryForm) {
    struct Case {
        std::optional<std::string> text;
        Sel selection;
        std::string reencoded;
    };
    const std::vector<Case> cases = {
        {"default", Sel::systemDefault(), "default"},
        {"builtin", Sel::builtIn(), "builtin"},
        {"uid:alsa_input.usb-Rode", Sel::device("alsa_input.usb-Rode"), "uid:alsa_input.usb-Rode"},
        {"uid:", Sel::device(""), "uid:"},                       // empty UID stays a device choice
        {"uid:uid:x", Sel::device("uid:x"), "uid:uid:x"},        // only the first prefix is taken
        {std::nullopt, Sel::systemDefault(), "default"},         // never stored
        {"Builtin", Sel::systemDefault(), "default"},            // unknown text
        {"", Sel::systemDefault(), "default"},
    };
    for (const auto& c : cases) {
        auto decoded = Sel::decode(c.text);
        EXPECT_EQ(decoded, c.selection) << c.text.value_or("<absent>");
        EXPECT_EQ(decoded.encoded(), c.reencoded) << c.text.value_or("<absent>");
    }
    EXPECT_FALSE(Sel::parse("usb").has_value());
    EXPECT_FALSE(Sel::parse("DEFAULT").has_value());
}

TEST(MicrophoneSelectionTest, ResolvesAgainstThePresentDevices) {
    const std::vector<AudioInputDevice> all = {kUSB, kInternal, kInternal2, kHeadset};
    const std::optional<std::string> def = kHeadset.uid;
    struct Case {
        const char* name;
        Sel selection;
        std::vector<AudioInputDevice> devices;
        std::optional<std::string> systemDefault;
        MicrophoneResolution expected;
    };
    const std::vector<Case> cases = {
        {"default", Sel::systemDefault(), all, def, {std::nullopt, kHeadset, false}},
        {"default unknown", Sel::systemDefault(), all, "gone", {std::nullopt, std::nullopt, false}},
        {"first built-in wins", Sel::builtIn(), all, def, {kInternal.uid, kInternal, false}},
        {"no built-in", Sel::builtIn(), {kUSB, kHeadset}, def, {std::nullopt, kHeadset, true}},
        {"present device", Sel::device(kUSB.uid), all, def, {kUSB.uid, kUSB, false}},
        {"unplugged device", Sel::device(kUSB.uid), {kInternal, kHeadset}, def, {std::nullopt, kHeadset, true}},
        {"empty uid", Sel::device(""), all, def, {std::nullopt, kHeadset, true}},
        {"nothing at all", Sel::device(kUSB.uid), {}, std::nullopt, {std::nullopt, std::nullopt, true}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(resolve(c.selection, c.devices, c.systemDefault), c.expected) << c.name;
    }
}

TEST(MicrophoneSelectionTest, LabelsInBothLanguages) {
    const std::vector<AudioInputDevice> all = {kUSB, kInternal, kHeadset};
    const std::optional<std::string> def = kHeadset.uid;
    struct Case {
        Sel selection;
        std::vector<AudioInputDevice> devices;
        std::optional<std::string> systemDefault;
        std::string en, es;
    };
    const std::vector<Case> cases = {
        {Sel::systemDefault(), all, def, "System default (WH-1000XM4)", "Predeterminado del sistema (WH-1000XM4)"},
        {Sel::systemDefault(), all, std::nullopt, "System default", "Predeterminado del sistema"},
        {Sel::builtIn(), all, def, "Built-in microphone", "Micrófono integrado"},
        {Sel::builtIn(), {}, def, "Built-in microphone", "Micrófono integrado"},
        {Sel::device(kUSB.uid), all, def, "RØDE NT-USB", "RØDE NT-USB"},
        {Sel::device(kUSB.uid), {kInternal}, def, "Disconnected microphone", "Micrófono desconectado"},
        {Sel::device(""), all, def, "Disconnected microphone", "Micrófono desconectado"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(selectionLabel(c.selection, c.devices, c.systemDefault, Language::English), c.en);
        EXPECT_EQ(selectionLabel(c.selection, c.devices, c.systemDefault, Language::Spanish), c.es);
    }
    EXPECT_EQ(deviceName("nobody", all, Language::English), "System default");
    EXPECT_EQ(deviceName("nobody", all, Language::Spanish), "Predeterminado del sistema");
    EXPECT_EQ(deviceName(kInternal.uid, all, Language::Spanish), "Built-in Audio");
}

TEST(MicrophoneSelectionTest, TransportFromDeviceProperties) {
    EXPECT_EQ(transportFor("bluetooth", "headset"), T::bluetooth);
    EXPECT_EQ(transportFor("usb", "internal"), T::usb);  // the bus decides first
    EXPECT_EQ(transportFor("pci", "internal"), T::builtIn);
    EXPECT_EQ(transportFor("", "internal"), T::builtIn);
    EXPECT_EQ(transportFor("pci", "microphone"), T::other);
    EXPECT_EQ(transportFor("", ""), T::other);
}

// A provider with a fixed list, for the store and target behaviour.
class FixedDevices final : public InputDeviceProvider {
public:
    std::vector<AudioInputDevice> list;
    std::optional<std::string> def;
    std::vector<AudioInputDevice> devices() override { return list; }
    std::optional<std::string> systemDefaultUID() override { return def; }
    void setChangeHandler(std::function<void()>) override {}
};

TEST(MicrophoneSettingsTest, StoresEachSelectionUnderItsKeyAndReadsItBack) {
    test::TempHome home;
    home.defaults().set(prefs::kMicrophoneInsurance, "uid:alsa_input.usb-Rode");
    auto provider = std::make_unique<FixedDevices>();
    provider->list = {kUSB, kInternal};
    provider->def = kInternal.uid;
    {
        MicrophoneSettings settings(std::move(provider), home.defaults(), false);
        EXPECT_EQ(settings.recordingSelection.get(), Sel::systemDefault());
        EXPECT_EQ(settings.insuranceSelection.get(), Sel::device(kUSB.uid));
        EXPECT_EQ(settings.insuranceTarget(), (MicrophoneTarget{kUSB.uid, 3u}));
        EXPECT_EQ(settings.recordingTarget(), MicrophoneTarget{});  // default: nothing named

        settings.setRecordingSelection(Sel::builtIn());
        EXPECT_EQ(settings.recordingTarget(), (MicrophoneTarget{kInternal.uid, 1u}));
    }
    home.reloadDefaults();
    EXPECT_EQ(home.defaults().stringValue(prefs::kMicrophoneRecording), "builtin");
    EXPECT_EQ(home.defaults().stringValue(prefs::kMicrophoneInsurance), "uid:alsa_input.usb-Rode");
}

}  // namespace
}  // namespace vell::audio
