// Echo cancellation follows the sound server's default output: headphones (told by the
// sink's form factor, as a USB or Bluetooth headphone sink says it) bypass the canceller,
// the status says so, and the microphone reaches the mix bit for bit; back on the
// loudspeakers it cancels again.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "audio/echo_cancellation.h"
#include "audio/realtime_mixer.h"
#include "tests/audio/echo_scene.h"
#include "tests/support/pulse_server.h"
#include "tests/support/temp_home.h"

namespace vell::audio {
namespace {

using namespace std::chrono_literals;

// One recording's mixer, driven block by block; the microphone's part of the mix is what
// it returns.
class Recording {
public:
    Recording(const std::filesystem::path& file, EchoCancellation* echo, const Clock& clock) {
        RealtimeMixer::Options options;
        options.clock = &clock;
        options.automaticTicks = false;
        options.echo = echo;
        mixer_ = std::make_unique<RealtimeMixer>(file, test::kEchoRate, std::move(options));
        mixer_->onMixedBuffer = [this](PcmBufferPtr b) { mixed_.insert(mixed_.end(), b->channels[0].begin(), b->channels[0].end()); };
        mixer_->open();
        mixer_->setSystemEnabled(true);
    }
    void feed(const std::vector<float>& mic, const std::vector<float>& system, ManualClock& clock) {
        for (std::size_t at = 0, i = 0; at + test::kEchoBlock <= mic.size(); at += test::kEchoBlock, ++i) {
            mixer_->appendSystem(test::echoBlock(system, at, 2));
            mixer_->appendMicrophone(test::echoBlock(mic, at, 1));
            clock.advance(0.02);
            if (i % 5 == 4) mixer_->tick();
        }
    }
    std::vector<float> finish(const std::vector<float>& system) {
        mixer_->finish();
        for (std::size_t i = 0; i < mixed_.size() && i < system.size(); ++i) mixed_[i] -= system[i] * RealtimeMixer::kSystemGain;
        return mixed_;
    }

private:
    std::unique_ptr<RealtimeMixer> mixer_;
    std::vector<float> mixed_;
};

bool waitForRoute(const EchoCancellation& echo, OutputKind kind) {
    for (int i = 0; i < 100; ++i) {
        if (echo.route().kind == kind) return true;
        std::this_thread::sleep_for(50ms);
    }
    return false;
}

TEST(EchoCancelPulseTest, HeadphonesBypassTheCancellerAndTheStatusSaysSo) {
    test::TempHome home;
    test::PulseServer pulse;
    ASSERT_TRUE(pulse.loadModule("module-null-sink sink_name=phones sink_properties=device.form_factor=headphones"));
    ASSERT_EQ(pulse.pactl("set-default-sink phones").status, 0);

    ManualClock clock;
    const auto far = test::talker(3, 11);
    const auto mic = test::roomEcho(far);
    Recording plainRecording(home.tmp() / "plain.aac", nullptr, clock);
    plainRecording.feed(mic, far, clock);
    const auto plain = plainRecording.finish(far);

    EchoCancellation echo;  // follows the server's default output
    {
        Recording recording(home.tmp() / "phones.aac", &echo, clock);
        ASSERT_TRUE(waitForRoute(echo, OutputKind::headphones)) << outputKindName(echo.route().kind);
        recording.feed(mic, far, clock);
        const auto status = echo.status();
        EXPECT_EQ(status.state, EchoState::bypassed);
        EXPECT_EQ(status.reason, EchoBypass::headphones);
        EXPECT_EQ(status.output.device, "phones");
        EXPECT_EQ(recording.finish(far), plain) << "the microphone must reach the mix untouched";
    }
    EXPECT_EQ(echo.status().state, EchoState::idle);

    // The loudspeakers again (a null sink says nothing about itself: an acoustic path).
    ASSERT_EQ(pulse.pactl("set-default-sink speakers").status, 0);
    Recording recording(home.tmp() / "speakers.aac", &echo, clock);
    ASSERT_TRUE(waitForRoute(echo, OutputKind::speakers)) << outputKindName(echo.route().kind);
    recording.feed(mic, far, clock);
    EXPECT_EQ(echo.status().state, EchoState::active);
    EXPECT_NE(recording.finish(far), plain);
}

TEST(EchoCancelPulseTest, OutputKindsFromPortAndProperties) {
    EXPECT_EQ(classifyOutput({"headphones", "internal", "pci"}), OutputKind::headphones) << "the active port wins";
    EXPECT_EQ(classifyOutput({"speaker", "internal", "pci"}), OutputKind::speakers);
    EXPECT_EQ(classifyOutput({"", "headset", "usb"}), OutputKind::headset);
    EXPECT_EQ(classifyOutput({"", "headphone", "bluetooth"}), OutputKind::headphones);
    EXPECT_EQ(classifyOutput({"", "", "bluetooth"}), OutputKind::bluetooth);
    EXPECT_EQ(classifyOutput({"", "speaker", "bluetooth"}), OutputKind::speakers) << "a Bluetooth loudspeaker echoes";
    EXPECT_EQ(classifyOutput({"", "", "pci"}), OutputKind::speakers);
}

}  // namespace
}  // namespace vell::audio
