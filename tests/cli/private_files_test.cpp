// Whichever program hosts Vell and whatever file mode mask it was started with, what it
// writes is the user's alone: files 0600, folders 0700, in the data, settings and temporary
// folders alike. A hang-up of the host, like any quit, erases the insurance buffer.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <nlohmann/json.hpp>

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

// Every entry under root whose mode is not 0600 (files) or 0700 (folders), with its mode.
std::vector<std::string> openToOthers(const fs::path& root) {
    std::vector<std::string> found;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
        const auto status = it->symlink_status(ec);
        if (ec || fs::is_symlink(status)) continue;
        const auto wanted = fs::is_directory(status) ? fs::perms::owner_all : fs::perms::owner_read | fs::perms::owner_write;
        if (status.permissions() != wanted) {
            char mode[8];
            std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.permissions()));
            found.push_back(fs::relative(it->path(), root).string() + " " + mode);
        }
    }
    return found;
}

bool hasFile(const fs::path& dir, std::string_view prefix = "") {
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        const auto name = it->path().filename().string();
        if (name.front() != '.' && name.starts_with(prefix)) return true;
    }
    return false;
}

struct Host {
    const char* name;
    std::string command;  // after "umask 022; exec "
};
void PrintTo(const Host& host, std::ostream* out) { *out << host.name; }

class PrivateFiles : public ::testing::TestWithParam<Host> {
protected:
    std::string vell() const { return test::binaryPath("vell").string(); }
    fs::path log() const { return home.tmp() / "host.log"; }
    fs::path data() const { return home.dataHome() / "Vell"; }
    test::CommandResult run(const std::string& arguments, const std::string& input = "") {
        const std::string command = vell() + " --lang en " + arguments + " 2>&1";
        return test::runCommand(input.empty() ? command + " </dev/null" : "printf '%s\\n' '" + input + "' | " + command);
    }

    test::TempHome home;
    test::PrivateBus bus;
    test::PulseServer pulse;
    test::DevServer server{{.users = {"a@vell.test:pw-a"}}};
};

TEST_P(PrivateFiles, EverythingTheHostWritesIsTheUsersAloneAndAHangUpErasesTheBuffer) {
    // The tray's first run is over, so it goes straight to hosting.
    home.defaults().set("app.quillon.mac.onboardingDone", true);
    home.defaults().set(prefs::kOpenAtLoginDefaultApplied, true);
    home.defaults().set(prefs::kAutoRecordCalls, false);
    pid_t host = test::spawnShell("umask 022; LANGUAGE=en QT_QPA_PLATFORM=offscreen exec " + GetParam().command, log());
    ASSERT_GT(host, 0);
    struct End {
        pid_t& pid;
        ~End() { test::endProcess(pid); }
    } end{host};
    ASSERT_TRUE(test::eventually([&] { return run("status --json").output.find("\"host\":true") != std::string::npos; }, 15s))
        << readAll(log());
    ASSERT_EQ(run("login --email a@vell.test", "pw-a").status, 0) << readAll(log());

    ASSERT_EQ(run("insurance on --accept-privacy").status, 0) << readAll(log());
    ASSERT_TRUE(test::eventually([&] { return hasFile(data() / "Insurance"); }, 10s)) << readAll(log());
    pulse.writeMic(std::vector<float>(16000 * 3, 0.3f));
    auto record = run("record --seconds 3");
    ASSERT_EQ(record.status, 0) << record.output << readAll(log());
    // Uploaded and processed: the host keeps the results.
    EXPECT_TRUE(test::eventually([&] { return hasFile(data() / "Results"); }, 30s)) << readAll(log());

    EXPECT_TRUE(hasFile(data() / "Recordings", "vell_rec_"));
    EXPECT_TRUE(fs::exists(data() / "Recordings" / "manifest.json")) << "the pending list";
    EXPECT_EQ(openToOthers(data()), std::vector<std::string>{}) << readAll(log());
    EXPECT_EQ(openToOthers(home.configHome() / "Vell"), std::vector<std::string>{});
    const fs::path temporary = fs::path(std::getenv("XDG_RUNTIME_DIR")) / "vell";
    EXPECT_EQ(fs::status(temporary).permissions(), fs::perms::owner_all);
    EXPECT_EQ(openToOthers(temporary), std::vector<std::string>{});

    ::kill(host, SIGHUP);
    int status = 0;
    ASSERT_EQ(::waitpid(host, &status, 0), host);
    host = -1;
    EXPECT_FALSE(hasFile(data() / "Insurance")) << "a hang-up quits like any quit: the buffer goes" << readAll(log());
}

INSTANTIATE_TEST_SUITE_P(Hosts, PrivateFiles,
                         ::testing::Values(Host{"daemon", test::binaryPath("vell").string() + " -v daemon"},
                                           Host{"tray", test::binaryPath("vell-tray").string()}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace vell
