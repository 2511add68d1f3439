// What a player hears where 30-second chunks meet: the buffer's chunks are joined byte by
// byte (as an export does) and decoded back with FFmpeg, and a continuous tone must come
// out continuous. Each chunk as its own AAC stream would start with the encoder's priming
// and end with a padded frame, an audible hole at every join.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "base/manual_executor.h"
#include "base/runtime.h"
#include "insurance/insurance_chunk_writer.h"
#include "tests/audio/aac_test_decoder.h"
#include "tests/support/temp_home.h"

namespace vell::insurance {
namespace {

constexpr double kRate = 16000;
constexpr double kHz = 500;        // 32 samples a period: whole periods in every window below
constexpr std::size_t kWindow = 512;
constexpr float kAmplitude = 0.5f;
constexpr std::size_t kAacFrame = 1024;

struct JoinFigures {
    std::size_t longestQuietRun = 0;   // samples in a row whose window is below half the tone's level
    long extraSamples = 0;             // decoded length beyond what was fed
    double worstNoiseRatio = 0;        // the largest share of a window's power that is not the tone
};

JoinFigures measure(const std::vector<float>& x, std::size_t fed) {
    JoinFigures f;
    f.extraSamples = long(x.size()) - long(fed);
    const double level = kAmplitude / std::sqrt(2.0);
    std::size_t run = 0;
    // The first and last frames are the one stream's own start and end.
    for (std::size_t at = 2 * kAacFrame; at + kWindow + 2 * kAacFrame <= x.size(); at += kWindow / 2) {
        const double rms = test::rmsOf(x, at, kWindow);
        if (rms < level / 2) {
            run += kWindow / 2;
            f.longestQuietRun = std::max(f.longestQuietRun, run + kWindow / 2);
        } else {
            run = 0;
        }
        const double power = rms * rms;
        const double tone = 2 * test::toneEnergy(x, kRate, kHz, at, kWindow);
        if (power > 0) f.worstNoiseRatio = std::max(f.worstNoiseRatio, std::max(0.0, power - tone) / power);
    }
    return f;
}

class ChunkJoins : public ::testing::Test {
protected:
    void SetUp() override { runtime::install(&exec, &clock); }
    void TearDown() override { runtime::install(nullptr, nullptr); }

    // 20 ms capture buffers of one continuous tone; chunks roll over by frame count.
    std::size_t feed(InsuranceChunkWriter& writer, double seconds) {
        const auto frames = std::size_t(kRate / 50);
        for (double t = 0; t < seconds - 1e-9; t += 0.02) {
            writer.append(test::sineBlock(kRate, 1, frames, kHz, kAmplitude, fed_));
            fed_ += frames;
            clock.advance(0.02);
        }
        return fed_;
    }

    ManualClock clock;
    ManualExecutor exec{clock};
    test::TempHome home;
    InsuranceBufferStore store{home.dataHome() / "Vell" / "Insurance"};
    std::size_t fed_ = 0;
};

TEST_F(ChunkJoins, AToneThroughFiveJoinsDecodesWithoutAHoleOrAClick) {
    InsuranceChunkWriter writer(store);
    const std::size_t fed = feed(writer, 5 * kChunkSeconds + 10);
    writer.seal();
    const auto chunks = store.chunks();
    ASSERT_EQ(chunks.size(), 6u);
    const auto joined = home.dataHome() / "joined.aac";
    ASSERT_TRUE(store.concatenate(chunks, joined));
    const auto decoded = test::decodeAudioFile(joined);
    ASSERT_TRUE(decoded.ok) << decoded.error;
    ASSERT_EQ(decoded.sampleRate, int(kRate));

    const auto f = measure(decoded.samples[0], fed);
    std::printf("joins: longest quiet run %zu samples (%.1f ms), %ld samples beyond the input (%.1f ms), "
                "worst non-tone share of a window %.4f\n",
                f.longestQuietRun, 1000.0 * double(f.longestQuietRun) / kRate, f.extraSamples,
                1000.0 * double(f.extraSamples) / kRate, f.worstNoiseRatio);
    EXPECT_EQ(f.longestQuietRun, 0u) << "no window of the joined tone falls silent";
    EXPECT_LE(f.extraSamples, long(2 * kAacFrame)) << "one stream's priming and last padding, not one per chunk";
    EXPECT_LT(f.worstNoiseRatio, 0.05) << "no click where chunks meet";

    // Each chunk on its own still plays: it is a whole ADTS stream.
    for (const auto& c : chunks) {
        const auto alone = test::decodeAudioFile(c.url);
        ASSERT_TRUE(alone.ok) << c.url;
        EXPECT_GT(alone.seconds(), 9.5);
    }
}

}  // namespace
}  // namespace vell::insurance
