// The realtime mixer driven tick by tick with synthetic blocks and a virtual clock; the
// file it writes is real and decoded back.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "audio/errors.h"
#include "audio/realtime_mixer.h"
#include "tests/audio/aac_test_decoder.h"
#include "tests/support/temp_home.h"

namespace vell::audio {
namespace {

using test::constantBlock;
using test::decodeAudioFile;
using test::sineBlock;

constexpr double kRate = 44100;

// Collects what the mixer hands on (callbacks run on its queue).
struct Collected {
    std::mutex lock;
    std::vector<PcmBufferPtr> mixed;
    std::vector<PcmBufferPtr> system;
    std::vector<std::string> errors;

    std::size_t mixedFrames() {
        std::lock_guard g(lock);
        std::size_t n = 0;
        for (auto& b : mixed) n += b->frames();
        return n;
    }
    std::size_t mixedCount() {
        std::lock_guard g(lock);
        return mixed.size();
    }
    PcmBufferPtr lastMixed() {
        std::lock_guard g(lock);
        return mixed.empty() ? nullptr : mixed.back();
    }
};

class MixerTest : public ::testing::Test {
protected:
    void SetUp() override { path = home.tmp() / "vell_rec_TEST.aac"; }

    std::unique_ptr<RealtimeMixer> make(media::AacWriterFactory factory = {}) {
        RealtimeMixer::Options options;
        options.clock = &clock;
        options.writerFactory = std::move(factory);
        options.automaticTicks = false;
        options.keepToClock = keepToClock;
        options.dropped = &dropped;
        auto mixer = std::make_unique<RealtimeMixer>(path, kRate, std::move(options));
        mixer->onMixedBuffer = [this](PcmBufferPtr b) {
            std::lock_guard g(out.lock);
            out.mixed.push_back(std::move(b));
        };
        mixer->onSystemBuffer = [this](PcmBufferPtr b) {
            std::lock_guard g(out.lock);
            out.system.push_back(std::move(b));
        };
        mixer->onWriteError = [this](const std::string& e) {
            std::lock_guard g(out.lock);
            out.errors.push_back(e);
        };
        return mixer;
    }

    static std::size_t frames(double seconds) { return std::size_t(seconds * kRate); }

