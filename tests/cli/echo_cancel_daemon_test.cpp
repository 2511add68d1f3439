// Echo cancellation end to end through `vell daemon`: a recording started through the host
// on a headphones output shows the bypass in `vell status`; `vell echo-cancel off` reaches
// the running recording at once and is stored; back on the loudspeakers with a call
// playing, the canceller works.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>

#include "base/preference_keys.h"
#include "base/user_defaults.h"
#include "tests/support/child_process.h"
#include "tests/support/devserver_process.h"
#include "tests/support/private_bus.h"
#include "tests/support/pulse_server.h"
#include "tests/support/temp_home.h"

namespace vell {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::readAll;

class EchoCancelDaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        daemon = test::spawnLogged({vell(), "--lang", "en", "-v", "daemon"}, daemonLog());
        ASSERT_GT(daemon, 0);
        ASSERT_TRUE(test::eventually([&] { return run("status --json").output.find("\"host\":true") != std::string::npos; },
                                     10s))
            << readAll(daemonLog());
    }
    void TearDown() override {
        for (pid_t pid : {recording, daemon}) {
            if (pid <= 0) continue;
            ::kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    std::string vell() const { return test::binaryPath("vell").string(); }
    fs::path daemonLog() const { return home.tmp() / "daemon.log"; }
    test::CommandResult run(const std::string& arguments) {
        return test::runCommand(vell() + " --lang en " + arguments + " 2>&1");
    }
    nlohmann::json echoStatus() {
        auto j = nlohmann::json::parse(run("status --json").output, nullptr, false);
        return j.is_object() && j.contains("echoCancellation") ? j["echoCancellation"] : nlohmann::json::object();
    }

    test::TempHome home;
    test::PrivateBus bus;
    test::PulseServer pulse;
    test::DevServer server{{.users = {"a@vell.test:pw-a"}}};
    pid_t daemon = -1;
    pid_t recording = -1;
};

TEST_F(EchoCancelDaemonTest, HeadphonesShowInStatusAndTheSwitchReachesTheRunningRecording) {
    ASSERT_TRUE(pulse.loadModule("module-null-sink sink_name=phones sink_properties=device.form_factor=headphones"));
    ASSERT_EQ(pulse.pactl("set-default-sink phones").status, 0);
    EXPECT_EQ(echoStatus().value("state", ""), "idle");

    recording = test::spawnLogged({vell(), "--lang", "en", "record"}, home.tmp() / "record.out");
    ASSERT_TRUE(test::eventually([&] { return readAll(home.tmp() / "record.out").find("File: ") != std::string::npos; }, 15s))
        << readAll(home.tmp() / "record.out") << readAll(daemonLog());

    nlohmann::json echo;
    EXPECT_TRUE(test::eventually([&] {
        echo = echoStatus();
        return echo.value("state", "") == "bypassed" && echo.value("reason", "") == "headphones";
    })) << echo.dump();
    EXPECT_EQ(echo["output"].value("device", ""), "phones");
    EXPECT_TRUE(echo.value("enabled", false));
    EXPECT_NE(run("status").output.find("Echo cancellation: bypassed, the output is headphones"), std::string::npos)
        << run("status").output;
    EXPECT_NE(readAll(daemonLog()).find("echo cancellation bypassed: headphones"), std::string::npos) << "the switch is logged";

    auto off = run("echo-cancel off --json");
    ASSERT_EQ(off.status, 0) << off.output;
    EXPECT_EQ(nlohmann::json::parse(off.output).value("enabled", true), false);
    EXPECT_TRUE(test::eventually([&] { return echoStatus().value("state", "") == "off"; })) << echoStatus().dump();
    home.reloadDefaults();
    EXPECT_EQ(home.defaults().boolValue(prefs::kEchoCancellation), false) << "stored for the next launch";

    // On the loudspeakers, with the far end of a call playing, the canceller works again.
    ASSERT_EQ(run("echo-cancel on").status, 0);
    ASSERT_EQ(pulse.pactl("set-default-sink speakers").status, 0);
    pulse.playTone(440, 20, false, 0.3);
    EXPECT_TRUE(test::eventually([&] {
        echo = echoStatus();
        return echo.value("state", "") == "active" && echo["output"].value("kind", "") == "speakers";
    }, 10s)) << echo.dump() << readAll(daemonLog());
    EXPECT_NE(run("echo-cancel").output.find("Echo cancellation: cancelling the echo of the system audio"), std::string::npos);

    EXPECT_EQ(run("stop").status, 0);
    waitpid(recording, nullptr, 0);
    recording = -1;
    EXPECT_EQ(echoStatus().value("state", ""), "idle");
}

}  // namespace
}  // namespace vell
