// Starting and stopping the program itself.
#include <gtest/gtest.h>

#include <signal.h>

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