    test::TempHome home;
    ManualClock clock;
    std::filesystem::path path;
    Collected out;
    std::optional<bool> keepToClock;
    DroppedAudio dropped;
};

TEST_F(MixerTest, MicrophoneAloneIsWrittenEveryTickAndDecodesBack) {
    auto mixer = make();
    mixer->open();
    EXPECT_EQ(mixer->outputFile(), path);
    std::size_t at = 0;
    for (int tick = 0; tick < 20; ++tick) {
        mixer->appendMicrophone(sineBlock(48000, 1, 4800, 440, 0.5f, at));
        at += 4800;
        clock.advance(0.1);
        mixer->tick();
        EXPECT_EQ(out.mixedCount(), std::size_t(tick + 1)) << "system disabled: every tick writes what the mic has";
    }
    mixer->finish();
    EXPECT_NEAR(double(out.mixedFrames()), 2.0 * kRate, 40);

    auto decoded = decodeAudioFile(path);
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_EQ(decoded.container, "aac");
    EXPECT_EQ(decoded.sampleRate, 44100);
    EXPECT_EQ(decoded.channels, 2);
    EXPECT_NEAR(decoded.seconds(), 2.0, 0.06);
    EXPECT_NEAR(test::rmsOf(decoded.samples[0], 4410, 44100), 0.5 / std::sqrt(2.0), 0.03);
}

TEST_F(MixerTest, MonoAt48kBecomesIdenticalLeftAndRightAt44k) {
    auto mixer = make();
    mixer->open();
    mixer->appendMicrophone(sineBlock(48000, 1, 48000, 300, 0.8f));
    mixer->tick();
    auto mixed = out.lastMixed();
    ASSERT_TRUE(mixed);
    EXPECT_EQ(mixed->sampleRate, 44100);
    ASSERT_EQ(mixed->channelCount(), 2);
    EXPECT_NEAR(double(mixed->frames()), 44100, 40);
    EXPECT_EQ(mixed->channels[0], mixed->channels[1]);
    EXPECT_NEAR(test::rmsOf(mixed->channels[0], 1000), 0.8 / std::sqrt(2.0), 0.01);
}

TEST_F(MixerTest, GainsSumAndClampAtFullScale) {
    auto mixer = make();
    mixer->open();
    mixer->setSystemEnabled(true);
    auto mixOne = [&](float mic, float system) {
        mixer->appendMicrophone(constantBlock(kRate, 2, 4410, mic));
        mixer->appendSystem(constantBlock(kRate, 2, 4410, system));
        mixer->tick();
        auto mixed = out.lastMixed();
        EXPECT_EQ(mixed->frames(), 4410u);
        return std::pair{mixed->channels[0][100], mixed->channels[1][4000]};
    };
    EXPECT_EQ(mixOne(1.0f, 1.0f), std::pair(1.0f, 1.0f));
    EXPECT_EQ(mixOne(-1.0f, -1.0f), std::pair(-1.0f, -1.0f));
    auto [l, r] = mixOne(0.5f, 0.5f);
    EXPECT_FLOAT_EQ(l, 0.5f + 0.85f * 0.5f);
    EXPECT_FLOAT_EQ(r, 0.5f + 0.85f * 0.5f);

    // The digital-silence tracker sees system audio before its gain.
    std::lock_guard g(out.lock);
    ASSERT_EQ(out.system.size(), 3u);
    EXPECT_EQ(out.system[2]->channels[0][0], 0.5f);
}

TEST_F(MixerTest, NormalTickWritesWhatBothStreamsHave) {
    auto mixer = make();
    mixer->open();
    mixer->setSystemEnabled(true);
    mixer->appendMicrophone(constantBlock(kRate, 1, frames(0.08), 0.1f));
    mixer->appendSystem(constantBlock(48000, 2, 4800, 0.1f));  // 0.1 s, resampled
    mixer->tick();
    EXPECT_EQ(out.mixedFrames(), frames(0.08));
    // Less than 50 ms left on the system side, both recently heard: wait.
    clock.advance(0.1);
    mixer->tick();
    EXPECT_EQ(out.mixedCount(), 1u);
    // The remainder comes out at finish, padded with silence on the mic side.
    mixer->finish();
    EXPECT_NEAR(double(out.mixedFrames()), 0.1 * kRate, 40);
    auto last = out.lastMixed();
    EXPECT_NEAR(last->channels[0].back(), 0.85f * 0.1f, 1e-3);
}

TEST_F(MixerTest, SilentButEnabledSystemStreamHoldsTheMicForHalfASecond) {
    auto mixer = make();
    mixer->open();
    mixer->setSystemEnabled(true);
    mixer->appendSystem(constantBlock(kRate, 2, 10, 0.0f));  // the tap started, then went quiet
    mixer->appendMicrophone(constantBlock(kRate, 1, frames(0.3), 0.2f));
    mixer->tick();
    clock.advance(0.5);
    mixer->tick();
    EXPECT_EQ(out.mixedCount(), 0u) << "0.5 s without system audio is not yet a stall";
    clock.advance(0.01);
    mixer->tick();
    ASSERT_EQ(out.mixedCount(), 1u);
    EXPECT_EQ(out.mixedFrames(), frames(0.3));

    // Less than 50 ms waiting: still nothing, even with the system stream stalled.
    mixer->appendMicrophone(constantBlock(kRate, 1, frames(0.04), 0.2f));
    clock.advance(0.1);
    mixer->tick();
    EXPECT_EQ(out.mixedCount(), 1u);
}

TEST_F(MixerTest, StalledMicrophoneLetsTheSystemStreamThrough) {
    auto mixer = make();
    mixer->open();
    mixer->setSystemEnabled(true);
    mixer->appendMicrophone(constantBlock(kRate, 1, 10, 0.0f));
    mixer->drain();
    clock.advance(0.2);
    mixer->appendSystem(constantBlock(kRate, 2, frames(0.2), 0.4f));
    mixer->tick();
    EXPECT_EQ(out.mixedCount(), 0u);
    clock.advance(0.31);
    mixer->tick();
    ASSERT_EQ(out.mixedCount(), 1u);
    EXPECT_EQ(out.mixedFrames(), frames(0.2));
}

TEST_F(MixerTest, DriftBeyondOneSecondDrainsBothStreams) {
    auto mixer = make();
    mixer->open();
    mixer->setSystemEnabled(true);
    mixer->appendSystem(constantBlock(kRate, 2, frames(0.02), 0.5f));
    mixer->appendMicrophone(constantBlock(kRate, 1, frames(1.0) + frames(0.02), 0.25f));
    mixer->tick();
    EXPECT_EQ(out.mixedCount(), 0u) << "exactly one second apart is not yet drift";
    mixer->appendMicrophone(constantBlock(kRate, 1, 1, 0.25f));
    mixer->tick();
    ASSERT_EQ(out.mixedCount(), 1u);
    auto mixed = out.lastMixed();
    EXPECT_EQ(mixed->frames(), frames(1.0) + frames(0.02) + 1);
    EXPECT_FLOAT_EQ(mixed->channels[1][0], 0.25f + 0.85f * 0.5f);
    EXPECT_FLOAT_EQ(mixed->channels[1][frames(0.02)], 0.25f) << "the shorter stream is padded with silence";
    // Nothing is left behind on either side.
    mixer->finish();
    EXPECT_EQ(out.mixedCount(), 1u);
}

TEST_F(MixerTest, SystemBlocksAreIgnoredWhileDisabled) {
    auto mixer = make();
    mixer->open();
    mixer->appendSystem(constantBlock(kRate, 2, frames(0.2), 0.9f));
    mixer->appendMicrophone(constantBlock(kRate, 1, frames(0.1), 0.1f));
    mixer->tick();
    auto mixed = out.lastMixed();
    ASSERT_TRUE(mixed);
    EXPECT_EQ(mixed->frames(), frames(0.1));
    EXPECT_FLOAT_EQ(mixed->channels[0][0], 0.1f);
    std::lock_guard g(out.lock);
    EXPECT_TRUE(out.system.empty());
}

TEST_F(MixerTest, BlocksFromBothCaptureThreadsAreMixedOnceEachWhileTicksRun) {
    auto mixer = make();
    mixer->open();
    mixer->setSystemEnabled(true);
    // Under a second per stream, so that neither the drift nor the stall rule applies and
    // every written sample must be exactly one microphone sample plus one system sample.
    constexpr int kBlocks = 40;
    constexpr std::size_t kBlockFrames = 441;
    // Both streams have spoken once, so neither counts as stalled when the other runs ahead.
    mixer->appendMicrophone(constantBlock(kRate, 1, kBlockFrames, 0.25f));
    mixer->appendSystem(constantBlock(kRate, 2, kBlockFrames, 0.5f));
    std::atomic<bool> appending{true};
    std::thread mic([&] {
        for (int i = 1; i < kBlocks; ++i) mixer->appendMicrophone(constantBlock(kRate, 1, kBlockFrames, 0.25f));
    });
    std::thread system([&] {
        for (int i = 1; i < kBlocks; ++i) mixer->appendSystem(constantBlock(kRate, 2, kBlockFrames, 0.5f));
    });
    std::thread ticker([&] {
        while (appending) mixer->tick();
    });
    mic.join();
    system.join();
    appending = false;
    ticker.join();
    mixer->finish();

    EXPECT_EQ(out.mixedFrames(), kBlocks * kBlockFrames);
    std::lock_guard g(out.lock);
    EXPECT_EQ(out.system.size(), std::size_t(kBlocks));
    for (const auto& block : out.mixed) {
        for (const auto& channel : block->channels) {
            for (float v : channel) ASSERT_FLOAT_EQ(v, 0.25f + 0.85f * 0.5f);
        }
    }
}

// Ten seconds recorded against the virtual clock, 0.1 s per tick, a 1 kHz voice in one stream
// from 6 s to 7 s; that stream lets a backlog go at once (a stale 300 Hz tone) or stalls and
// catches up. The file must be as long as the recording and the voice where it was heard.
struct BurstCase {
    const char* name;
    bool systemBursts;      // else the microphone
    bool systemEnabled;
    double at;              // when the burst arrives (seconds since open)
    double backlog;         // seconds of stale audio let go with the block due then
    double stalledFor;      // instead: seconds without blocks before `at`, then all of them at once
    double expectDropped;   // seconds
    // Then: seconds without blocks after the burst, the stream resuming at the clock. A source
    // that renders ahead (PulseAudio's sine source hands out its whole latency at once) does this.
    double quietAfter = 0;
};

TEST_F(MixerTest, StreamsDeliveringFasterThanRealTimeKeepTheFileToTheClock) {
    const BurstCase cases[] = {
        {"microphone backlog at open", false, true, 0.1, 30, 0, 30},
        {"microphone backlog mid-recording", false, true, 3.0, 5, 0, 5},
        {"system backlog at open", true, true, 0.1, 30, 0, 30},
        {"system backlog mid-recording", true, true, 3.0, 5, 0, 5},
        {"microphone alone backlog mid-recording", false, false, 3.0, 5, 0, 5},
        {"microphone alone stalls and catches up", false, false, 5.0, 0, 2.0, 0},
        {"microphone renders two seconds ahead, then is quiet", false, true, 0.1, 1.9, 0, 1.9, 1.9},
        {"microphone alone renders ahead, then is quiet", false, false, 0.1, 1.9, 0, 1.9, 1.9},
    };
    keepToClock = true;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        path = home.tmp() / (std::string("burst_") + std::to_string(&c - cases) + ".aac");
        dropped.reset();
        auto mixer = make();
        mixer->open();
        mixer->setSystemEnabled(c.systemEnabled);
        const double micRate = 48000;
        // One stream's block for [from, to): the voice where it belongs, silence elsewhere.
        auto block = [](double rate, int channels, double from, double to, bool voiced, double stale) {
            const auto staleFrames = std::size_t(stale * rate);
            const auto begin = std::size_t(std::lround(from * rate)), end = std::size_t(std::lround(to * rate));
            auto b = PcmBuffer::make(rate, channels, staleFrames + end - begin);
            for (auto& plane : b->channels) {
                for (std::size_t i = 0; i < staleFrames; ++i) plane[i] = 0.5f * float(std::sin(2 * M_PI * 300 * double(i) / rate));
                for (std::size_t i = begin; i < end; ++i) {
                    const double t = double(i) / rate;
                    if (voiced && t >= 6.0 && t < 7.0) plane[staleFrames + i - begin] = 0.5f * float(std::sin(2 * M_PI * 1000 * t));
                }
            }
            return b;
        };
        double deliveredUntil = 0;
        for (int step = 1; step <= 100; ++step) {
            const double now = step * 0.1;
            clock.advance(0.1);
            const bool burstNow = std::abs(now - c.at) < 1e-6;
            const bool quiet = now > c.at + 1e-6 && now < c.at + c.quietAfter + 1e-6;
            const bool stalled = quiet || (c.stalledFor > 0 && now > c.at - c.stalledFor + 1e-6 && now < c.at - 1e-6);
            if (c.quietAfter > 0 && std::abs(now - (c.at + c.quietAfter + 0.1)) < 1e-6) {
                deliveredUntil = now - 0.1;  // resumes at the clock: what it rendered ahead covered the gap
            }
            if (c.quietAfter > 0 && c.systemEnabled && std::abs(now - (c.at + c.quietAfter + 0.1)) < 1e-6) {
                std::size_t written = 0;
                for (const auto& b : out.mixed) written += b->frames();
                EXPECT_NEAR(double(written) / kRate, now - 0.1, 0.7) << "the file kept growing while the source was quiet";
            }
            const double from = deliveredUntil;
            if (!stalled) deliveredUntil = now;
            const double stale = burstNow ? c.backlog : 0;
            if (c.systemBursts) {
                mixer->appendMicrophone(block(micRate, 1, now - 0.1, now, false, 0));
                if (!stalled) mixer->appendSystem(block(kRate, 2, from, now, true, stale));
            } else {
                if (!stalled) mixer->appendMicrophone(block(micRate, 1, from, now, true, stale));
                mixer->appendSystem(block(kRate, 2, now - 0.1, now, false, 0));
            }
            mixer->tick();
        }
        mixer->finish();

        auto decoded = decodeAudioFile(path);
        ASSERT_TRUE(decoded.ok) << decoded.error;
        EXPECT_NEAR(decoded.seconds(), 10.0, 0.2);
        const auto& left = decoded.samples[0];
        EXPECT_GT(test::rmsOf(left, frames(6.1), frames(0.8)), 0.2) << "the voice is where it was heard";
        EXPECT_LT(test::rmsOf(left, 0, frames(5.9)), 0.02) << "nothing stale, the voice not early";
        EXPECT_LT(test::rmsOf(left, frames(7.1)), 0.02) << "the voice not late";
        const double micDropped = dropped.microphoneSeconds, systemDropped = dropped.systemSeconds;
        EXPECT_NEAR(c.systemBursts ? systemDropped : micDropped, c.expectDropped, 0.15);
        EXPECT_EQ(c.systemBursts ? micDropped : systemDropped, 0.0);
        out.mixed.clear();
    }
}

// A writer whose disk is full: every write fails.
class FailingWriter final : public media::AacWriter {
public:
    explicit FailingWriter(media::AacSettings s) : settings_(s) {}
    Expected<Unit, std::string> write(const float* const*, int, std::size_t, int) override {
        return unexpected(std::string("No space left on device"));
    }
    Expected<Unit, std::string> syncToDisk() override { return Unit{}; }
    Expected<Unit, std::string> finish() override { return Unit{}; }
    const media::AacSettings& settings() const override { return settings_; }
    std::int64_t framesWritten() const override { return 0; }
    const std::filesystem::path& path() const override { return path_; }

private:
    media::AacSettings settings_;
    std::filesystem::path path_;
};

TEST_F(MixerTest, OnlyTheFirstWriteErrorIsReportedAndMixingGoesOn) {
    auto mixer = make([](const std::filesystem::path&, const media::AacSettings& s)
                          -> Expected<std::unique_ptr<media::AacWriter>, std::string> {
        return std::unique_ptr<media::AacWriter>(std::make_unique<FailingWriter>(s));
    });
    mixer->open();
    for (int i = 0; i < 3; ++i) {
        mixer->appendMicrophone(constantBlock(kRate, 1, 4410, 0.1f));
        mixer->tick();
    }
    mixer->finish();
    std::lock_guard g(out.lock);
    ASSERT_EQ(out.errors.size(), 1u);
    EXPECT_EQ(out.errors[0], "No space left on device");
    EXPECT_EQ(out.mixed.size(), 3u) << "speech detection and live segments keep their audio";
}

TEST_F(MixerTest, FallsBackToMpeg4WhenTheAdtsFileCannotBeCreated) {
    std::filesystem::create_directories(path);  // something that is not a file holds the name
    auto mixer = make();
    mixer->open();
    const auto m4a = std::filesystem::path(path).replace_extension("m4a");
    EXPECT_EQ(mixer->outputFile(), m4a);
    mixer->appendMicrophone(sineBlock(kRate, 2, frames(1.0), 440, 0.3f));
    mixer->tick();
    mixer->finish();
    auto decoded = decodeAudioFile(m4a);
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_NE(decoded.container.find("mp4"), std::string::npos);
    EXPECT_EQ(decoded.channels, 2);
    EXPECT_NEAR(decoded.seconds(), 1.0, 0.03);
}

TEST_F(MixerTest, OpenThrowsWhenNeitherFileCanBeCreated) {
    path = home.tmp() / "missing" / "vell_rec_X.aac";
    auto mixer = make();
    EXPECT_THROW(mixer->open(), MixerOpenError);
    mixer->appendMicrophone(constantBlock(kRate, 1, 4410, 0.1f));
    mixer->tick();
    mixer->finish();
    EXPECT_EQ(out.mixedCount(), 0u);
    EXPECT_FALSE(std::filesystem::exists(home.tmp() / "missing"));
}

TEST_F(MixerTest, TimerMixesOnItsOwnAndFinishedMixerWritesNothingMore) {
    RealtimeMixer::Options options;  // real clock, real 0.1 s timer
    auto mixer = std::make_unique<RealtimeMixer>(path, kRate, std::move(options));
    std::atomic<int> ticks{0};
    mixer->onMixedBuffer = [&](PcmBufferPtr) { ++ticks; };
    mixer->open();
    for (int i = 0; i < 5; ++i) {
        mixer->appendMicrophone(constantBlock(48000, 1, 4800, 0.1f));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    mixer->finish();
    EXPECT_GE(ticks.load(), 3);
    const int after = ticks.load();
    mixer->appendMicrophone(constantBlock(48000, 1, 4800, 0.1f));
    mixer->tick(true);
    EXPECT_EQ(ticks.load(), after);
    mixer.reset();  // late blocks after destruction are dropped, not crashed on
    auto decoded = decodeAudioFile(path);
    ASSERT_TRUE(decoded.ok);
    EXPECT_NEAR(decoded.seconds(), 0.5, 0.06);
}

}  // namespace
}  // namespace vell::audio
