// The microphone engines on a real (private) PulseAudio server: what is written into the
// fake microphone comes out of MicCapture, refused devices fall back, device changes are
// reported only while the capture is open.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "audio/errors.h"
#include "audio/mic_capture.h"
#include "platform/alsa/alsa_mic_engine.h"
#include "platform/pulse/pulse_mic_engine.h"
#include "tests/support/pulse_server.h"

namespace vell::audio {
namespace {

using namespace std::chrono_literals;

// Collects delivered audio (first channel) from the engine's thread.
class Collector {
public:
    BufferHandler handler() {
        return [this](PcmBufferPtr b) {
            std::lock_guard lock(mutex_);
            if (blocks_ == 0) {
                rate_ = b->sampleRate;
                channels_ = b->channelCount();
            }
            ++blocks_;
            samples_.insert(samples_.end(), b->channels[0].begin(), b->channels[0].end());
            cv_.notify_all();
        };
    }
    // Waits until the non-silent part has at least `count` samples and is followed by silence.
    std::vector<float> waitForSound(size_t count, std::chrono::milliseconds limit = 8000ms) {
        std::unique_lock lock(mutex_);
        cv_.wait_for(lock, limit, [&] { return sound().size() >= count; });
        return sound();
    }
    bool waitForBlocks(int n, std::chrono::milliseconds limit = 3000ms) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, limit, [&] { return blocks_ >= n; });
    }
    int blocks() {
        std::lock_guard lock(mutex_);
        return blocks_;
    }
    double rate() {
        std::lock_guard lock(mutex_);
        return rate_;
    }
    int channels() {
        std::lock_guard lock(mutex_);
        return channels_;
    }

private:
    std::vector<float> sound() const {
        auto first = std::find_if(samples_.begin(), samples_.end(), [](float s) { return s != 0.0f; });
        auto last = std::find_if(samples_.rbegin(), samples_.rend(), [](float s) { return s != 0.0f; }).base();
        if (first >= last) return {};
        return {first, last};
    }
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<float> samples_;
    int blocks_ = 0;
    double rate_ = 0;
    int channels_ = 0;
};

// The steady part of a tone, away from the edges a resampler rings at.
std::vector<float> middle(const std::vector<float>& tone) {
    size_t cut = tone.size() / 5;
    return {tone.begin() + static_cast<long>(cut), tone.end() - static_cast<long>(cut)};
}

std::unique_ptr<MicCapture> pulseWithAlsaFallback() {
    return std::make_unique<MicCapture>([] { return platform::makePulseMicEngine(); },
                                        [] { return platform::makeAlsaMicEngine(); });
}

TEST(MicCapturePulseTest, TheChosenSourceDeliversWhatItsFifoReceives) {
    test::PulseServer pulse;
    auto capture = pulseWithAlsaFallback();
    Collector collector;
    capture->start({"fakemic", std::nullopt}, collector.handler(), {});
    ASSERT_TRUE(capture->isRunning());
    EXPECT_FALSE(capture->usingFallbackEngine());
    EXPECT_FALSE(capture->fellBackToDefault());

    ASSERT_TRUE(collector.waitForBlocks(3));
    pulse.writeMic(test::sineWave(440, test::PulseServer::kMicRate, 0.6, 0.5));
    auto tone = collector.waitForSound(9000);
    ASSERT_GE(tone.size(), 9000u);
    // The device's own format: 16 kHz mono, as float.
    EXPECT_EQ(collector.rate(), 16000);
    EXPECT_EQ(collector.channels(), 1);
    EXPECT_NEAR(test::zeroCrossingFrequency(middle(tone), 16000), 440, 8);
    EXPECT_NEAR(test::rms(tone), 0.5 / std::sqrt(2.0), 0.02);
    capture->stop();
    EXPECT_FALSE(capture->isRunning());
}

TEST(MicCapturePulseTest, DeliversSmallBlocksSoonAfterStart) {
    test::PulseServer pulse;
    auto capture = pulseWithAlsaFallback();
    Collector collector;
    capture->start({}, collector.handler(), {});
    ASSERT_TRUE(collector.waitForBlocks(20));  // about 20 ms each: 20 blocks well within 3 s
}

