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
#include <sdbus-c++/sdbus-c++.h>
#include <sys/stat.h>
#include <thread>

#include "cli/command.h"
#include "platform/dbus/control_protocol.h"
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

TEST_F(DaemonTest, ArgumentsFromTheBusAreBoundedAndRefusedWithATypedError) {
    auto connection = sdbus::createSessionBusConnection();
    auto host = sdbus::createProxy(*connection, dbus::kControlName, dbus::kControlPath);
    // The error name of a call, empty when it succeeded.
    auto errorOf = [&](const std::function<void(sdbus::MethodCall&)>& args, const char* method) -> std::string {
        try {
            auto call = host->createMethodCall(dbus::kControlInterface, method);
            args(call);
            host->callMethod(call, 20'000'000);
            return "";
        } catch (const sdbus::Error& e) {
            return e.getName();
        }
    };
    const std::string huge(100'000, '1');
    std::string deepNames(2'000, '[');
    deepNames = "{\"1\":" + deepNames + "}";
    const fs::path fifo = home.root() / "export.fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    struct Case {
        const char* method;
        std::function<void(sdbus::MethodCall&)> args;
        const char* error;
    } cases[] = {
        {"VerifyCode", [&](auto& c) { c << huge; }, dbus::errors::kInvalidArgument},
        {"VerifyCode", [&](auto& c) { c << std::string("   "); }, dbus::errors::kInvalidArgument},
        {"SignIn", [&](auto& c) { c << huge << std::string("pw"); }, dbus::errors::kInvalidArgument},
        {"SignIn", [&](auto& c) { c << std::string("a@vell.test") << huge; }, dbus::errors::kInvalidArgument},
        {"StartRecordingOn", [&](auto& c) { c << "uid:" + huge; }, dbus::errors::kInvalidArgument},
        {"InsuranceExport", [&](auto& c) { c << int32_t(-5) << std::string("/tmp/x.aac"); }, dbus::errors::kInvalidArgument},
        {"InsuranceExport", [&](auto& c) { c << int32_t(5) << std::string("relative.aac"); }, dbus::errors::kInvalidArgument},
        // A FIFO nobody reads: refused at once, the host does not wait for a reader.
        {"InsuranceExport", [&](auto& c) { c << int32_t(5) << fifo.string(); }, dbus::errors::kFailed},
        {"CalendarAdd", [&](auto& c) { c << huge; }, dbus::errors::kInvalidArgument},
        {"CalendarRemove", [&](auto& c) { c << std::string("line\nbreak"); }, dbus::errors::kInvalidArgument},
        {"RecoverStart", [&](auto& c) { c << std::string("bogus") << int32_t(1); }, dbus::errors::kInvalidArgument},
        {"RecoverStart", [&](auto& c) { c << std::string("custom") << int32_t(1'000'000); }, dbus::errors::kInvalidArgument},
        {"RecordingDetail", [&](auto& c) { c << std::string("../../api/me"); }, dbus::errors::kInvalidArgument},
        {"ShareRecording", [&](auto& c) { c << huge; }, dbus::errors::kInvalidArgument},
        {"RenameSpeakers", [&](auto& c) { c << std::string("rec_1") << deepNames; }, dbus::errors::kInvalidArgument},
        {"RenameSpeakers", [&](auto& c) { c << std::string("rec_1") << std::string("{\"x\":\"Ana\"}"); }, dbus::errors::kInvalidArgument},
        {"Reopen", [&](auto& c) { c << std::string("nowhere"); }, dbus::errors::kInvalidArgument},
    };
    for (const auto& c : cases) {
        const auto began = std::chrono::steady_clock::now();
        EXPECT_EQ(errorOf(c.args, c.method), c.error) << c.method;
        EXPECT_LT(std::chrono::steady_clock::now() - began, 5s) << c.method;
    }
    // Still serving, and still itself.
    EXPECT_EQ(::waitpid(daemon, nullptr, WNOHANG), 0) << readAll(daemonLog());
    auto status = run("status --json");
    EXPECT_NE(status.output.find("\"host\":true"), std::string::npos) << status.output << readAll(daemonLog());
}

TEST_F(DaemonTest, ARecordingWhoseHostDiesEndsWithASentenceAndAFailure) {
    const pid_t recording = test::spawnLogged({vell(), "--lang", "en", "record"}, home.tmp() / "record.out");
    std::string output;
    for (int i = 0; i < 150 && output.find("File: ") == std::string::npos; ++i) {
        std::this_thread::sleep_for(100ms);
        output = readAll(home.tmp() / "record.out");
    }
    ASSERT_NE(output.find("File: "), std::string::npos) << output << readAll(daemonLog());
    ::kill(daemon, SIGKILL);
    waitpid(daemon, nullptr, 0);
    daemon = -1;
    int status = 0;
    waitpid(recording, &status, 0);
    output = readAll(home.tmp() / "record.out");
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == cli::kExitFailure) << output;
    EXPECT_NE(output.find("stopped answering"), std::string::npos) << output;
    EXPECT_EQ(output.find("Saved"), std::string::npos) << output;
}

}  // namespace
}  // namespace vell
