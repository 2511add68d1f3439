// The chunk writer on FFmpeg's encoder: chunks are decoded back and judged by what a player
// hears; the clock is a manual one, so 30-second chunks take no real time.
#include <gtest/gtest.h>

#include <fstream>

#include "base/manual_executor.h"
#include "base/runtime.h"
#include "insurance/insurance_chunk_writer.h"
#include "tests/audio/aac_test_decoder.h"
#include "tests/support/temp_home.h"

namespace vell::insurance {
namespace {

namespace fs = std::filesystem;

class ChunkWriter : public ::testing::Test {
protected:
    void SetUp() override { runtime::install(&exec, &clock); }
    void TearDown() override { runtime::install(nullptr, nullptr); }

    // Feeds `seconds` of audio in 20 ms capture buffers, moving the clock along.
    void feed(InsuranceChunkWriter& writer, double rate, int channels, double seconds, float amplitude) {
        const auto frames = std::size_t(rate / 50);
        for (double t = 0; t < seconds - 1e-9; t += 0.02) {
            writer.append(amplitude == 0 ? test::constantBlock(rate, channels, frames, 0.0f)
                                         : test::sineBlock(rate, channels, frames, 440, amplitude, std::size_t(t * rate)));
            clock.advance(0.02);
        }
    }

    ManualClock clock;
    ManualExecutor exec{clock};
    test::TempHome home;
    InsuranceBufferStore store{home.dataHome() / "Vell" / "Insurance"};
};

TEST_F(ChunkWriter, ThirtySecondsOfStereoCaptureBecomeOneMonoChunkThatPlaysBack) {
    InsuranceChunkWriter writer(store);
    int sealedCalls = 0;
    writer.onChunkSealed = [&] { ++sealedCalls; };
    const WallTime began = clock.now();
    feed(writer, 48000, 2, 31, 0.5f);
    exec.runPending();
    EXPECT_EQ(sealedCalls, 1) << "sealed on the main executor once 30 s were written";
    auto list = store.chunks();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_FALSE(list[0].isOpen);
    EXPECT_EQ(list[0].start, began);
    EXPECT_NEAR(std::chrono::duration<double>(list[0].end - list[0].start).count(), 30, 0.05);
    EXPECT_EQ(list[0].activityPercent, 100);
    EXPECT_TRUE(list[1].isOpen);
    EXPECT_EQ(writer.activeURL(), list[1].url);
    EXPECT_EQ(writer.lastBufferAt(), clock.now() - std::chrono::milliseconds(20));
    EXPECT_EQ(writer.encoderIndex(), 0);

    auto decoded = test::decodeAudioFile(list[0].url);
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_EQ(decoded.container, "aac");
    EXPECT_EQ(decoded.channels, 1);
    EXPECT_EQ(decoded.sampleRate, 16000);
    EXPECT_NEAR(decoded.seconds(), 30, 0.15);
    EXPECT_GT(test::toneEnergy(decoded.samples[0], 16000, 440, 16000, 32000),
              100 * test::toneEnergy(decoded.samples[0], 16000, 1000, 16000, 32000));

    writer.seal();
    writer.seal();  // nothing open: nothing to do
    exec.runPending();
    EXPECT_EQ(sealedCalls, 2);
    list = store.chunks();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_FALSE(list[1].isOpen);
    EXPECT_FALSE(writer.activeURL());
    // 1 s, plus what the encoder still held when the first chunk closed (under two frames).
    EXPECT_NEAR(test::decodeAudioFile(list[1].url).seconds(), 1.1, 0.1);
}

TEST_F(ChunkWriter, ActivityIsTheRoundedShareOfBuffersAtTheLevelThreshold) {
    InsuranceChunkWriter writer(store);
    // RMS of a sine is amplitude / sqrt(2): 0.0106 counts, 0.0092 does not.
    feed(writer, 16000, 1, 0.06, 0.0150f);
    feed(writer, 16000, 1, 0.10, 0.0130f);
    writer.seal();
    feed(writer, 16000, 1, 0.2, 0.0f);
    writer.seal();
    writer.seal();
    auto list = store.chunks();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].activityPercent, 38) << "3 of 8";
    EXPECT_EQ(list[1].activityPercent, 0);
    EXPECT_EQ(activityPercent(0, 0), 0);

    const auto before = writer.lastBufferAt();
    clock.advance(5);
    writer.append(test::constantBlock(16000, 1, 0, 0.0f));
    EXPECT_EQ(writer.lastBufferAt(), before) << "an empty buffer changes nothing";
    EXPECT_FALSE(writer.activeURL());
}

