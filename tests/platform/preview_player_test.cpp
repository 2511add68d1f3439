// The recovery preview on a real sound server: an AAC file decoded by libavcodec and played
// into a private PulseAudio's sink, its position following the ear, pause keeping the place.
#include "platform/pulse/preview_player.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "platform/codec/adts_decoder.h"
#include "tests/support/pulse_server.h"
#include "tests/support/temp_home.h"

namespace vell::platform {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

class PreviewPlayerTest : public ::testing::Test {
protected:
    test::TempHome home;
    test::PulseServer pulse;

    fs::path tone(double seconds) {
        const auto file = home.root() / ("tone" + std::to_string(int(seconds * 10)) + ".aac");
        const auto made = test::runCommand("ffmpeg -loglevel error -y -f lavfi -i sine=frequency=440:sample_rate=16000:duration=" +
                                           std::to_string(seconds) + " -ac 1 -c:a aac -b:a 32k -f adts '" + file.string() + "'");
        EXPECT_EQ(made.status, 0);
        return file;
    }
    std::unique_ptr<insurance::PreviewPlayer> player() {
        return makePulsePreviewPlayer([](const fs::path& file) -> std::optional<PlaybackPcm> {
            auto decoded = media::decodeAdtsFile(file);
            if (!decoded) return std::nullopt;
            return PlaybackPcm{decoded->sampleRate, decoded->channels, std::move(decoded->samples)};
        });
    }
    bool streamOnServer() { return pulse.pactl("list sink-inputs").output.find("Recovered speech preview") != std::string::npos; }
};

TEST_F(PreviewPlayerTest, DecodesAdtsWithoutTheDemuxerAndRefusesWhatIsNotAudio) {
    auto decoded = media::decodeAdtsFile(tone(2.0));
    ASSERT_TRUE(decoded) << decoded.error();
    EXPECT_EQ(decoded->sampleRate, 16000);
    EXPECT_EQ(decoded->channels, 1);
    EXPECT_NEAR(decoded->seconds(), 2.0, 0.15);
    const auto junk = home.root() / "junk.aac";
    std::ofstream(junk) << std::string(3000, 'x');
    EXPECT_FALSE(media::decodeAdtsFile(junk));
    EXPECT_FALSE(media::decodeAdtsFile(home.root() / "missing.aac"));
    EXPECT_FALSE(player()->play(junk));
}

TEST_F(PreviewPlayerTest, PlaysToTheEndWithItsPositionAndPauseKeepsThePlace) {
    auto p = player();
    ASSERT_TRUE(p->play(tone(3.0)));
    EXPECT_TRUE(p->isPlaying());
    std::this_thread::sleep_for(300ms);
    EXPECT_TRUE(streamOnServer());
    std::this_thread::sleep_for(700ms);
    const double atOne = p->currentTime();
    EXPECT_GT(atOne, 0.5);
    EXPECT_LT(atOne, 1.3);

    p->pause();
    EXPECT_FALSE(p->isPlaying());
    std::this_thread::sleep_for(200ms);
    const double paused = p->currentTime();
    std::this_thread::sleep_for(800ms);
    EXPECT_DOUBLE_EQ(p->currentTime(), paused) << "a paused preview does not move on";
    EXPECT_LT(paused, 1.5);

    p->resume();
    EXPECT_TRUE(p->isPlaying());
    const auto resumed = std::chrono::steady_clock::now();
    while (p->isPlaying() && std::chrono::steady_clock::now() - resumed < 6s) std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(p->isPlaying());
    // What was left after the pause took its own time to play, and the end is the file's end.
    EXPECT_GT(std::chrono::steady_clock::now() - resumed, 1200ms);
    EXPECT_NEAR(p->currentTime(), 3.0, 0.2);

    // Stop ends at once and takes the stream off the server.
    ASSERT_TRUE(p->play(tone(3.0)));
    std::this_thread::sleep_for(300ms);
    p->stop();
    EXPECT_FALSE(p->isPlaying());
    std::this_thread::sleep_for(300ms);
    EXPECT_FALSE(streamOnServer());
}

}  // namespace
}  // namespace vell::platform
