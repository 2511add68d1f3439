// vell login / whoami / logout as separate processes against the reference service.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/cli/cli_env.h"
#include "tests/support/devserver_process.h"
#include "tests/support/tmpfs_mount.h"

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
    auto json = nlohmann::json::parse(runVell(home, "--lang es whoami --json").output, nullptr, false);
    ASSERT_TRUE(json.is_object());
    EXPECT_EQ(json["email"], "cli@vell.test");

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

std::filesystem::path sessionFile(const TempHome& home) { return home.dataHome() / "Vell" / "session-cookies.v1.bin"; }

TEST(CliLogin, ASessionThatCannotBeStoredIsAFailedSignIn) {
    VELL_REQUIRE_DEVSERVER();
    TempHome home;
    DevServer server({.users = {"cli@vell.test:pw"}});
    std::filesystem::create_directories(home.dataHome() / "Vell");

    // A symbolic link at the session path is never written through.
    const auto target = home.root() / "elsewhere.bin";
    std::filesystem::create_symlink(target, sessionFile(home));
    auto linked = runVell(home, "login --email cli@vell.test", "pw");
    EXPECT_EQ(linked.status, 1) << linked.output;
    EXPECT_NE(linked.output.find("The session could not be stored on this computer"), std::string::npos) << linked.output;
    EXPECT_EQ(linked.output.find("Signed in as"), std::string::npos) << linked.output;
    EXPECT_FALSE(std::filesystem::exists(target));
    EXPECT_EQ(runVell(home, "whoami").status, 3);
    auto spanish = runVell(home, "--lang es login --email cli@vell.test", "pw");
    EXPECT_NE(spanish.output.find("No se pudo guardar la sesión en esta computadora"), std::string::npos) << spanish.output;
    std::filesystem::remove(sessionFile(home));

    // A FIFO at the session path neither hangs the sign-in nor whoami.
    ASSERT_EQ(::mkfifo(sessionFile(home).c_str(), 0600), 0);
    auto fifoLogin = runVell(home, "login --email cli@vell.test", "pw");
    EXPECT_EQ(fifoLogin.status, 1) << fifoLogin.output;
    EXPECT_NE(fifoLogin.output.find("could not be stored"), std::string::npos) << fifoLogin.output;
    auto fifoWho = runVell(home, "whoami");
    EXPECT_EQ(fifoWho.status, 3) << fifoWho.output;
    EXPECT_NE(fifoWho.output.find("Not signed in."), std::string::npos) << fifoWho.output;
}

TEST(CliLogin, AReadOnlyDataFolderGetsItsOwnSentence) {
    VELL_REQUIRE_DEVSERVER();
    TempHome home;
    DevServer server({.users = {"cli@vell.test:pw"}});
    TmpfsMount readOnly(home.dataHome(), 1024, true);
    if (!readOnly.mounted()) GTEST_SKIP() << readOnly.error();
    auto login = runVell(home, "login --email cli@vell.test", "pw");
    EXPECT_EQ(login.status, 1) << login.output;  // not 4: nobody else holds the folder
    EXPECT_NE(login.output.find("Vell cannot use its data folder"), std::string::npos) << login.output;
    EXPECT_NE(login.output.find("Read-only file system"), std::string::npos) << login.output;
    auto pending = runVell(home, "--lang es pending");
    EXPECT_EQ(pending.status, 1) << pending.output;
    EXPECT_NE(pending.output.find("Vell no puede usar su carpeta de datos"), std::string::npos) << pending.output;
}

TEST(CliLogin, ASessionFileOpenToOthersIsNarrowedWhenRead) {
    VELL_REQUIRE_DEVSERVER();
    TempHome home;
    DevServer server({.users = {"cli@vell.test:pw"}});
    ASSERT_EQ(runVell(home, "login --email cli@vell.test", "pw").status, 0);
    ASSERT_EQ(::chmod(sessionFile(home).c_str(), 0666), 0);
    auto who = runVell(home, "--log-stderr whoami");
    EXPECT_EQ(who.status, 0) << who.output;
    EXPECT_NE(who.output.find("session file had mode 0666; narrowed to 0600"), std::string::npos) << who.output;
    struct stat st {};
    ASSERT_EQ(::stat(sessionFile(home).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
}

TEST(CliLogin, NoServiceIsNoConnection) {
    TempHome home;
    auto login = runVell(home, "login --email cli@vell.test", "pw");
    EXPECT_EQ(login.status, 1) << login.output;
    EXPECT_NE(login.output.find("No connection."), std::string::npos) << login.output;
}

}  // namespace
}  // namespace vell::test
