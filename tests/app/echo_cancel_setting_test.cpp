// The "Cancel echo" preference reaches the mixer the composition root makes for a
// recording: on when absent, and once switched off (as `vell echo-cancel off` stores it) the
// next recording mixes the microphone untouched.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "app/composition.h"
#include "app/echo_cancel_setting.h"
#include "audio/realtime_mixer.h"
#include "base/manual_executor.h"
#include "base/preference_keys.h"
#include "base/runtime.h"
#include "recording/recorder_parts.h"
#include "tests/audio/echo_scene.h"
#include "tests/support/temp_home.h"

namespace vell::app {
namespace {

// Mixes the scene through a recording mixer, in time on the runtime's clock (a recording's
// mixer keeps to it); returns the mix's left channel.
std::vector<float> mixScene(audio::RecordingMixer& mixer, const std::vector<float>& mic, const std::vector<float>& far,
                            ManualClock& clock) {
    std::mutex lock;
    std::vector<float> mixed;
    mixer.onMixedBuffer = [&](audio::PcmBufferPtr b) {
        std::lock_guard g(lock);
        mixed.insert(mixed.end(), b->channels[0].begin(), b->channels[0].end());
    };
    mixer.open();
    mixer.setSystemEnabled(true);
    for (std::size_t at = 0; at + test::kEchoBlock <= mic.size(); at += test::kEchoBlock) {
        clock.advance(double(test::kEchoBlock) / test::kEchoRate);
        mixer.appendSystem(test::echoBlock(far, at, 2));
        mixer.appendMicrophone(test::echoBlock(mic, at, 1));
    }
    mixer.finish();
    std::lock_guard g(lock);
    return mixed;
}

TEST(EchoCancelSettingTest, SwitchedOffTheNextRecordingMixesTheMicrophoneUntouched) {
    test::TempHome home;
    // The recorder's parts live on a main executor, as in every program.
    ManualClock clock;
    ManualExecutor main(clock);
    runtime::install(&main, &clock);
    struct Uninstall {
        ~Uninstall() { runtime::install(nullptr, nullptr); }
    } uninstall;
    EXPECT_TRUE(echoCancellationEnabled(home.defaults())) << "on when absent";
    const auto far = test::talker(2, 21);
    const auto mic = test::roomEcho(far);

    audio::RealtimeMixer::Options driven;
    driven.automaticTicks = false;
    audio::RealtimeMixer plainMixer(home.tmp() / "plain.aac", test::kEchoRate, std::move(driven));
    const auto plain = mixScene(plainMixer, mic, far, clock);

    auto parts = recorderParts();
    const auto on = mixScene(*parts.makeMixer(home.tmp() / "on.aac", test::kEchoRate), mic, far, clock);
    EXPECT_NE(on, plain) << "a recording's mixer cancels echo by default";

    // Stored by another process (`vell echo-cancel off` with no host running): this one
    // learns it when the next recording's mixer is made.
    home.defaults().set(prefs::kEchoCancellation, false);
    home.reloadDefaults();
    EXPECT_EQ(home.defaults().boolValue(prefs::kEchoCancellation), false);
    const auto off = mixScene(*parts.makeMixer(home.tmp() / "off.aac", test::kEchoRate), mic, far, clock);
    EXPECT_EQ(off, plain);
    EXPECT_EQ(nlohmann::json::parse(echoCancellationStatusJson(home.defaults()))["enabled"], false);

    setEchoCancellationEnabled(home.defaults(), true);
    EXPECT_NE(mixScene(*parts.makeMixer(home.tmp() / "again.aac", test::kEchoRate), mic, far, clock), plain);
}

}  // namespace
}  // namespace vell::app
