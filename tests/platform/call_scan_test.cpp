// Who uses audio, read from a real private PulseAudio: clients started as call programs,
// desktop components and this process itself.
#include "platform/pulse/call_scan.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <thread>

#include "platform/pulse/call_identifiers.h"
#include "tests/support/pulse_server.h"

extern char** environ;

namespace vell::pulse {
namespace {

using automation::Caller;
using automation::CallerScan;

// A sound client in the background, named by its PULSE_PROP properties ("key=value key2='two words'");
// killed at the end.
class Client {
public:
    explicit Client(const std::string& shellCommand) {
        const char* argv[] = {"/bin/sh", "-c", shellCommand.c_str(), nullptr};
        if (posix_spawn(&pid_, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) pid_ = -1;
    }
    ~Client() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
        }
    }

private:
    pid_t pid_ = -1;
};

Client recorder(const std::string& props) {
    return Client("PULSE_PROP=\"" + props + "\" exec pacat --record --raw -d fakemic > /dev/null");
}
Client player(const std::string& props) {
    return Client("PULSE_PROP=\"" + props + "\" exec pacat --playback --raw -d speakers < /dev/zero");
}

// Looks until the scan shows what is wanted (the clients need a moment to connect).
std::optional<CallerScan> scanUntil(PulseCallScanner& scanner, const std::function<bool(const CallerScan&)>& wanted) {
    std::optional<CallerScan> scan;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    do {
        scan = scanner.scanNow();
        if (scan && wanted(*scan)) return scan;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    } while (std::chrono::steady_clock::now() < deadline);
    return scan;
}

int streams(test::PulseServer& pulse) {
    auto count = [&](const char* kind) {
        auto r = pulse.pactl(std::string("list short ") + kind);
        return int(std::count(r.output.begin(), r.output.end(), '\n'));
    };
    return count("source-outputs") + count("sink-inputs");
}

TEST(CallScan, ACallProgramRecordingAndPlayingIsOneCaller) {
    test::PulseServer pulse;
    PulseCallScanner scanner;
    auto idle = scanner.scanNow();
    ASSERT_TRUE(idle);
    EXPECT_TRUE(idle->callers.empty());
    EXPECT_TRUE(idle->allProcessesClassified);

    auto mic = recorder("application.process.binary=zoom");
    auto scan = scanUntil(scanner, [](const CallerScan& s) { return !s.callers.empty(); });
    ASSERT_TRUE(scan && scan->callers.size() == 1u);
    EXPECT_EQ(scan->callers.begin()->bundleID, "us.zoom.xos");
    EXPECT_FALSE(scan->callers.begin()->isRunningOutput) << "holding the microphone, nothing plays";
    EXPECT_TRUE(scan->callers.begin()->outputKnown);

    auto speakers = player("application.process.binary=zoom application.name='Zoom Meetings'");
    scan = scanUntil(scanner, [](const CallerScan& s) { return !s.callers.empty() && s.callers.begin()->isRunningOutput; });
    ASSERT_TRUE(scan && scan->callers.size() == 1u);
    EXPECT_EQ(scan->callers.begin()->bundleID, "us.zoom.xos") << "both clients are one caller";
    EXPECT_TRUE(scan->callers.begin()->isRunningOutput);
    EXPECT_TRUE(scan->allProcessesClassified);
}

TEST(CallScan, ApplicationIdsAndUnknownProgramsAreCallers) {
    test::PulseServer pulse;
    PulseCallScanner scanner;
    // pacat names itself, over what the environment says.
    auto flatpak = recorder("application.id=us.zoom.Zoom application.name=Zoom");
    auto other = recorder("application.process.binary=newcaller");
    auto scan = scanUntil(scanner, [](const CallerScan& s) { return s.callers.size() == 2; });
    ASSERT_TRUE(scan);
    std::vector<std::string> ids;
    for (const auto& c : scan->callers) ids.push_back(c.bundleID + "/" + c.displayName);
    EXPECT_EQ(ids, (std::vector<std::string>{"newcaller/pacat", "us.zoom.Zoom/pacat"}));
}

TEST(CallScan, DesktopComponentsAndVellItselfAreNeverCallers) {
    test::PulseServer pulse;
    PulseCallScanner scanner;
    auto speech = recorder("application.process.binary=speech-dispatcher");
    auto speech2 = player("application.process.binary=speech-dispatcher");
    auto meter = recorder("application.id=org.PulseAudio.pavucontrol");
    auto self = recorder("application.process.binary=vell");
    auto selfOut = player("application.process.binary=vell");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (streams(pulse) < 5 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ASSERT_EQ(streams(pulse), 5);
    auto scan = scanner.scanNow();
    ASSERT_TRUE(scan);
    EXPECT_TRUE(scan->callers.empty());
    EXPECT_TRUE(scan->allProcessesClassified);
}

TEST(CallScan, TheSoundServerGoneIsNoScan) {
    test::PulseServer pulse;
    PulseCallScanner scanner;
    ASSERT_TRUE(scanner.scanNow());
    pulse.kill();
    EXPECT_FALSE(scanner.scanNow());
}

TEST(CallScan, ScansRunOnTheirQueueAndAnswerOnce) {
    test::PulseServer pulse;
    PulseCallScanner scanner;
    std::promise<std::optional<CallerScan>> answered;
    scanner.scan([&](std::optional<CallerScan> s) { answered.set_value(std::move(s)); });
    auto future = answered.get_future();
    ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_TRUE(future.get());
}

TEST(CallIdentifiers, BinariesMapToTheIdentifiersTheListsKnow) {
    struct Row {
        const char* binary;
        const char* id;
    };
    for (auto [binary, id] : std::initializer_list<Row>{
             {"zoom", "us.zoom.xos"},
             {"firefox", "org.mozilla.firefox"},
             {"firefox-esr", "org.mozilla.firefox"},
             {"chrome", "com.google.chrome"},
             {"google-chrome", "com.google.chrome"},
             {"chromium", "org.chromium.chromium"},
             {"brave", "com.brave.browser"},
             {"msedge", "com.microsoft.edgemac"},
             {"teams", "com.microsoft.teams2"},
             {"teams-for-linux", "com.microsoft.teams2"},
             {"slack", "com.tinyspeck.slackmacgap"},
             {"Discord", "com.hnc.discord"},
             {"signal-desktop", "org.whispersystems.signal-desktop"},
             {"telegram-desktop", "org.telegram.desktop"},
             {"element-desktop", "im.riot.app"},
             {"skypeforlinux", "com.skype.skype"},
             {"webex", "com.cisco.webex"},
             {"obs", "com.obsproject.obs-studio"},
             {"audacity", "com.audacityteam.audacity"},
             {"python3", "org.python.python"},
             {"vell", "app.quillon.mac"},
             {"vell-tray", "app.quillon.mac"},
             {"some-new-app", "some-new-app"},
         }) {
        EXPECT_EQ(identifierOfBinary(binary), id) << binary;
    }
}

TEST(CallIdentifiers, SandboxAndOwnIdsComeFirst) {
    EXPECT_EQ(identifierOf({"com.discordapp.Discord", "x", "Discord", "42"}, "7"), "com.discordapp.Discord");
    EXPECT_EQ(identifierOf({"", "us.zoom.Zoom", "zoom", "42"}, "7"), "us.zoom.Zoom");
    EXPECT_EQ(identifierOf({"", "", "zoom", "42"}, "7"), "us.zoom.xos");
    EXPECT_EQ(identifierOf({"", "", "zoom", "7"}, "7"), "app.quillon.mac") << "this process is Vell";
    EXPECT_EQ(identifierOf({}, "7"), "");
}

}  // namespace
}  // namespace vell::pulse
