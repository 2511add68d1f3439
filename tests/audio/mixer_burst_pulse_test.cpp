// The mixer on a real sound server whose source lets a backlog go at once: a pipe source
// hands its reader whatever was written, as fast as it comes, which is what a device
// catching up looks like. The file must still be as long as the recording ran.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "audio/realtime_mixer.h"
#include "platform/pulse/pulse_connection.h"
#include "platform/pulse/pulse_record_stream.h"
#include "tests/audio/aac_test_decoder.h"
#include "tests/support/pulse_server.h"
#include "tests/support/temp_home.h"

namespace vell::audio {
namespace {

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;

constexpr int kRate = 16000;

// Writes all of `samples` (blocking); false when the pipe broke.
bool writeAll(int fd, const std::vector<int16_t>& samples) {
    const auto* at = reinterpret_cast<const char*>(samples.data());
    std::size_t left = samples.size() * sizeof(int16_t);
    while (left > 0) {
        const ssize_t n = ::write(fd, at, left);
        if (n <= 0) return false;
        at += n;
        left -= std::size_t(n);
    }
    return true;
}

TEST(MixerOnABurstingSource, FileKeepsToTheClockAndTheVoiceToItsPlace) {
    test::TempHome home;
    test::PulseServer pulse;
    const auto fifo = pulse.runtimeDir() / "burst.fifo";
    ASSERT_TRUE(pulse.loadModule("module-pipe-source source_name=burstmic file=" + fifo.string() +
                                 " format=s16le rate=16000 channels=1"));
    const int fd = ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC);  // the server holds the read end
    ASSERT_GE(fd, 0);
    ::fcntl(fd, F_SETPIPE_SZ, 1 << 20);

    DroppedAudio dropped;
    RealtimeMixer::Options options;  // the real clock and timer
    options.dropped = &dropped;
    const auto file = home.tmp() / "burst.aac";
    RealtimeMixer mixer(file, 44100, options);
    mixer.open();
    const auto opened = Steady::now();
    pulse::Connection connection("Vell test", "burst-test");
    connection.connect();
    pulse::RecordStream stream(connection, pulse::RecordOptions{"burstmic", true, 0.02, "Test"});
    stream.setDataHandler([&mixer](PcmBufferPtr block) { mixer.appendMicrophone(std::move(block)); });
    stream.start();

    // 30 s of backlog (a 300 Hz tone) at once, then real time: silence, a 1 kHz voice from
    // 1.0 s to 1.5 s, another 5 s of backlog at 2.0 s; stop at 3.0 s.
    auto tone = [](double hz, double seconds) { return test::toInt16(test::sineWave(hz, kRate, seconds, 0.5)); };
    ASSERT_TRUE(writeAll(fd, tone(300, 30)));
    const std::vector<int16_t> quiet(kRate / 100, 0);
    const auto voice = tone(1000, 0.01);
    bool burstAgain = true;
    for (auto next = opened + 10ms; next < opened + 3s; next += 10ms) {
        std::this_thread::sleep_until(next);  // the source's own pace, not a synchronisation
        const double t = std::chrono::duration<double>(next - opened).count();
        if (burstAgain && t >= 2.0) {
            burstAgain = false;
            ASSERT_TRUE(writeAll(fd, tone(300, 5)));
        }
        ASSERT_TRUE(writeAll(fd, t >= 1.0 && t < 1.5 ? voice : quiet));
    }
    const double ran = std::chrono::duration<double>(Steady::now() - opened).count();
    stream.stop();
    mixer.finish();
    ::close(fd);

    auto decoded = test::decodeAudioFile(file);
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_NEAR(decoded.seconds(), ran, 0.2);
    const auto& left = decoded.samples[0];
    auto at = [](double seconds) { return std::size_t(seconds * 44100); };
    EXPECT_GT(test::rmsOf(left, at(1.15), at(0.25)), 0.2) << "the voice is where it was said";
    // Of each backlog, at most the newest tenth of a second (the clock's allowance) is kept.
    auto loud = [&](double from, double to) {
        double seconds = 0;
        for (std::size_t i = at(from); i + at(0.01) <= std::min(left.size(), at(to)); i += at(0.01))
            if (test::rmsOf(left, i, at(0.01)) > 0.1) seconds += 0.01;
        return seconds;
    };
    EXPECT_LE(loud(0, 0.95), 0.12);
    EXPECT_LE(loud(1.6, ran + 1), 0.12);
    EXPECT_NEAR(dropped.microphoneSeconds.load(), 35.0, 0.5);
}

}  // namespace
}  // namespace vell::audio
