// vell login / whoami / logout as separate processes against the service on its fixed port.
#include <gtest/gtest.h>

#include "tests/cli/cli_env.h"
#include "tests/support/devserver_process.h"

namespace vell::test {
namespace {

TEST(CliLogin, SessionSurvivesAProcessRestartUntilLogout) {
    VELL_REQUIRE_DEVSERVER();
    TempHome home;
    DevServer server({.users = {"cli@vell.test:s3cret pass"}});

    auto before = runVell(home, "whoami");
    EXPECT_EQ(before.status, 3) << before.output;
    EXPECT_NE(before.output.find("Not signed in."), std::string::npos) << before.output;

    auto wrong = runVell(home, "login --email cli@vell.test", "nope");
    EXPECT_EQ(wrong.status, 1) << wrong.output;
    EXPECT_NE(wrong.output.find("Wrong email or password."), std::string::npos) << wrong.output;

    auto login = runVell(home, "login --email cli@vell.test", "s3cret pass");
    ASSERT_EQ(login.status, 0) << login.output;
    EXPECT_NE(login.output.find("Signed in as cli@vell.test."), std::string::npos) << login.output;

    auto who = runVell(home, "whoami");
    EXPECT_EQ(who.status, 0) << who.output;
    EXPECT_NE(who.output.find("cli@vell.test"), std::string::npos) << who.output;

    auto spanish = runVell(home, "--lang es logout");
    EXPECT_EQ(spanish.status, 0) << spanish.output;
    EXPECT_NE(spanish.output.find("Sesión cerrada."), std::string::npos) << spanish.output;
    auto after = runVell(home, "whoami");
    EXPECT_EQ(after.status, 3) << after.output;
}

TEST(CliLogin, ExpiredSessionIsReportedAndForgotten) {
    VELL_REQUIRE_DEVSERVER();
    TempHome home;
    DevServer server({.users = {"cli@vell.test:pw"}});
    ASSERT_EQ(runVell(home, "login --email cli@vell.test", "pw").status, 0);
    server.expireSessions("cli@vell.test");
    auto who = runVell(home, "whoami");
    EXPECT_EQ(who.status, 3) << who.output;
    EXPECT_NE(who.output.find("Your session expired. Sign in again."), std::string::npos) << who.output;
    EXPECT_NE(runVell(home, "whoami").output.find("Not signed in."), std::string::npos);
}

TEST(CliLogin, NoServiceIsNoConnection) {
    TempHome home;
    auto login = runVell(home, "login --email cli@vell.test", "pw");
    EXPECT_EQ(login.status, 1) << login.output;
    EXPECT_NE(login.output.find("No connection."), std::string::npos) << login.output;
}

}  // namespace
}  // namespace vell::test
