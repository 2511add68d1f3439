// A recording whose chosen microphone is not connected runs on the system default and says
// so: in `vell record` and, from another terminal, in `vell status`.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "tests/support/child_process.h"
#include "tests/support/private_bus.h"
#include "tests/support/pulse_server.h"
#include "tests/support/temp_home.h"

namespace vell::test {
namespace {

TEST(MicrophoneFallback, RecordAndStatusShowTheDisconnectedMicrophone) {
    PrivateBus bus;
    PulseServer pulse;
    TempHome home;
    const std::string vell = binaryPath("vell").string() + " --lang en ";
    ASSERT_EQ(runCommand(vell + "mic recording uid:usb-headset --force 2>&1").status, 0);

    const auto out = home.tmp() / "record.out";
    pid_t recording = spawnShell("exec " + vell + "record --seconds 20 --json", out);
    ASSERT_GT(recording, 0);
    ASSERT_TRUE(eventually([&] { return readAll(out).find("\"started\"") != std::string::npos; },
                           std::chrono::seconds(15)))
        << readAll(out);

    auto status = runCommand(vell + "status --json 2>&1");
    ASSERT_EQ(status.status, 0) << status.output;
    auto json = nlohmann::json::parse(status.output);
    EXPECT_EQ(json["recording"], true);
    EXPECT_EQ(json["microphoneFellBack"], true);
    auto text = runCommand(vell + "status 2>&1");
    EXPECT_NE(text.output.find("Microphone: Disconnected microphone (recording from the system default)"),
              std::string::npos)
        << text.output;

    ::kill(recording, SIGTERM);
    int code = 0;
    waitpid(recording, &code, 0);
    const auto output = readAll(out);
    EXPECT_NE(output.find("Disconnected microphone: recording from the system default."), std::string::npos) << output;
    bool sawStarted = false;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        auto event = nlohmann::json::parse(line, nullptr, false);
        if (event.is_object() && event.value("event", "") == "started") {
            sawStarted = true;
            EXPECT_EQ(event["microphoneFellBack"], true) << line;
        }
    }
    EXPECT_TRUE(sawStarted) << output;

    // With the chosen microphone present nothing is said.
    ASSERT_EQ(runCommand(vell + "mic recording uid:fakemic 2>&1").status, 0);
    auto plain = runCommand(vell + "record --seconds 0.5 --json 2>&1");
    EXPECT_EQ(plain.output.find("Disconnected microphone"), std::string::npos) << plain.output;
    EXPECT_NE(plain.output.find("\"microphoneFellBack\":false"), std::string::npos) << plain.output;
}

}  // namespace
}  // namespace vell::test
