// The device list and the resolution of a stored choice follow the sound server as sources
// come and go.
#include <gtest/gtest.h>

#include <algorithm>

#include "audio/microphone_settings.h"
#include "base/manual_executor.h"
#include "base/runtime.h"
#include "platform/pulse/pulse_input_devices.h"
#include "tests/support/pulse_server.h"
#include "tests/support/temp_home.h"

namespace vell::audio {
namespace {

class MicrophoneSettingsPulseTest : public ::testing::Test {
protected:
    void SetUp() override { runtime::install(&main_, &clock_); }
    void TearDown() override { runtime::install(nullptr, nullptr); }

    static bool has(const MicrophoneSettings& s, const std::string& uid) {
        auto list = s.devices.get();
        return std::any_of(list.begin(), list.end(), [&](const AudioInputDevice& d) { return d.uid == uid; });
    }

    // A second microphone that says it sits on USB.
    bool plugUSB() {
        return pulse_
            .loadModule("module-pipe-source source_name=usbmic source_properties=device.bus=usb file=" +
                        (pulse_.runtimeDir() / "usb.fifo").string())
            .has_value();
    }

    test::PulseServer pulse_;
    test::TempHome home_;
    ManualClock clock_;
    ManualExecutor main_{clock_};
};

TEST_F(MicrophoneSettingsPulseTest, ListsInputsWithoutMonitorsAndTheDefault) {
    ASSERT_TRUE(plugUSB());
    MicrophoneSettings settings(platform::makePulseInputDevices(), home_.defaults(), false);
    auto list = settings.devices.get();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].uid, "fakemic");
    EXPECT_EQ(list[0].transport, AudioInputDevice::Transport::other);
    EXPECT_EQ(list[1].uid, "usbmic");
    EXPECT_EQ(list[1].transport, AudioInputDevice::Transport::usb);
    EXPECT_EQ(settings.systemDefaultUID.get(), "fakemic");
    EXPECT_TRUE(settings.lastError.get().empty());
}

TEST_F(MicrophoneSettingsPulseTest, UnpluggingTheChosenSourceFallsBackAndReplugRestoresIt) {
    ASSERT_TRUE(plugUSB());
    MicrophoneSettings settings(platform::makePulseInputDevices(), home_.defaults(), true);
    settings.setRecordingSelection(MicrophoneSelection::device("usbmic"));
    auto chosen = settings.recordingResolution();
    ASSERT_EQ(chosen.deviceUID, "usbmic");
    EXPECT_FALSE(chosen.fellBackToDefault);

    auto modules = pulse_.pactl("list short modules").output;
    auto line = modules.substr(0, modules.find("source_name=usbmic"));
    uint32_t index = static_cast<uint32_t>(std::stoul(line.substr(line.rfind('\n') + 1)));
    ASSERT_TRUE(pulse_.unloadModule(index));
    ASSERT_TRUE(main_.runUntil([&] { return !has(settings, "usbmic"); }));
    auto fallback = settings.recordingResolution();
    EXPECT_FALSE(fallback.deviceUID.has_value());
    EXPECT_TRUE(fallback.fellBackToDefault);
    ASSERT_TRUE(fallback.device.has_value());
    EXPECT_EQ(fallback.device->uid, "fakemic");
    EXPECT_EQ(settings.recordingTarget(), MicrophoneTarget{});
    EXPECT_EQ(selectionLabel(settings.recordingSelection.get(), settings.devices.get(), settings.systemDefaultUID.get(),
                             Language::English),
              "Disconnected microphone");

    ASSERT_TRUE(plugUSB());
    ASSERT_TRUE(main_.runUntil([&] { return has(settings, "usbmic"); }));
    auto restored = settings.recordingResolution();
    EXPECT_EQ(restored.deviceUID, "usbmic");
    EXPECT_FALSE(restored.fellBackToDefault);
    EXPECT_EQ(settings.recordingTarget().uid, "usbmic");
}

TEST_F(MicrophoneSettingsPulseTest, ANewDefaultSourceIsPublished) {
    ASSERT_TRUE(plugUSB());
    MicrophoneSettings settings(platform::makePulseInputDevices(), home_.defaults(), true);
    EXPECT_EQ(settings.systemDefaultUID.get(), "fakemic");
    pulse_.pactl("set-default-source usbmic");
    ASSERT_TRUE(main_.runUntil([&] { return settings.systemDefaultUID.get() == "usbmic"; }));
    EXPECT_EQ(settings.recordingResolution().device->uid, "usbmic");
}

TEST_F(MicrophoneSettingsPulseTest, AServerThatGoesAwayEmptiesTheListWithoutCrashing) {
    MicrophoneSettings settings(platform::makePulseInputDevices(), home_.defaults(), true);
    ASSERT_TRUE(has(settings, "fakemic"));
    pulse_.kill();
    ASSERT_TRUE(main_.runUntil([&] { return settings.devices.get().empty(); }));
    EXPECT_FALSE(settings.lastError.get().empty());
    EXPECT_EQ(settings.recordingTarget(), MicrophoneTarget{});
    // Retries stay quiet and harmless while the server is away.
    main_.advance(10);
    EXPECT_TRUE(settings.devices.get().empty());
}

}  // namespace
}  // namespace vell::audio

namespace vell::audio {
namespace {

TEST(MicrophoneSettingsRestartTest, TheListComesBackWhenAServerAnswersAgain) {
    ManualClock clock;
    ManualExecutor main(clock);
    runtime::install(&main, &clock);
    test::TempHome home;
    auto pulse = std::make_unique<test::PulseServer>();
    MicrophoneSettings settings(platform::makePulseInputDevices(), home.defaults(), true);
    ASSERT_FALSE(settings.devices.get().empty());
    pulse.reset();  // the sound server goes away
    ASSERT_TRUE(main.runUntil([&] { return settings.devices.get().empty(); }));
    pulse = std::make_unique<test::PulseServer>();  // and a new one starts
    main.advance(3);
    ASSERT_TRUE(main.runUntil([&] { return !settings.devices.get().empty(); }));
    EXPECT_EQ(settings.systemDefaultUID.get(), "fakemic");
    EXPECT_TRUE(settings.lastError.get().empty());
    runtime::install(nullptr, nullptr);
}

}  // namespace
}  // namespace vell::audio
