// `vell daemon` records a call by itself: a private session bus with a notification server
// the test serves, a private PulseAudio, and a fake call program that records from the
// microphone and plays into the speakers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pulse/pulseaudio.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sdbus-c++/sdbus-c++.h>
#include <thread>

#include "tests/support/child_process.h"
#include "tests/support/devserver_process.h"
#include "tests/support/notification_server.h"
#include "tests/support/private_bus.h"
#include "tests/support/pulse_server.h"
#include "tests/support/temp_home.h"

extern char** environ;

namespace vell {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::endProcess, test::eventually, test::NotificationServer, test::readAll, test::spawnShell;

// A volume meter as pavucontrol makes one: a record stream with peak detection, from a
// client that names its program.
class LevelMeter {
public:
    explicit LevelMeter(const std::string& binary) : loop_(pa_threaded_mainloop_new()) {
        pa_proplist* props = pa_proplist_new();
        pa_proplist_sets(props, PA_PROP_APPLICATION_PROCESS_BINARY, binary.c_str());
        pa_proplist_sets(props, PA_PROP_APPLICATION_NAME, "Volume Control");
        context_ = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(loop_), "Volume Control", props);
        pa_proplist_free(props);
        pa_context_set_state_callback(context_, [](pa_context*, void* l) {
            pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(l), 0);
        }, loop_);
        pa_threaded_mainloop_lock(loop_);
        pa_threaded_mainloop_start(loop_);
        pa_context_connect(context_, nullptr, PA_CONTEXT_NOFLAGS, nullptr);
        while (pa_context_get_state(context_) != PA_CONTEXT_READY && PA_CONTEXT_IS_GOOD(pa_context_get_state(context_))) {
            pa_threaded_mainloop_wait(loop_);
        }
        const pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, 25, 1};
        stream_ = pa_stream_new(context_, "Peak detect", &spec, nullptr);
        pa_stream_set_read_callback(stream_, [](pa_stream* s, size_t, void*) {
            const void* data = nullptr;
            size_t bytes = 0;
            while (pa_stream_readable_size(s) > 0 && pa_stream_peek(s, &data, &bytes) == 0 && bytes > 0) pa_stream_drop(s);
        }, nullptr);
        const pa_buffer_attr attr{uint32_t(-1), uint32_t(-1), uint32_t(-1), uint32_t(-1), sizeof(float)};
        ok_ = pa_stream_connect_record(stream_, test::PulseServer::kMicSource, &attr,
                                       pa_stream_flags_t(PA_STREAM_PEAK_DETECT | PA_STREAM_ADJUST_LATENCY)) == 0;
        pa_threaded_mainloop_unlock(loop_);
    }
    ~LevelMeter() {
        pa_threaded_mainloop_stop(loop_);
        if (stream_) pa_stream_unref(stream_);
        pa_context_disconnect(context_);
        pa_context_unref(context_);
        pa_threaded_mainloop_free(loop_);
    }
    bool ok() const { return ok_; }

private:
    pa_threaded_mainloop* loop_;
    pa_context* context_ = nullptr;
    pa_stream* stream_ = nullptr;
    bool ok_ = false;
};

class CallsDaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        daemon = spawnShell("exec " + vell() + " --lang en -v daemon", home.tmp() / "daemon.log");
        ASSERT_TRUE(eventually([&] { return run("status --json").output.find("\"host\":true") != std::string::npos; },
                               10s))
            << log();
    }
    void TearDown() override {
        endCall();
        for (auto& pid : others) endProcess(pid);
        endProcess(daemon);
    }
    std::string vell() const { return test::binaryPath("vell").string(); }
    std::string log() const { return readAll(home.tmp() / "daemon.log"); }
    test::CommandResult run(const std::string& arguments) { return test::runCommand(vell() + " --lang en " + arguments + " 2>&1"); }
    nlohmann::json json(const std::string& arguments) {
        auto j = nlohmann::json::parse(run(arguments).output, nullptr, false);
        return j.is_discarded() ? nlohmann::json::object() : j;
    }
    bool recording() { return json("status --json").value("recording", false); }
    void startCall() {
        const std::string props = "PULSE_PROP=\"application.process.binary=zoom\" exec ";
        zoomIn = spawnShell(props + "pacat --record --raw -d fakemic > /dev/null", home.tmp() / "in.log");
        zoomOut = spawnShell(props + "pacat --playback --raw -d speakers < /dev/zero", home.tmp() / "out.log");
    }
    void endCall() {
        endProcess(zoomIn);
        endProcess(zoomOut);
    }
    // A program under the given name that plays into the speakers and, unless told not
    // to, records from the microphone.
    void startAudioUser(const std::string& binary, bool records = true) {
        const std::string props = "PULSE_PROP=\"application.process.binary=" + binary + "\" exec ";
        if (records) others.push_back(spawnShell(props + "pacat --record --raw -d fakemic > /dev/null", home.tmp() / "user-in.log"));
        others.push_back(spawnShell(props + "pacat --playback --raw -d speakers < /dev/zero", home.tmp() / "user-out.log"));
    }

    test::TempHome home;
    test::PrivateBus bus;
    NotificationServer notifications;
    test::PulseServer pulse;
    test::DevServer server{{.users = {"a@vell.test:pw-a"}}};
    pid_t daemon = -1, zoomIn = -1, zoomOut = -1;
    std::vector<pid_t> others;
};

TEST_F(CallsDaemonTest, ACallStartsARecordingAndItsStopEndsIt) {
    auto idle = json("calls --json");
    EXPECT_EQ(idle.value("enabled", false), true) << idle.dump();
    EXPECT_EQ(idle.value("monitoring", false), true) << idle.dump();
    EXPECT_FALSE(recording());

    startCall();
    ASSERT_TRUE(eventually([&] { return recording(); })) << log();
    // The host's status names who is in the call.
    EXPECT_NE(run("status").output.find("In a call: "), std::string::npos) << run("status").output;
    auto status = json("calls --json");
    EXPECT_EQ(status["callers"][0].value("bundleID", ""), "us.zoom.xos") << status.dump();
    EXPECT_TRUE(status.value("recording", false)) << status.dump();
    EXPECT_EQ(status.value("call", ""), "inCall") << status.dump();
    EXPECT_FALSE(status.contains("state")) << "the recorder's internals stay inside";
    EXPECT_NE(run("calls").output.find("Call: in progress"), std::string::npos) << run("calls").output;

    std::optional<NotificationServer::Shown> started;
    ASSERT_TRUE(eventually([&] { return (started = notifications.find("Recording the call")).has_value(); })) << log();
    EXPECT_EQ(started->body, "Saved on this computer. Sign in to sync it.");
    EXPECT_NE(std::find(started->actions.begin(), started->actions.end(), "app.quillon.mac.stopAutoRecording"),
              started->actions.end());

    // "Stop" on the notification ends it; the call goes on, and no new recording starts.
    notifications.click(started->id, "app.quillon.mac.stopAutoRecording");
    ASSERT_TRUE(eventually([&] { return !recording(); })) << log();
    std::this_thread::sleep_for(3s);
    EXPECT_FALSE(recording()) << log();
    EXPECT_TRUE(json("calls --json").value("waitingForCallEnd", false));
    auto pending = nlohmann::json::parse(run("pending --json").output, nullptr, false);
    ASSERT_TRUE(pending.is_array() && pending.size() == 1u) << pending.dump();
    EXPECT_NE(pending[0].value("status", ""), "recording");
}

TEST_F(CallsDaemonTest, SwitchedOffNothingStartsAndTheSwitchIsKept) {
    auto off = json("calls off --json");
    EXPECT_EQ(off.value("enabled", true), false) << off.dump();
    EXPECT_EQ(off.value("monitoring", true), false);
    startCall();
    std::this_thread::sleep_for(3s);
    EXPECT_FALSE(recording()) << log();
    auto on = json("calls on --json");
    EXPECT_EQ(on.value("enabled", false), true);
    EXPECT_TRUE(eventually([&] { return recording(); })) << log();
}

