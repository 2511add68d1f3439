// vell-tray end to end on an X server (Xvfb) with a private session bus, a private sound
// server and the reference service: the sign-in is typed into its window with real key
// presses, recordings are made and stopped from the main window's keys (a bare X server has
// no tray, so the main window is the way in), the first one uploads by itself, and quitting
// while the second one records asks, and "Stop and quit" leaves it ready.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <thread>
#include <nlohmann/json.hpp>

#include "app/launch_sequence.h"
#include "base/preference_keys.h"
#include "base/user_defaults.h"
#include "platform/dbus/control_client.h"
#include "tests/support/child_process.h"
#include "tests/support/devserver_process.h"
#include "tests/support/notification_server.h"
#include "tests/support/private_bus.h"
#include "tests/support/pulse_server.h"
#include "tests/support/status_notifier_watcher.h"
#include "tests/support/temp_home.h"
#include "tray/language_choice.h"
#include "tray/tray_messages.h"

namespace vell::tray {
namespace {

using vell::test::eventually;
using namespace std::chrono_literals;

bool have(const char* program) { return std::system((std::string("command -v ") + program + " >/dev/null 2>&1").c_str()) == 0; }

// An X server of its own, on a display number no one else uses.
class XServer {
public:
    explicit XServer(const std::filesystem::path& log) {
        for (int n = 90 + getpid() % 400; n < 1000 && pid_ < 0; n += 7) {
            if (std::filesystem::exists("/tmp/.X11-unix/X" + std::to_string(n))) continue;
            display_ = ":" + std::to_string(n);
            pid_ = vell::test::spawnLogged({"Xvfb", display_, "-screen", "0", "1280x800x24", "-nolisten", "tcp"}, log);
            if (!eventually([&] { return std::filesystem::exists("/tmp/.X11-unix/X" + std::to_string(n)); }, 5s)) {
                vell::test::endProcess(pid_);
            }
        }
        saved_ = getenv("DISPLAY") ? getenv("DISPLAY") : "";
        setenv("DISPLAY", display_.c_str(), 1);
    }
    ~XServer() {
        vell::test::endProcess(pid_);
        if (saved_.empty()) unsetenv("DISPLAY");
        else setenv("DISPLAY", saved_.c_str(), 1);
    }
    bool running() const { return pid_ > 0; }

private:
    pid_t pid_ = -1;
    std::string display_, saved_;
};

// xdotool against the test's X server; its output.
std::string xdo(const std::string& arguments) { return vell::test::runCommand("xdotool " + arguments + " 2>&1").output; }

// The X window whose title is exactly `title`, once it is mapped.
std::string windowNamed(const std::string& title) {
    std::string id;
    eventually([&] {
        auto out = xdo("search --onlyvisible --name '^" + title + "$'");
        id = out.substr(0, out.find('\n'));
        return !id.empty() && std::isdigit(static_cast<unsigned char>(id[0]));
    }, 10s);
    return id;
}

// X input focus on the window, arriving as a focus change even if it had the focus (a bare
// X server has no window manager to do it).
void focusWindow(const std::string& id) {
    xdo("windowfocus --sync $(xdotool search --maxdepth 0 --name '.*' | head -n1)");
    xdo("windowfocus --sync " + id);
}

nlohmann::json pendingList(dbus::ControlClient& host) {
    auto text = host.pending();
    return text ? nlohmann::json::parse(*text, nullptr, false) : nlohmann::json::array();
}

TEST(TrayEndToEnd, SignInRecordUploadAndStopAndQuit) {
    VELL_REQUIRE_DEVSERVER();
    if (!have("Xvfb") || !have("xdotool")) GTEST_SKIP() << "needs Xvfb and xdotool";
    vell::test::TempHome home;
    vell::test::PrivateBus bus;
    vell::test::PulseServer pulse;
    vell::test::DevServer::Options options;
    options.users = {"ana@example.com:right-pw"};
    vell::test::DevServer server(options);
    XServer x(home.root() / "xvfb.log");
    ASSERT_TRUE(x.running());
    // The first run's onboarding was done, so the tray opens straight away.
    home.defaults().set(kOnboardingDoneKey, true);
    home.defaults().set(prefs::kOpenAtLoginDefaultApplied, true);
    home.defaults().set(prefs::kAutoRecordCalls, false);

    const auto log = home.root() / "tray.log";
    pid_t tray = vell::test::spawnShell("QT_QPA_PLATFORM=xcb LANGUAGE=en exec " + vell::test::binaryPath("vell-tray").string() +
                                            " --open login",
                                        log);
    ASSERT_GT(tray, 0);
    struct Reap {
        pid_t& pid;
        ~Reap() { vell::test::endProcess(pid); }
    } reap{tray};
    std::unique_ptr<dbus::ControlClient> host;
    ASSERT_TRUE(eventually([&] { return (host = dbus::ControlClient::connect()) != nullptr; }, 10s)) << vell::test::readAll(log);

    // Sign in with the keyboard, in the window.
    const auto login = windowNamed("Sign in to Vell");
    ASSERT_FALSE(login.empty()) << vell::test::readAll(log);
    focusWindow(login);
    xdo("type --delay 5 'ana@example.com'");
    xdo("key Tab");
    xdo("type --delay 5 'right-pw'");
    xdo("key Return");
    ASSERT_TRUE(eventually([&] {
        auto s = host->status();
        return s && s->phase == "signedIn";
    }, 15s)) << vell::test::readAll(log);

    // Record and stop from the main window; the recording uploads by itself.
    const auto main = windowNamed("Vell");
    ASSERT_FALSE(main.empty());
    // Without a window manager nothing moves the focus when the sign-in window closes.
    focusWindow(main);
    xdo("key ctrl+r");
    ASSERT_TRUE(eventually([&] {
        auto s = host->status();
        return s && s->recording && s->elapsed >= 1.0;
    }, 10s)) << vell::test::readAll(log);
    xdo("key ctrl+r");
    ASSERT_TRUE(eventually([&] {
        auto list = pendingList(*host);
        return list.size() == 1 && list[0].value("status", "") == "uploaded";
    }, 20s)) << pendingList(*host).dump() << vell::test::readAll(log);
    EXPECT_EQ(server.recordings().size(), 1u);

    // Started again, Vell shows the window asked for instead of running twice.
    {
        pid_t again = vell::test::spawnShell("QT_QPA_PLATFORM=xcb exec " + vell::test::binaryPath("vell-tray").string() +
                                                 " --open settings",
                                             home.root() / "again.log");
        int againStatus = -1;
        ASSERT_TRUE(eventually([&] { return waitpid(again, &againStatus, WNOHANG) == again; }, 10s));
        EXPECT_TRUE(WIFEXITED(againStatus) && WEXITSTATUS(againStatus) == 0) << vell::test::readAll(home.root() / "again.log");
        EXPECT_FALSE(windowNamed("Vell Settings").empty());
        focusWindow(main);
    }

    // Quit while recording: the alert's first button stops and quits.
    xdo("key ctrl+r");
    ASSERT_TRUE(eventually([&] {
        auto s = host->status();
        return s && s->recording;
    }, 10s));
    xdo("key ctrl+q");
    // The alert is a second window titled "Vell" beside the main window.
    ASSERT_TRUE(eventually([&] {
        auto out = xdo("search --onlyvisible --name '^Vell$'");
        return std::count(out.begin(), out.end(), '\n') == 2;
    }, 5s)) << vell::test::readAll(log);
    EXPECT_TRUE(host->status()->recording) << "the alert waits for an answer";
    // Its first button, "Stop and quit", is the default one.
    xdo("key Return");
    int status = -1;
    ASSERT_TRUE(eventually([&] { return waitpid(tray, &status, WNOHANG) == tray; }, 10s)) << vell::test::readAll(log);
    tray = -1;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << vell::test::readAll(log);

    std::ifstream manifest(home.dataHome() / "Vell" / "Recordings" / "manifest.json");
    auto list = nlohmann::json::parse(manifest, nullptr, false);
    ASSERT_TRUE(list.is_array() && list.size() == 2) << list.dump();
    EXPECT_EQ(list[0]["status"], "uploaded");
    EXPECT_EQ(list[1]["status"], "ready") << "Stop and quit keeps the saved part for upload";
    // No tray on this desktop: the tip about the icon waits for one.
    home.reloadDefaults();
    EXPECT_FALSE(home.defaults().boolValue(prefs::kMenuBarTipShown).value_or(false));
}

// On a desktop with a tray, a little after the start the icon tells where Vell lives, in the
// interface language, through the desktop's notifications; once: the next start is silent.
TEST(TrayEndToEnd, TheTipAboutTheIconComesOnce) {
    if (!have("Xvfb")) GTEST_SKIP() << "needs Xvfb";
    vell::test::TempHome home;
    vell::test::PrivateBus bus;
    vell::test::PulseServer pulse;
    XServer x(home.root() / "xvfb.log");
    ASSERT_TRUE(x.running());
    vell::test::StatusNotifierWatcher trayHost;
    vell::test::NotificationServer notifications;
    home.defaults().set(kOnboardingDoneKey, true);
    home.defaults().set(prefs::kOpenAtLoginDefaultApplied, true);
    home.defaults().set(prefs::kAutoRecordCalls, false);
    home.defaults().set(kInterfaceLanguageKey, std::string("es"));
    const std::string title = std::string(messages::kMenuBarTipTitle.es);

    auto start = [&](const char* logName) {
        return vell::test::spawnShell("QT_QPA_PLATFORM=xcb exec " + vell::test::binaryPath("vell-tray").string(),
                                      home.root() / logName);
    };
    pid_t tray = start("first.log");
    ASSERT_GT(tray, 0);
    ASSERT_TRUE(eventually([&] { return notifications.count(title) == 1; }, 15s)) << vell::test::readAll(home.root() / "first.log");
    EXPECT_EQ(notifications.find(title)->body, std::string(messages::kMenuBarTipBody.es));
    EXPECT_EQ(trayHost.items(), 1) << "the tip comes from the icon in the tray";
    home.reloadDefaults();
    EXPECT_TRUE(home.defaults().boolValue(prefs::kMenuBarTipShown).value_or(false));
    vell::test::endProcess(tray);

    tray = start("second.log");
    ASSERT_GT(tray, 0);
    ASSERT_TRUE(eventually([&] { return trayHost.items() == 2; }, 15s)) << vell::test::readAll(home.root() / "second.log");
    // Past the moment the launch offers the tip.
    std::this_thread::sleep_for(std::chrono::duration<double>(app::LaunchSequence::kMenuBarTipDelaySeconds + 1.5));
    EXPECT_EQ(notifications.count(title), 1u);
    vell::test::endProcess(tray);
}

}  // namespace
}  // namespace vell::tray
