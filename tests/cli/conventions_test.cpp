// What a Linux user expects of the programs beyond each command's own work: signed out is
// said and is exit 3, the id `vell pending` prints is accepted, asking for help or the
// version or asking a question writes nothing, and a host in a terminal logs there.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "base/paths.h"
#include "tests/cli/cli_env.h"
#include "tests/support/child_process.h"

namespace vell::test {
namespace {

namespace fs = std::filesystem;

TEST(CliConventions, SignedOutTheServiceCommandsSaySoWithExitThree) {
    TempHome home;
    auto list = runVell(home, "recordings");
    EXPECT_EQ(list.status, 3) << list.output;
    EXPECT_NE(list.output.find("vell: Not signed in"), std::string::npos) << list.output;
    EXPECT_EQ(list.output.find("No recordings on the service yet."), std::string::npos) << list.output;
    EXPECT_EQ(runVell(home, "recordings --json").status, 3);
}

TEST(CliConventions, TheLocalIdOfARecordingNotUploadedYetSaysSo) {
    TempHome home;
    auto shown = runVell(home, "show 0d5a6c1e-2f3b-4c4d-8e9f-0a1b2c3d4e5f");
    EXPECT_EQ(shown.status, 1) << shown.output;
    EXPECT_NE(shown.output.find("vell: This recording is not on the service yet"), std::string::npos) << shown.output;
}

TEST(CliConventions, HelpVersionAndQuestionsWriteNoAutostartEntry) {
    TempHome home;
    const auto entry = home.configHome() / "autostart" / "vell.desktop";
    for (const char* args : {"--help", "--version", "help pending", "status", "pending", "calls", "insurance", "whoami"}) {
        runVell(home, args);
        EXPECT_FALSE(fs::exists(entry)) << "vell " << args << " wrote the autostart entry";
    }
}

TEST(CliConventions, TheTraysHelpAndVersionStartNothing) {
    const auto tray = binaryPath("vell-tray");
    if (!fs::exists(tray)) GTEST_SKIP() << "built without the tray";
    TempHome home;
    for (const char* flag : {"--help", "--version"}) {
        // No display needed: it answers and ends.
        auto run = runCommand("env -u DISPLAY -u WAYLAND_DISPLAY QT_QPA_PLATFORM=xcb '" + tray.string() + "' " + flag + " 2>&1");
        EXPECT_EQ(run.status, 0) << flag << ": " << run.output;
        EXPECT_NE(run.output.find(std::string(flag) == "--help" ? "Usage: vell-tray" : "vell-tray 0."), std::string::npos)
            << run.output;
        EXPECT_FALSE(fs::exists(home.configHome() / "autostart")) << "vell-tray " << flag << " wrote the autostart entry";
        EXPECT_FALSE(fs::exists(paths::vellDataDirectory())) << "vell-tray " << flag << " took the data folder";
    }
}

// Run by hand in a terminal, the host says what it does there; under systemd (no terminal)
// its lines go to the journal, not onto standard error.
TEST(CliConventions, TheHostInATerminalLogsToIt) {
    TempHome home;
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(::grantpt(master), 0);
    ASSERT_EQ(::unlockpt(master), 0);
    const std::string terminal = ::ptsname(master);
    const std::string vell = binaryPath("vell").string();
    // Away from the desktop's bus: this host serves nobody.
    const char* bus = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    const std::string busBefore = bus ? bus : "";
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
    pid_t daemon = ::fork();
    if (daemon == 0) {
        const int slave = ::open(terminal.c_str(), O_RDWR | O_NOCTTY);
        ::dup2(slave, STDERR_FILENO);
        ::execl(vell.c_str(), vell.c_str(), "--lang", "en", "daemon", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    if (bus) ::setenv("DBUS_SESSION_BUS_ADDRESS", busBefore.c_str(), 1);
    ::fcntl(master, F_SETFL, O_NONBLOCK);
    std::string seen;
    const bool logged = eventually([&] {
        char buffer[4096];
        for (ssize_t n; (n = ::read(master, buffer, sizeof buffer)) > 0;) seen.append(buffer, static_cast<size_t>(n));
        return seen.find("[info] ") != std::string::npos || seen.find("[error] ") != std::string::npos;
    }, std::chrono::seconds(10));
    endProcess(daemon);
    ::close(master);
    EXPECT_TRUE(logged) << seen;
}

}  // namespace
}  // namespace vell::test
