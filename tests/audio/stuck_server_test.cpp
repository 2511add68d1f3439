// A sound server that is alive but stops answering (stopped with SIGSTOP) must not hang
// the recorder: every wait on it ends with a time-out error, and nothing crashes when the
// server wakes up later and answers the requests we gave up on.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <thread>

#include "audio/errors.h"
#include "platform/pulse/pulse_connection.h"
#include "platform/pulse/pulse_record_stream.h"
#include "platform/pulse/system_audio_tap.h"
#include "tests/support/pulse_server.h"

namespace vell::audio {
namespace {

using Clock = std::chrono::steady_clock;

// Freezes the server for the life of the object.
struct Frozen {
    explicit Frozen(pid_t pid) : pid(pid) { ::kill(pid, SIGSTOP); }
    ~Frozen() { ::kill(pid, SIGCONT); }
    pid_t pid;
};

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

TEST(StuckSoundServerTest, WaitsEndWithATimeOutAndLateAnswersAreHarmless) {
    test::PulseServer pulse;
    pulse::Connection connected("Vell test", "stuck-test");
    connected.connect();
    {
        Frozen frozen(pulse.pid());

        // A new connection: the handshake never completes.
        SystemAudioTap tap;
        auto start = Clock::now();
        try {
            tap.start([](PcmBufferPtr) {});
            FAIL() << "started on a frozen server";
        } catch (const CoreAudioError& e) {
            EXPECT_EQ(e.operation(), "pa_context_connect");
        }
        EXPECT_LT(secondsSince(start), pulse::Connection::kAnswerSeconds + 3);
        EXPECT_FALSE(tap.isRunning());

        // An established connection: the source lookup before a stream never gets its answer.
        pulse::RecordStream stream(connected, pulse::RecordOptions{test::PulseServer::kMicSource, true, 0.02, "Test"});
        start = Clock::now();
        try {
            stream.start();
            FAIL() << "a stream started on a frozen server";
        } catch (const CoreAudioError& e) {
            EXPECT_EQ(e.operation(), "pa_context_get_source_info_by_name");
        }
        // The server has just failed to answer: the next step does not wait the full time
        // again (a command lists, opens and taps; each paying it added up to 15 s).
        EXPECT_LT(secondsSince(start), pulse::Connection::kAnswerSeconds);
    }
    // Thawed, the server answers the lookup we cancelled; the connection still works.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(connected.source(test::PulseServer::kMicSource).has_value());
    pulse::RecordStream stream(connected, pulse::RecordOptions{test::PulseServer::kMicSource, true, 0.02, "Test"});
    EXPECT_NO_THROW(stream.start());
    stream.stop();
}

}  // namespace
}  // namespace vell::audio