// Desktop pieces that hold the microphone while something plays are not calls: a volume
// meter (a peak-detect record stream, from a program whose name means nothing to the
// recorder, which also plays sound) and the speech synthesis service.
TEST_F(CallsDaemonTest, AVolumeMeterAndSpeechSynthesisNeverStartARecording) {
    LevelMeter meter("levelmeter");
    ASSERT_TRUE(meter.ok());
    startAudioUser("levelmeter", false);
    startAudioUser("speech-dispatcher");
    ASSERT_TRUE(eventually([&] { return test::runCommand("pactl list short source-outputs | wc -l").output.find('2') == 0; }));
    std::this_thread::sleep_for(4s);  // twice the polls a start needs
    EXPECT_FALSE(recording()) << log();
    auto status = json("calls --json");
    EXPECT_TRUE(status["callers"].empty()) << status.dump();
    EXPECT_EQ(test::runCommand("ls '" + (home.dataHome() / "Vell" / "Recordings").string() + "' 2>/dev/null | wc -l").output,
              "0\n");
}

// The user's own recording during a call: when the call ends the recorder offers to finish
// it, and "Finish recording" does.
TEST_F(CallsDaemonTest, AManualRecordingIsOfferedToFinishWhenTheCallEnds) {
    const pid_t manual = spawnShell("exec " + vell() + " --lang en record", home.tmp() / "record.out");
    others.push_back(manual);
    ASSERT_TRUE(eventually([&] { return recording(); })) << log();
    startCall();
    ASSERT_TRUE(eventually([&] { return !json("calls --json")["callers"].empty(); })) << log();
    std::this_thread::sleep_for(1500ms);  // seen on more than one poll
    EXPECT_FALSE(json("calls --json").value("recording", true));

    endCall();
    ASSERT_TRUE(eventually([&] { return json("calls --json")["callers"].empty(); }, 3s)) << log();
    std::this_thread::sleep_for(5s);  // at most six polls: too early for the offer
    EXPECT_FALSE(notifications.find("The call ended").has_value()) << log();
    std::optional<NotificationServer::Shown> offer;
    ASSERT_TRUE(eventually([&] { return (offer = notifications.find("The call ended")).has_value(); }, 6s)) << log();
    EXPECT_EQ(offer->body, "Finish the recording?");
    EXPECT_NE(std::find(offer->actions.begin(), offer->actions.end(), "app.quillon.mac.finishRecording"),
              offer->actions.end());
    EXPECT_NE(std::find(offer->actions.begin(), offer->actions.end(), "app.quillon.mac.keepRecording"),
              offer->actions.end());
    EXPECT_TRUE(recording());

    notifications.click(offer->id, "app.quillon.mac.finishRecording");
    ASSERT_TRUE(eventually([&] { return !recording(); })) << log();
    // The user's `vell record` sees its recording end and exits.
    int status = 0;
    EXPECT_TRUE(eventually([&] { return waitpid(manual, &status, WNOHANG) == manual; }, 3s)) << readAll(home.tmp() / "record.out");
    others.pop_back();
    auto pending = nlohmann::json::parse(run("pending --json").output, nullptr, false);
    ASSERT_TRUE(pending.is_array() && pending.size() == 1u) << pending.dump();
    EXPECT_NE(pending[0].value("status", ""), "recording");
}

// The whole automatic life of a call recording in real time: it starts within 3 s of the
// call and stops by itself 20 polls after the call ends, leaving a ready recording.
TEST_F(CallsDaemonTest, ACallRecordingStartsWithinThreeSecondsAndStopsTwentyPollsAfterTheCall) {
    const auto began = std::chrono::steady_clock::now();
    startCall();
    ASSERT_TRUE(eventually([&] { return recording(); }, 10s)) << log();
    // Two polls a second apart and the start; the margin is for a loaded machine.
    EXPECT_LT(std::chrono::steady_clock::now() - began, 5s);
    std::this_thread::sleep_for(2s);
    const auto ended = std::chrono::steady_clock::now();
    endCall();
    std::this_thread::sleep_for(15s);
    EXPECT_TRUE(recording()) << "it must not stop before 20 polls without the call\n" << log();
    ASSERT_TRUE(eventually([&] { return !recording(); }, 15s)) << log();
    EXPECT_GE(std::chrono::steady_clock::now() - ended, 19s);
    auto pending = nlohmann::json::parse(run("pending --json").output, nullptr, false);
    ASSERT_TRUE(pending.is_array() && pending.size() == 1u) << pending.dump();
    EXPECT_EQ(pending[0].value("status", ""), "ready");
}

}  // namespace
}  // namespace vell
