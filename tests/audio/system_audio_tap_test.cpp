// The system-audio tap on a real (private) PulseAudio server: the idle output is digital
// silence, played sound ends the silent run, the tap follows a new default output, and a
// failed start leaves nothing behind, a restarted server is found again, and this program's
// own playback stays out.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "audio/digital_silence_tracker.h"
#include "audio/errors.h"
#include "platform/pulse/system_audio_tap.h"
#include "tests/audio/aac_test_decoder.h"
#include "tests/support/child_process.h"
#include "tests/support/pulse_server.h"

#include <pulse/simple.h>

#include <atomic>
#include <cmath>
#include <numbers>

namespace vell::audio {
namespace {

using namespace std::chrono_literals;

struct Watcher {
    DigitalSilenceTracker tracker;
    std::mutex mutex;
    std::condition_variable cv;
    int blocks = 0;
    int silentBlocks = 0;
    int loudBlocks = 0;
    double rate = 0;
    std::vector<float> loud;  // first channel of the non-silent blocks

    BufferHandler handler() {
        return [this](PcmBufferPtr b) {
            bool silent = isDigitalSilence(*b);
            tracker.update(silent, std::chrono::system_clock::now());
            std::lock_guard lock(mutex);
            ++blocks;
            rate = b->sampleRate;
            if (silent) {
                ++silentBlocks;
            } else {
                ++loudBlocks;
                loud.insert(loud.end(), b->channels[0].begin(), b->channels[0].end());
            }
            cv.notify_all();
        };
    }
    bool waitFor(const std::function<bool()>& pred, std::chrono::milliseconds limit = 5000ms) {
        std::unique_lock lock(mutex);
        return cv.wait_for(lock, limit, pred);
    }
};

TEST(SystemAudioTapTest, TheIdleOutputIsDigitalSilenceUntilSomethingPlays) {
    test::PulseServer pulse;
    SystemAudioTap tap;
    Watcher w;
    tap.start(w.handler());
    ASSERT_TRUE(tap.isRunning());
    EXPECT_EQ(tap.monitorName(), "speakers.monitor");

    ASSERT_TRUE(w.waitFor([&] { return w.blocks >= 10; }));
    auto since = w.tracker.silentSince();
    ASSERT_TRUE(since.has_value());
    ASSERT_TRUE(w.waitFor([&] { return w.blocks >= 20; }));
    EXPECT_EQ(w.tracker.silentSince(), since);  // the run keeps its first time
    EXPECT_EQ(w.loudBlocks, 0);

    pulse.playTone(1000, 0.5, false);
    ASSERT_TRUE(w.waitFor([&] { return w.loud.size() >= static_cast<size_t>(w.rate * 0.3); }));
    EXPECT_NEAR(test::zeroCrossingFrequency(w.loud, static_cast<int>(w.rate)), 1000, 30);
    // After the tone the output is idle again: a new run starts.
    ASSERT_TRUE(w.waitFor([&] {
        auto s = w.tracker.silentSince();
        return s && *s > *since;
    }));
    tap.stop();
    EXPECT_FALSE(tap.isRunning());
}

TEST(SystemAudioTapTest, FollowsTheDefaultOutputToItsNewMonitor) {
    test::PulseServer pulse;
    ASSERT_TRUE(pulse.loadModule("module-null-sink sink_name=headphones"));
    SystemAudioTap tap;
    Watcher w;
    tap.start(w.handler());
    ASSERT_EQ(tap.monitorName(), "speakers.monitor");
    pulse.pactl("set-default-sink headphones");
    auto deadline = std::chrono::steady_clock::now() + 3s;
    while (tap.monitorName() != "headphones.monitor" && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(tap.monitorName(), "headphones.monitor");
    int before = 0;
    {
        std::lock_guard lock(w.mutex);
        before = w.blocks;
    }
    EXPECT_TRUE(w.waitFor([&] { return w.blocks >= before + 5; }));
    tap.stop();
}

TEST(SystemAudioTapTest, AFailedStartNamesTheCallAndLeavesNothingBehind) {
    test::PulseServer pulse;
    pulse.kill();
    SystemAudioTap tap;
    Watcher w;
    try {
        tap.start(w.handler());
        FAIL() << "started without a server";
    } catch (const CoreAudioError& e) {
        EXPECT_EQ(e.operation(), "pa_context_connect");
        EXPECT_NE(e.status(), 0);
        EXPECT_EQ(std::string(e.what()), "Audio error " + std::to_string(e.status()) + " (pa_context_connect)");
    }
    EXPECT_FALSE(tap.isRunning());
    EXPECT_TRUE(tap.monitorName().empty());
    tap.stop();
    tap.stop();
    EXPECT_FALSE(tap.isRunning());
}

TEST(SystemAudioTapTest, ARestartedSoundServerIsFoundAgainAndPlayedSoundFlows) {
    auto pulse = std::make_unique<test::PulseServer>();
    SystemAudioTap tap;
    Watcher w;
    tap.start(w.handler());
    ASSERT_TRUE(w.waitFor([&] { return w.blocks >= 3; }));

    pulse.reset();  // the server goes away under a running tap
    std::this_thread::sleep_for(1500ms);  // a failed reconnect or two while nobody answers
    EXPECT_TRUE(tap.isRunning());
    EXPECT_TRUE(tap.monitorName().empty());

    pulse = std::make_unique<test::PulseServer>();
    ASSERT_TRUE(w.waitFor([&] { return !tap.monitorName().empty(); }, 10000ms)) << "never reconnected";
    EXPECT_EQ(tap.monitorName(), "speakers.monitor");
    int loudBefore = 0;
    {
        std::lock_guard lock(w.mutex);
        loudBefore = w.loudBlocks;
    }
    pulse->playTone(440, 0.5, false);
    EXPECT_TRUE(w.waitFor([&] { return w.loudBlocks > loudBefore; }));
    tap.stop();
    EXPECT_TRUE(tap.monitorName().empty());
}

TEST(SystemAudioTapTest, StartWhileRunningAndStopTwiceAreHarmless) {
    test::PulseServer pulse;
    SystemAudioTap tap;
    Watcher w, other;
    tap.start(w.handler());
    tap.start(other.handler());  // ignored: the first handler keeps receiving
    ASSERT_TRUE(w.waitFor([&] { return w.blocks >= 3; }));
    EXPECT_EQ(other.blocks, 0);
    tap.stop();
    tap.stop();
    EXPECT_FALSE(tap.isRunning());
    // And it can start again.
    Watcher again;
    tap.start(again.handler());
    EXPECT_TRUE(again.waitFor([&] { return again.blocks >= 3; }));
}

// A tone played by this very process through an ordinary libpulse playback stream, as
// Vell's own preview player plays.
class OwnPlayback {
public:
    OwnPlayback(double hz, float amplitude) {
        pa_sample_spec spec{PA_SAMPLE_FLOAT32NE, 48000, 1};
        int error = 0;
        simple_ = pa_simple_new(nullptr, "Vell test", PA_STREAM_PLAYBACK, nullptr, "preview", &spec, nullptr, nullptr, &error);
        if (!simple_) return;
        thread_ = std::thread([this, hz, amplitude] {
            std::vector<float> block(960);
            double phase = 0;
            while (!stop_) {
                for (auto& x : block) {
                    x = amplitude * float(std::sin(phase));
                    phase += 2 * std::numbers::pi * hz / 48000;
                }
                int error = 0;
                if (pa_simple_write(simple_, block.data(), block.size() * sizeof(float), &error) < 0) break;
            }
        });
    }
    ~OwnPlayback() { stop(); }
    bool playing() const { return simple_ != nullptr; }
    void stop() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        if (simple_) pa_simple_free(simple_);
        simple_ = nullptr;
    }

private:
    pa_simple* simple_ = nullptr;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

TEST(SystemAudioTapTest, ThisProgramsOwnPlaybackStaysOutWhileOtherProgramsAreRecorded) {
    test::PulseServer pulse;
    SystemAudioTap tap;
    Watcher w;
    tap.start(w.handler());
    pulse.playTone(1000, 30, false, 0.3);  // two other programs
    pulse.playTone(1500, 30, false, 0.3);
    OwnPlayback own(440, 0.3f);
    ASSERT_TRUE(own.playing());
    ASSERT_TRUE(test::eventually([&] { return tap.excludingOwnPlayback(); }));
    auto listen = [&](double seconds) {
        {
            std::lock_guard lock(w.mutex);
            w.loud.clear();
        }
        EXPECT_TRUE(w.waitFor([&] { return w.rate > 0 && w.loud.size() >= std::size_t(w.rate * seconds); }, 8000ms));
        std::lock_guard lock(w.mutex);
        return w.loud;
    };
    // Skip what was recorded while the streams were being opened.
    listen(0.3);
    auto heard = listen(1.0);
    ASSERT_FALSE(heard.empty());
    EXPECT_GT(test::toneEnergy(heard, w.rate, 1000), 0.005) << "the other programs' sound is missing";
    EXPECT_GT(test::toneEnergy(heard, w.rate, 1500), 0.005) << "the other programs' sound is missing";
    EXPECT_LT(test::toneEnergy(heard, w.rate, 440), 1e-5) << "our own playback was recorded";
    const double separately = test::toneEnergy(heard, w.rate, 1000);

    // Once we stop playing, the whole output is recorded again.
    own.stop();
    ASSERT_TRUE(test::eventually([&] { return !tap.excludingOwnPlayback(); }));
    EXPECT_EQ(tap.monitorName(), "speakers.monitor");
    listen(0.3);
    heard = listen(1.0);
    EXPECT_GT(test::toneEnergy(heard, w.rate, 1000), 0.005);
    EXPECT_GT(test::toneEnergy(heard, w.rate, 1500), 0.005);
    // Summed from separate recordings, the others sound as loud as in the whole output:
    // no gaps, nothing doubled.
    EXPECT_NEAR(separately / test::toneEnergy(heard, w.rate, 1000), 1.0, 0.15);
    tap.stop();
}

}  // namespace
}  // namespace vell::audio