// Insurance mode's capture as the program installs it: the server converts a 44.1 kHz
// stereo source into the chunks' 16 kHz mono and hands it over in blocks of about 200 ms.
TEST(MicCapturePulseTest, TheListeningCaptureGetsSixteenKilohertzMonoInLongBlocks) {
    test::PulseServer pulse;
    auto capture = MicCapture::makeForListening();
    std::mutex mutex;
    std::vector<std::pair<double, size_t>> blocks;  // rate and frames
    int channels = 0;
    std::condition_variable cv;
    capture->start({"speakers.monitor", std::nullopt}, [&](PcmBufferPtr b) {
        std::lock_guard lock(mutex);
        blocks.emplace_back(b->sampleRate, b->frames());
        channels = b->channelCount();
        cv.notify_all();
    }, {});
    std::unique_lock lock(mutex);
    ASSERT_TRUE(cv.wait_for(lock, 5s, [&] { return blocks.size() >= 6; }));
    EXPECT_EQ(channels, 1);
    for (const auto& [rate, frames] : blocks) EXPECT_EQ(rate, 16000);
    // The first block may be short; the steady ones are far longer than the 20 ms default.
    const size_t longest = std::max_element(blocks.begin() + 1, blocks.end())->second;
    EXPECT_GE(longest, 1200u);
    lock.unlock();
    capture->stop();
}

TEST(MicCapturePulseTest, TheSoundServerEngineRefusesASourceThatDoesNotExist) {
    test::PulseServer pulse;
    auto engine = platform::makePulseMicEngine();
    try {
        engine->selectDevice({"no-such-source", std::nullopt});
        FAIL() << "a missing source was accepted";
    } catch (const MicCaptureError& e) {
        EXPECT_EQ(e.status(), 5);  // PA_ERR_NOENTITY
    }
}

TEST(MicCapturePulseTest, AChosenSourceBothEnginesRefuseGivesTheFallbacksErrorAndOpensNothing) {
    test::PulseServer pulse;
    auto capture = pulseWithAlsaFallback();
    Collector collector;
    try {
        capture->start({"no-such-source", 99u}, collector.handler(), {});
        FAIL() << "a missing source was replaced by another microphone";
    } catch (const MicCaptureError& e) {
        EXPECT_EQ(e.status(), -ENODEV);  // ALSA's refusal, not the sound server's PA_ERR_NOENTITY
    }
    EXPECT_FALSE(capture->isRunning());
    EXPECT_FALSE(capture->fellBackToDefault());
    // The fake microphone's audio never reaches anyone.
    pulse.writeMic(test::sineWave(300, test::PulseServer::kMicRate, 0.3, 0.5));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(collector.blocks(), 0);
    capture->stop();
    EXPECT_FALSE(capture->isRunning());
}

TEST(MicCapturePulseTest, WithoutAServerBothEnginesFailAndNothingStaysOpen) {
    test::PulseServer pulse;
    pulse.kill();
    auto capture = pulseWithAlsaFallback();
    Collector collector;
    EXPECT_ANY_THROW(capture->start({"fakemic", std::nullopt}, collector.handler(), {}));
    EXPECT_FALSE(capture->isRunning());
    EXPECT_FALSE(capture->fellBackToDefault());
    capture->stop();
    EXPECT_FALSE(capture->isRunning());
}

TEST(MicCapturePulseTest, UnpluggingTheOpenSourceIsReportedAsADeviceChange) {
    test::PulseServer pulse;
    auto capture = pulseWithAlsaFallback();
    std::atomic<int> changes{0};
    Collector collector;
    capture->start({"fakemic", std::nullopt}, collector.handler(), [&] { ++changes; });
    ASSERT_TRUE(collector.waitForBlocks(2));
    pulse.unplugMic();
    auto deadline = std::chrono::steady_clock::now() + 3s;
    while (changes == 0 && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(20ms);
    EXPECT_EQ(changes, 1);
}

TEST(MicCapturePulseTest, ADeviceChangeAfterStopHasNoEffect) {
    test::PulseServer pulse;
    auto capture = pulseWithAlsaFallback();
    std::atomic<int> changes{0};
    Collector collector;
    capture->start({"fakemic", std::nullopt}, collector.handler(), [&] { ++changes; });
    ASSERT_TRUE(collector.waitForBlocks(2));
    // The change arrives while open, but the delayed check runs after the stop.
    pulse.unplugMic();
    std::this_thread::sleep_for(100ms);
    capture->stop();
    int blocksAtStop = collector.blocks();
    std::this_thread::sleep_for(900ms);
    EXPECT_EQ(changes, 0);
    EXPECT_EQ(collector.blocks(), blocksAtStop);
}

}  // namespace
}  // namespace vell::audio
