// Echo cancellation inside the realtime mixer, offline: a far end played into a simulated
// room and picked up again by the microphone, mixed tick by tick on a virtual clock. The
// microphone's part of the mix is what the mix holds minus the system audio at its gain.
#include <gtest/gtest.h>

#include <cmath>

#include "audio/echo_cancellation.h"
#include "audio/realtime_mixer.h"
#include "tests/audio/echo_scene.h"
#include "tests/support/temp_home.h"

namespace vell::audio {
namespace {

constexpr double kRate = test::kEchoRate;
constexpr std::size_t kBlock = test::kEchoBlock;
using test::roomEcho, test::talker;

PcmBufferPtr block(const std::vector<float>& signal, std::size_t at, int channels) {
    return test::echoBlock(signal, at, channels);
}

double energy(const std::vector<float>& x, std::size_t from, std::size_t to) {
    double e = 0;
    for (std::size_t i = from; i < to && i < x.size(); ++i) e += double(x[i]) * x[i];
    return e;
}

class EchoCancelTest : public ::testing::Test {
protected:
    // Runs mic and system through a driven mixer; returns the microphone's part of the mix
    // (left channel), as long as the input.
    std::vector<float> mixMicrophone(const std::vector<float>& mic, const std::vector<float>& system,
                                     EchoCancellation* echo) {
        RealtimeMixer::Options options;
        options.clock = &clock;
        options.automaticTicks = false;
        options.echo = echo;
        RealtimeMixer mixer(home.tmp() / ("vell_rec_" + std::to_string(++runs) + ".aac"), kRate, std::move(options));
        std::vector<float> mixed;
        mixer.onMixedBuffer = [&mixed](PcmBufferPtr b) {
            mixed.insert(mixed.end(), b->channels[0].begin(), b->channels[0].end());
        };
        mixer.open();
        mixer.setSystemEnabled(true);
        for (std::size_t at = 0, i = 0; at + kBlock <= mic.size(); at += kBlock, ++i) {
            mixer.appendSystem(block(system, at, 2));
            mixer.appendMicrophone(block(mic, at, 1));
            clock.advance(0.02);
            if (i % 5 == 4) mixer.tick();
        }
        mixer.finish();
        EXPECT_GE(mixed.size(), mic.size() - kBlock);
        for (std::size_t i = 0; i < mixed.size() && i < system.size(); ++i) {
            mixed[i] -= system[i] * RealtimeMixer::kSystemGain;
        }
        return mixed;
    }

    test::TempHome home;
    ManualClock clock;
    int runs = 0;
    // No route watcher: the route is whatever the test sets.
    EchoCancellation echo{[] { return std::unique_ptr<OutputRouteWatcher>(); }};
};

TEST_F(EchoCancelTest, EchoOfTheSystemAudioLeavesTheMicrophoneButTheNearTalkerStays) {
    const double seconds = 9;
    const auto far = talker(seconds, 1);
    const auto echoed = roomEcho(far);
    auto near = talker(seconds, 2);
    // The near talker speaks only in the last three seconds, over the far end (double talk).
    for (std::size_t i = 0; i < std::size_t(6 * kRate); ++i) near[i] = 0;
    std::vector<float> mic(echoed.size());
    for (std::size_t i = 0; i < mic.size(); ++i) mic[i] = echoed[i] + near[i];

    const auto cleaned = mixMicrophone(mic, far, &echo);
    const auto from = std::size_t(2 * kRate), to = std::size_t(6 * kRate);
    const double erle = 10 * std::log10(energy(echoed, from, to) / energy(cleaned, from, to));
    EXPECT_GE(erle, 10.0) << "echo left in the microphone after two seconds";

    // In the double talk the near talker must survive: what remains is mostly them (a few
    // milliseconds late: the canceller's own filters).
    const auto dt = std::size_t(6 * kRate), end = std::size_t(8.5 * kRate);
    double correlation = -1;
    for (std::size_t lag = 0; lag < 600; ++lag) {
        double cross = 0;
        for (std::size_t i = dt; i < end; ++i) cross += double(cleaned[i]) * near[i - lag];
        correlation = std::max(correlation, cross / std::sqrt(energy(cleaned, dt, end) * energy(near, dt - lag, end - lag)));
    }
    EXPECT_GE(correlation, 0.7);

    const auto status = echo.status();
    EXPECT_EQ(status.state, EchoState::idle) << "the mixer finished";
}

TEST_F(EchoCancelTest, WithoutAnAcousticPathTheMicrophoneIsMixedBitForBit) {
    const auto far = talker(3, 3);
    auto mic = roomEcho(far);
    const auto plain = mixMicrophone(mic, far, nullptr);

    echo.setRoute(OutputRoute{OutputKind::headphones, "usb-headphones", "analog-output-headphones"});
    EXPECT_EQ(mixMicrophone(mic, far, &echo), plain);

    echo.setRoute(OutputRoute{OutputKind::speakers, "laptop", "analog-output-speaker"});
    const auto cancelled = mixMicrophone(mic, far, &echo);
    EXPECT_NE(cancelled, plain) << "with loudspeakers the canceller works on the microphone";

    echo.setEnabled(false);
    EXPECT_EQ(mixMicrophone(mic, far, &echo), plain) << "switched off";
}

TEST_F(EchoCancelTest, SystemAudioOfDigitalSilenceBypassesAfterOneSecond) {
    const std::vector<float> silence(std::size_t(4 * kRate), 0.0f);
    const auto mic = talker(4, 4);
    const auto plain = mixMicrophone(mic, silence, nullptr);
    const auto bypassed = mixMicrophone(mic, silence, &echo);
    ASSERT_EQ(bypassed.size(), plain.size());
    const auto hold = std::size_t(EchoCancelStage::kSilenceHoldSeconds * kRate) + 441;
    EXPECT_TRUE(std::equal(bypassed.begin() + std::ptrdiff_t(hold), bypassed.end(), plain.begin() + std::ptrdiff_t(hold)));
}

}  // namespace
}  // namespace vell::audio
