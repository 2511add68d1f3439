// Starting and stopping the program itself.
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <thread>

#include "tests/devserver/devserver_process.h"
#include "tests/support/temp_home.h"

namespace vell::test {
namespace {

TEST(DevServerLifecycle, StopsCleanlyOnSigtermAndSigint) {
    for (int signal : {SIGTERM, SIGINT}) {
        DevServerProcess server;
        EXPECT_EQ(Api(server).login("demo@vell.local", "vell-demo").status, 200);
        server.kill(signal);
        EXPECT_EQ(server.exitStatus(), 0) << "signal " << signal;
    }
}

TEST(DevServerLifecycle, StopsWithinSecondsWhateverIsUnderWay) {
    // A recording being processed (a long job on the recognition worker), a request held
    // open by a delay, and twenty uploads before: told to stop, it exits 0 in a few seconds.
    DevServerProcess server;
    Api api(server);
    ASSERT_EQ(api.login("demo@vell.local", "vell-demo").status, 200);
    ASSERT_EQ(api.admin("POST", "/admin/processing", {{"failNext", 0}, {"delayMs", 60'000}}).status, 200);
    for (int i = 0; i < 20; ++i) {
        const std::string bytes = randomBytes(64 * 1024, unsigned(i));
        auto started = api.start("busy-" + std::to_string(i), int64_t(bytes.size()));
        ASSERT_EQ(started.status, 200);
        const std::string id = started.body.value("uploadId", "");
        ASSERT_EQ(api.part(id, 0, bytes).status, 200);
        ASSERT_EQ(api.postEmpty("/api/recordings/upload/" + id + "/finalize").status, 200);
        EXPECT_EQ(api.get("/api/recordings").status, 200);
    }
    ASSERT_EQ(api.admin("POST", "/admin/faults", {{"method", "GET"}, {"path", "/api/me"}, {"action", "delay"}, {"delayMs", 600'000}})
                  .status,
              200);
    std::thread held([&server] { (void)Api(server).get("/api/me"); });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the request is in
    const auto began = std::chrono::steady_clock::now();
    server.kill(SIGTERM);
    EXPECT_EQ(server.exitStatus(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(10));
    held.join();
}

TEST(DevServerLifecycle, RefusesATakenPortAndBadArguments) {
    DevServerProcess first;
    // A server that wrongly starts must not hang the test.
    const std::string binary = "timeout 20 " + binaryPath("vell-devserver").string();
    auto taken = runCommand(binary + " --port " + std::to_string(first.port()) + " --data " +
                            (first.dataDir().parent_path() / "other").string() + " 2>&1");
    EXPECT_NE(taken.status, 0);
    EXPECT_NE(taken.output.find("cannot listen"), std::string::npos) << taken.output;
    EXPECT_EQ(taken.output.find("listening on"), std::string::npos);

    auto noData = runCommand(binary + " --port 0 2>&1");
    EXPECT_NE(noData.status, 0);
    auto badUser = runCommand(binary + " --port 0 --data /tmp/x --user nobody 2>&1");
    EXPECT_NE(badUser.status, 0);
    EXPECT_NE(badUser.output.find("EMAIL:PASSWORD"), std::string::npos) << badUser.output;
    auto badSecret = runCommand(binary + " --port 0 --data " + (first.dataDir().parent_path() / "third").string() +
                                " --user a@b.c:pw:not-base32! 2>&1");
    EXPECT_NE(badSecret.status, 0);
    EXPECT_NE(badSecret.output.find("TOTP"), std::string::npos) << badSecret.output;
}

}  // namespace
}  // namespace vell::test
