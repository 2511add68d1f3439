// `vell daemon` end to end: a private session bus, a private PulseAudio and the reference
// service. The other commands find the host and work through it; a recording stopped
// through it is uploaded without anyone typing `vell upload`; SIGTERM keeps the recording.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>

#include "cli/command.h"
#include "tests/audio/aac_test_decoder.h"
#include "tests/support/child_process.h"
#include "tests/support/devserver_process.h"
#include "tests/support/private_bus.h"
#include "tests/support/pulse_server.h"
#include "tests/support/temp_home.h"

extern char** environ;

namespace vell {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::readAll;

class DaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        drainer = test::spawnLogged({"parec", "--device=fakemic", "--raw", "/dev/null"}, home.tmp() / "drainer.out");
        daemon = test::spawnLogged({vell(), "--lang", "en", "-v", "daemon"}, daemonLog());
        ASSERT_GT(daemon, 0);
        // The host is up once `vell status` finds it.
        for (int i = 0; i < 100; ++i) {
            auto status = run("status --json");
            if (status.output.find("\"host\":true") != std::string::npos) return;
            std::this_thread::sleep_for(100ms);
        }
        FAIL() << "the host did not come up:\n" << readAll(daemonLog());
    }
    void TearDown() override {
        for (pid_t pid : {daemon, drainer}) {
            if (pid <= 0) continue;
            ::kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    std::string vell() const { return test::binaryPath("vell").string(); }
    fs::path daemonLog() const { return home.tmp() / "daemon.log"; }
    test::CommandResult run(const std::string& arguments, const std::string& input = "") {
        std::string command = vell() + " --lang en " + arguments + " 2>&1";
        if (!input.empty()) command = "printf '%s\\n' '" + input + "' | " + command;
        return test::runCommand(command);
    }

    test::TempHome home;
    test::PrivateBus bus;
    test::PulseServer pulse;
    test::DevServer server{{.users = {"a@vell.test:pw-a"}}};
    pid_t drainer = -1;
    pid_t daemon = -1;
};

TEST_F(DaemonTest, TheHostUploadsARecordingStoppedThroughItByItself) {
    auto login = run("login --email a@vell.test", "pw-a");
    ASSERT_EQ(login.status, 0) << login.output;
    EXPECT_NE(login.output.find("Signed in as a@vell.test."), std::string::npos) << login.output;

    auto record = run("record --seconds 1.5");
    ASSERT_EQ(record.status, 0) << record.output << readAll(daemonLog());
    EXPECT_NE(record.output.find("Saved, ready to upload."), std::string::npos) << record.output;

    // Nobody asks for the upload: the host does it when the recording stops.
    nlohmann::json uploaded;
    for (int i = 0; i < 150 && uploaded.empty(); ++i) {
        std::this_thread::sleep_for(100ms);
        uploaded = server.recordings();
    }
    ASSERT_EQ(uploaded.size(), 1u) << readAll(daemonLog());
    EXPECT_EQ(uploaded[0].value("email", ""), "a@vell.test");

    auto pending = run("pending --json");
    ASSERT_EQ(pending.status, 0) << pending.output;
    auto list = nlohmann::json::parse(pending.output);
    ASSERT_EQ(list.size(), 1u);
    for (int i = 0; i < 50 && list[0]["status"] != "uploaded"; ++i) {
        std::this_thread::sleep_for(100ms);
        list = nlohmann::json::parse(run("pending --json").output);
    }
    EXPECT_EQ(list[0]["status"], "uploaded");

    // Only a second host is refused.
    auto second = run("daemon");
    EXPECT_EQ(second.status, cli::kExitBusy) << second.output;
    auto stop = run("stop");
    EXPECT_EQ(stop.status, cli::kExitFailure);
    EXPECT_NE(stop.output.find("Nothing is recording."), std::string::npos) << stop.output;
}

TEST_F(DaemonTest, SigtermMidRecordingLeavesAReadyRecordingWithItsAudio) {
    pulse.playTone(1000, 20, false, 0.3);
    const pid_t recording = test::spawnLogged({vell(), "--lang", "en", "record"}, home.tmp() / "record.out");
    std::string output;
    for (int i = 0; i < 150 && output.find("File: ") == std::string::npos; ++i) {
        std::this_thread::sleep_for(100ms);
        output = readAll(home.tmp() / "record.out");
    }
    ASSERT_NE(output.find("File: "), std::string::npos) << output << readAll(daemonLog());
    std::this_thread::sleep_for(2s);
    ::kill(daemon, SIGTERM);
    ::kill(daemon, SIGTERM);  // a second signal while quitting must not cut the file short
    int status = 0;
    waitpid(daemon, &status, 0);
    daemon = -1;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << readAll(daemonLog());
    waitpid(recording, nullptr, 0);

    auto pending = run("pending --json");
    ASSERT_EQ(pending.status, 0) << pending.output;
    auto list = nlohmann::json::parse(pending.output);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["status"], "ready");
    EXPECT_FALSE(list[0].contains("lastError")) << "stopped, not recovered after a crash";
    auto decoded = test::decodeAudioFile(list[0]["file"].get<std::string>());
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_GT(decoded.seconds(), 1.5);
}

}  // namespace
}  // namespace vell