// Wraps the real factory, failing the rows the test names; a failing row leaves a partly
// created file behind, as a writer that died after creating it would.
struct FlakyFactory {
    std::set<int> failingRates;  // sample rate * 10 + (has bit rate)
    std::vector<int> tried;
    static int key(const media::AacSettings& s) { return s.sampleRate * 10 + (s.bitRate ? 1 : 0); }
    media::AacWriterFactory make() {
        return [this](const fs::path& path, const media::AacSettings& s) -> Expected<std::unique_ptr<media::AacWriter>, std::string> {
            tried.push_back(key(s));
            if (failingRates.count(key(s))) {
                std::ofstream(path) << "half";
                return unexpected(std::string("injected"));
            }
            return media::defaultAacWriterFactory()(path, s);
        };
    }
};

TEST_F(ChunkWriter, AFailingEncoderRowFallsToTheNextAndTheRememberedRowIsRetriedAloneUntilItFails) {
    FlakyFactory factory;
    factory.failingRates = {160001};
    InsuranceChunkWriter writer(store, factory.make());
    feed(writer, 16000, 1, 0.04, 0.3f);
    EXPECT_EQ(factory.tried, (std::vector<int>{160001, 160000}));
    EXPECT_EQ(writer.encoderIndex(), 1);
    writer.seal();
    feed(writer, 16000, 1, 0.04, 0.3f);
    EXPECT_EQ(factory.tried.size(), 3u);
    EXPECT_EQ(factory.tried.back(), 160000) << "the remembered row alone";
    writer.seal();

    factory.failingRates.insert(160000);
    factory.tried.clear();
    feed(writer, 16000, 1, 0.02, 0.3f);  // the remembered row fails: the buffer is dropped
    EXPECT_EQ(factory.tried, (std::vector<int>{160000}));
    EXPECT_FALSE(writer.encoderIndex());
    EXPECT_TRUE(writer.lastBufferAt()) << "a dropped buffer still shows a live microphone";
    feed(writer, 16000, 1, 0.5, 0.3f);  // all rows again
    EXPECT_EQ(factory.tried, (std::vector<int>{160000, 160001, 160000, 220500}));
    EXPECT_EQ(writer.encoderIndex(), 2);
    writer.seal();

    auto list = store.chunks();
    ASSERT_EQ(list.size(), 3u) << "no half-created file of a failed row is left";
    EXPECT_EQ(test::decodeAudioFile(list[2].url).sampleRate, 22050);
}

// Fails every write once the disk is full; what was encoded before reached the disk.
class FailingWriter final : public media::AacWriter {
public:
    FailingWriter(std::unique_ptr<media::AacWriter> inner, const bool& full) : inner_(std::move(inner)), full_(full) {}
    Expected<Unit, std::string> write(const float* const* p, int c, std::size_t f, int r) override {
        if (full_) {
            (void)inner_->syncToDisk();
            return unexpected(std::string("No space left on device"));
        }
        return inner_->write(p, c, f, r);
    }
    Expected<Unit, std::string> syncToDisk() override { return inner_->syncToDisk(); }
    Expected<Unit, std::string> finish() override { return inner_->finish(); }
    const media::AacSettings& settings() const override { return inner_->settings(); }
    std::int64_t framesWritten() const override { return inner_->framesWritten(); }
    const fs::path& path() const override { return inner_->path(); }

private:
    std::unique_ptr<media::AacWriter> inner_;
    const bool& full_;
};

TEST_F(ChunkWriter, AFullDiskKeepsWhatWasWrittenSaysSoAndResumesWhenSpaceReturns) {
    bool full = false;
    int opens = 0;
    InsuranceChunkWriter writer(store, [&](const fs::path& path, const media::AacSettings& s)
                                           -> Expected<std::unique_ptr<media::AacWriter>, std::string> {
        ++opens;
        if (full) return unexpected(std::string("No space left on device"));
        auto inner = media::defaultAacWriterFactory()(path, s);
        if (!inner) return unexpected(inner.error());
        return std::unique_ptr<media::AacWriter>(std::make_unique<FailingWriter>(std::move(*inner), full));
    });
    feed(writer, 16000, 1, 2.0, 0.3f);
    full = true;
    feed(writer, 16000, 1, 0.02, 0.3f);
    EXPECT_FALSE(writer.activeURL());
    ASSERT_TRUE(writer.writeFailure());
    EXPECT_NE(writer.writeFailure()->find("No space left on device"), std::string::npos);
    auto chunks = store.chunks();
    ASSERT_EQ(chunks.size(), 1u) << "what was written is kept as a chunk";
    auto decoded = test::decodeAudioFile(chunks[0].url);
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_GT(decoded.seconds(), 1.5);

    feed(writer, 16000, 1, 1.0, 0.3f);  // still full: a new chunk is not tried for every buffer
    EXPECT_LE(opens, 2);
    full = false;
    feed(writer, 16000, 1, 5.0, 0.3f);
    EXPECT_TRUE(writer.activeURL()) << "resumed once there is space";
    EXPECT_FALSE(writer.writeFailure());
    EXPECT_EQ(writer.encoderIndex(), 0) << "the row is kept";
}

}  // namespace
}  // namespace vell::insurance
