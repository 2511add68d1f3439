// The live advisor and the results in `vell daemon`, the host the desktop runs: `vell record
// --live` through it prints cues, the host uploads and follows the recording until its
// results are kept on disk, and a discarded recording's live session is purged on the service.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/support/child_process.h"
#include "tests/support/devserver_process.h"
#include "tests/support/private_bus.h"
#include "tests/support/pulse_server.h"
#include "tests/support/temp_home.h"

namespace vell {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nlohmann::json;
using test::readAll;

class LiveDaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        VELL_REQUIRE_DEVSERVER();
        ::setenv("VELL_LIVE_SEGMENT_SECONDS", "2", 1);
        drainer = test::spawnLogged({"parec", "--device=fakemic", "--raw", "/dev/null"}, home.tmp() / "drainer.out");
        daemon = test::spawnLogged({vell(), "--lang", "en", "-v", "daemon"}, daemonLog());
        ASSERT_TRUE(test::eventually([&] { return run("status --json").output.find("\"host\":true") != std::string::npos; }, 10s))
            << readAll(daemonLog());
        ASSERT_EQ(run("login --email a@vell.test", "pw-a").status, 0);
    }
    void TearDown() override {
        test::endProcess(daemon);
        test::endProcess(drainer);
        ::unsetenv("VELL_LIVE_SEGMENT_SECONDS");
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
    pid_t drainer = -1, daemon = -1;
};

TEST_F(LiveDaemonTest, CuesThroughTheHostAndTheResultsAreKeptWithoutAnyoneAsking) {
    pulse.playTone(440, 12, false, 0.3);  // the other side of the call
    std::this_thread::sleep_for(1s);
    pulse.writeMic(std::vector<float>(16000 * 3, 0.3f));  // and this side, for the first 3 s
    auto record = run("record --seconds 7 --live");
    ASSERT_EQ(record.status, 0) << record.output << readAll(daemonLog());
    EXPECT_NE(record.output.find("Cue: Talk time: Share of the talking: Speaker 1 "), std::string::npos)
        << record.output << readAll(daemonLog());

    // Uploaded and followed by the host until the service processed it: kept on disk.
    const fs::path results = home.dataHome() / "Vell" / "Results";
    std::string id;
    ASSERT_TRUE(test::eventually([&] {
        std::error_code ec;
        for (fs::directory_iterator it(results, ec), end; !ec && it != end; it.increment(ec)) {
            // Not a result being written (".<name>.tmp-…", renamed into place when complete).
            if (it->path().filename().string().front() != '.') id = it->path().stem().string();
        }
        return !id.empty();
    }, 30s)) << readAll(daemonLog());
    auto shown = run("show " + id + " --cues");
    EXPECT_EQ(shown.status, 0) << shown.output;
    // The call's side is there because the host sent both sides' levels after the upload.
    EXPECT_NE(shown.output.find("Speaker 2"), std::string::npos) << shown.output;
    auto detail = json::parse(run("show " + id + " --json").output);
    EXPECT_TRUE(detail.value("sideLevels", false) || detail["speakers"].size() == 2) << detail.dump();
    EXPECT_FALSE(fs::exists(home.dataHome() / "Vell" / "Recordings" / (detail.value("filename", "x") + ".sides.json")));
}

TEST_F(LiveDaemonTest, ADiscardedRecordingsLiveSessionIsPurgedOnTheService) {
    const pid_t recording = test::spawnLogged({vell(), "--lang", "en", "record"}, home.tmp() / "record.out");
    ASSERT_TRUE(test::eventually([&] {
        auto live = server.admin("GET", "admin/live");
        return live.size() == 1 && !live[0]["chunks"].empty();
    }, 10s)) << readAll(daemonLog());
    auto stop = run("stop --discard");
    EXPECT_EQ(stop.status, 0) << stop.output;
    EXPECT_NE(stop.output.find("Discarded. vell undo brings it back within 5 minutes."), std::string::npos) << stop.output;
    int status = 0;
    waitpid(recording, &status, 0);
    EXPECT_TRUE(test::eventually([&] { return server.admin("GET", "admin/live").empty(); }, 10s))
        << server.admin("GET", "admin/live").dump() << readAll(daemonLog());
}

}  // namespace
}  // namespace vell
