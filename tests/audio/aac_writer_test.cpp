// The AAC writer against real FFmpeg: files are decoded back and judged by what they hold.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "platform/codec/aac_writer.h"
#include "tests/audio/aac_test_decoder.h"
#include "tests/support/temp_home.h"

namespace vell::media {
namespace {

using test::decodeAudioFile;
using test::sineBlock;
using test::toneEnergy;

// Writes `seconds` of a tone in 0.1 s blocks at the given input format.
void writeTone(AacWriter& writer, int rate, int channels, double seconds, double hz) {
    const std::size_t block = std::size_t(rate / 10);
    const std::size_t total = std::size_t(seconds * rate);
    for (std::size_t at = 0; at < total; at += block) {
        auto b = sineBlock(rate, channels, std::min(block, total - at), hz, 0.5f, at);
        std::vector<const float*> planes;
        for (auto& p : b->channels) planes.push_back(p.data());
        auto ok = writer.write(planes.data(), channels, b->frames(), rate);
        ASSERT_TRUE(ok) << ok.error();
    }
}

TEST(AacWriter, AdtsFromMonoAt48kDecodesAsStereoAt44k) {
    test::TempHome home;
    const auto path = home.tmp() / "tone.aac";
    auto writer = openAacWriter(path, {AacContainer::adts, 44100, 2, 128'000});
    ASSERT_TRUE(writer) << writer.error();
    writeTone(**writer, 48000, 1, 2.0, 440);
    EXPECT_NEAR(double((*writer)->framesWritten()), 88200, 64);  // a few frames wait in the filter
    ASSERT_TRUE((*writer)->finish());
    EXPECT_NEAR(double((*writer)->framesWritten()), 88200, 2);

    auto decoded = decodeAudioFile(path);
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_EQ(decoded.container, "aac");
    EXPECT_EQ(decoded.codec, "aac");
    EXPECT_EQ(decoded.sampleRate, 44100);
    EXPECT_EQ(decoded.channels, 2);
    // ADTS carries the encoder's 1024-frame priming and the padding of the last frame.
    EXPECT_NEAR(decoded.seconds(), 2.0, 0.06);
    const auto& left = decoded.samples[0];
    EXPECT_GT(toneEnergy(left, 44100, 440, 4410, 44100), 100 * toneEnergy(left, 44100, 1000, 4410, 44100));
    EXPECT_NEAR(test::rmsOf(left, 4410, 44100), 0.5 / std::sqrt(2.0), 0.03);
    // A mono source is the same on both sides, at full level (within coding noise).
    double worst = 0;
    for (std::size_t i = 0; i < decoded.frames(); ++i) worst = std::max(worst, double(std::abs(left[i] - decoded.samples[1][i])));
    EXPECT_LT(worst, 0.01);
}

TEST(AacWriter, Mpeg4NeedsFinishAndThenHoldsItsIndex) {
    test::TempHome home;
    const auto path = home.tmp() / "seg.m4a";
    auto writer = openAacWriter(path, {AacContainer::mpeg4, 44100, 2, 64'000});
    ASSERT_TRUE(writer) << writer.error();
    writeTone(**writer, 44100, 2, 1.5, 1000);
    ASSERT_TRUE((*writer)->syncToDisk());
    EXPECT_FALSE(decodeAudioFile(path).ok) << "an MPEG-4 file without its index should not open";
    ASSERT_TRUE((*writer)->finish());
    EXPECT_FALSE((*writer)->finish()) << "a finished writer stays closed";

    auto decoded = decodeAudioFile(path);
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_NE(decoded.container.find("mp4"), std::string::npos);
    EXPECT_EQ(decoded.sampleRate, 44100);
    EXPECT_EQ(decoded.channels, 2);
    EXPECT_NEAR(decoded.seconds(), 1.5, 0.03);  // MPEG-4 records the priming, so the length is exact-ish
}

TEST(AacWriter, MonoInsuranceRowsAndEncoderDefaultBitRate) {
    test::TempHome home;
    for (auto [rate, bitRate] : {std::pair<int, std::optional<int>>{16000, 32000}, {16000, std::nullopt}, {22050, std::nullopt}}) {
        const auto path = home.tmp() / ("chunk_" + std::to_string(rate) + ".aac");
        auto writer = openAacWriter(path, {AacContainer::adts, rate, 1, bitRate});
        ASSERT_TRUE(writer) << writer.error();
        EXPECT_EQ((*writer)->processingSampleRate(), rate);
        writeTone(**writer, 48000, 1, 1.0, 300);
        ASSERT_TRUE((*writer)->finish());
        auto decoded = decodeAudioFile(path);
        ASSERT_TRUE(decoded.ok);
        EXPECT_EQ(decoded.sampleRate, rate);
        EXPECT_EQ(decoded.channels, 1);
        EXPECT_NEAR(decoded.seconds(), 1.0, 0.15);
    }
}

TEST(AacWriter, FailsWithTheFileNameAndLeavesNothing) {
    test::TempHome home;
    const auto missingDir = home.tmp() / "no" / "such" / "dir" / "x.aac";
    auto writer = openAacWriter(missingDir, {});
    ASSERT_FALSE(writer);
    EXPECT_NE(writer.error().find(missingDir.string()), std::string::npos) << writer.error();

    auto bad = openAacWriter(home.tmp() / "bad.aac", {AacContainer::adts, 44100, 0, std::nullopt});
    ASSERT_FALSE(bad);
    EXPECT_FALSE(std::filesystem::exists(home.tmp() / "bad.aac"));
}

// A recording process killed without warning: everything synced before the kill decodes.
TEST(AacWriter, AdtsFileSurvivesSigkillMidWrite) {
    test::TempHome home;
    const auto path = home.tmp() / "killed.aac";
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(pipeFds[0]);
        auto writer = openAacWriter(path, {AacContainer::adts, 44100, 2, 128'000});
        if (!writer) _exit(2);
        for (std::size_t at = 0;; at += 4410) {
            auto b = sineBlock(44100, 2, 4410, 440, 0.5f, at);
            const float* planes[2] = {b->channels[0].data(), b->channels[1].data()};
            if (!(*writer)->write(planes, 2, 4410, 44100) || !(*writer)->syncToDisk()) _exit(3);
            const std::int64_t done = (*writer)->framesWritten();
            if (write(pipeFds[1], &done, sizeof done) != sizeof done) _exit(4);
            usleep(2000);
        }
    }
    close(pipeFds[1]);
    std::int64_t synced = 0;
    while (synced < 3 * 44100) {
        ASSERT_EQ(read(pipeFds[0], &synced, sizeof synced), ssize_t(sizeof synced));
    }
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    close(pipeFds[0]);
    ASSERT_TRUE(WIFSIGNALED(status));

    auto decoded = decodeAudioFile(path);
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_EQ(decoded.sampleRate, 44100);
    EXPECT_GE(decoded.seconds(), double(synced) / 44100 - 0.25);
    EXPECT_NEAR(test::rmsOf(decoded.samples[0], 44100, 44100), 0.5 / std::sqrt(2.0), 0.03);
}

}  // namespace
}  // namespace vell::media
