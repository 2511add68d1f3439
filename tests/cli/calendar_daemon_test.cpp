// The calendar automation through `vell daemon`: a private session bus, a private
// PulseAudio and the reference service. A meeting in a calendar file that began half a
// minute ago starts a recording under its title; discarded, it can be brought back with
// `vell undo`.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <ctime>
#include <map>
#include <mutex>
#include <sdbus-c++/sdbus-c++.h>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/support/child_process.h"
#include "tests/support/devserver_process.h"
#include "tests/support/notification_server.h"
#include "tests/support/private_bus.h"
#include "tests/support/pulse_server.h"
#include "tests/support/temp_home.h"

extern char** environ;

namespace vell {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::NotificationServer, test::readAll;

std::string icsTime(std::chrono::system_clock::time_point t) {
    const std::time_t s = std::chrono::system_clock::to_time_t(t);
    std::tm tm{};
    gmtime_r(&s, &tm);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y%m%dT%H%M%SZ", &tm);
    return buffer;
}


class CalendarDaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        notifications = std::make_unique<NotificationServer>();
        drainer = test::spawnLogged({"parec", "--device=fakemic", "--raw", "/dev/null"}, home.tmp() / "drainer.out");
        daemon = test::spawnLogged({vell(), "--lang", "en", "-v", "daemon"}, daemonLog());
        ASSERT_GT(daemon, 0);
        for (int i = 0; i < 100; ++i) {
            if (run("status --json").output.find("\"host\":true") != std::string::npos) return;
            std::this_thread::sleep_for(100ms);
        }
        FAIL() << "the host did not come up:\n" << readAll(daemonLog());
    }
    void TearDown() override {
        for (pid_t pid : {daemon, drainer}) {
            if (pid <= 0) continue;
            ::kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    std::string vell() const { return test::binaryPath("vell").string(); }
    fs::path daemonLog() const { return home.tmp() / "daemon.log"; }
    test::CommandResult run(const std::string& arguments, const std::string& input = "") {
        std::string command = vell() + " --lang en " + arguments + " 2>&1";
        if (!input.empty()) command = "printf '%s\\n' '" + input + "' | " + command;
        return test::runCommand(command);
    }
    nlohmann::json calendarStatus() {
        auto status = run("calendar status --json");
        EXPECT_EQ(status.status, 0) << status.output;
        auto json = nlohmann::json::parse(status.output.substr(status.output.find('{')), nullptr, false);
        return json.is_object() ? json : nlohmann::json::object();
    }

    test::TempHome home;
    test::PrivateBus bus;
    test::PulseServer pulse;
    test::DevServer server{{.users = {"a@vell.test:pw-a"}}};
    std::unique_ptr<NotificationServer> notifications;
    pid_t drainer = -1;
    pid_t daemon = -1;
};

TEST_F(CalendarDaemonTest, AMeetingUnderWayStartsARecordingUnderItsTitleAndADiscardCanBeUndone) {
    ASSERT_EQ(run("login --email a@vell.test", "pw-a").status, 0);

    const auto now = std::chrono::system_clock::now();
    const fs::path ics = home.root() / "work.ics";
    std::ofstream(ics) << "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vell tests//EN\r\n"
                          "BEGIN:VEVENT\r\nUID:standup-1\r\nDTSTAMP:" << icsTime(now) << "\r\n"
                       << "DTSTART:" << icsTime(now - 30s) << "\r\nDTEND:" << icsTime(now + 1h) << "\r\n"
                       << "SUMMARY:Standup with Bruno\r\n"
                          "ATTENDEE;PARTSTAT=ACCEPTED:mailto:a@vell.test\r\n"
                          "ATTENDEE;PARTSTAT=ACCEPTED:mailto:bruno@example.com\r\n"
                          "END:VEVENT\r\nEND:VCALENDAR\r\n";
    auto added = run("calendar add " + ics.string());
    ASSERT_EQ(added.status, 0) << added.output;
    auto upcoming = run("calendar upcoming");
    EXPECT_NE(upcoming.output.find("Standup with Bruno  will be recorded"), std::string::npos) << upcoming.output;
    ASSERT_EQ(run("calendar on").status, 0);

    // Within one tick (15 s) the host records it under the meeting's title.
    nlohmann::json status;
    for (int i = 0; i < 200 && !status["recordingMeeting"].is_string(); ++i) {
        std::this_thread::sleep_for(100ms);
        status = calendarStatus();
    }
    ASSERT_EQ(status["recordingMeeting"], "Standup with Bruno") << readAll(daemonLog());
    EXPECT_NE(run("status").output.find("Meeting: Standup with Bruno"), std::string::npos);
    // The notification offers Delete; choosing it discards the recording, undoably.
    const std::string title = "Recording \u201cStandup with Bruno\u201d";
    std::optional<NotificationServer::Shown> shown;
    for (int i = 0; i < 50 && !shown; ++i) {
        std::this_thread::sleep_for(100ms);
        shown = notifications->find(title);
    }
    ASSERT_TRUE(shown) << readAll(daemonLog());
    EXPECT_EQ(shown->body, "Started from your calendar. Delete it if it's the wrong moment.");
    ASSERT_NE(std::find(shown->actions.begin(), shown->actions.end(), "app.quillon.mac.deleteRecording"), shown->actions.end());
    notifications->click(shown->id, "app.quillon.mac.deleteRecording");
    for (int i = 0; i < 50 && calendarStatus()["recordingMeeting"].is_string(); ++i) std::this_thread::sleep_for(100ms);
    status = calendarStatus();
    ASSERT_TRUE(status["undo"].contains("takeID")) << status.dump();
    EXPECT_EQ(status["undo"]["meeting"], "Standup with Bruno");
    EXPECT_GT(status["undo"]["secondsLeft"].get<double>(), 250);
    const std::string id = status["undo"]["takeID"];
    auto pending = nlohmann::json::parse(run("pending --json").output);
    ASSERT_EQ(pending.size(), 1u);
    EXPECT_EQ(pending[0]["status"], "discarded");

    auto undo = run("undo");
    ASSERT_EQ(undo.status, 0) << undo.output;
    EXPECT_NE(undo.output.find("Standup with Bruno"), std::string::npos) << undo.output;
    pending = nlohmann::json::parse(run("pending --json").output);
    ASSERT_EQ(pending.size(), 1u);
    EXPECT_EQ(pending[0]["id"], id);
    EXPECT_NE(pending[0]["status"], "discarded");
    EXPECT_FALSE(calendarStatus()["undo"].contains("takeID"));

    // The meeting was handled: it does not start again while it goes on.
    std::this_thread::sleep_for(16s);
    EXPECT_FALSE(calendarStatus()["recordingMeeting"].is_string());
    auto again = run("undo");
    EXPECT_NE(again.status, 0);
    EXPECT_NE(again.output.find("There is no discarded recording to undo."), std::string::npos) << again.output;
}

TEST_F(CalendarDaemonTest, HostileCalendarsAreSkippedWithASentenceAndTheHostKeepsRunning) {
    ASSERT_EQ(run("login --email a@vell.test", "pw-a").status, 0);
    const auto now = std::chrono::system_clock::now();
    // Nested 200,000 deep: refused before it is parsed, shown with its reason.
    const fs::path deep = home.root() / "deep.ics";
    {
        std::ofstream out(deep);
        out << "BEGIN:VCALENDAR\r\n";
        for (int i = 0; i < 200'000; ++i) out << "BEGIN:VEVENT\r\n";
    }
    // A meeting under way whose title and UID are not UTF-8.
    const fs::path mangled = home.root() / "mangled.ics";
    std::ofstream(mangled) << "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nBEGIN:VEVENT\r\nUID:id-\xff\xfe\r\n"
                           << "DTSTART:" << icsTime(now - 30s) << "\r\nDTEND:" << icsTime(now + 1h) << "\r\n"
                           << "SUMMARY:Review \xc3\x28 plan\r\nATTENDEE:mailto:bruno@example.com\r\n"
                           << "END:VEVENT\r\nEND:VCALENDAR\r\n";
    for (const auto& file : {deep, mangled}) {
        auto added = run("calendar add " + file.string());
        ASSERT_EQ(added.status, 0) << added.output << readAll(daemonLog());
    }
    ASSERT_EQ(run("calendar on").status, 0);
    nlohmann::json status;
    for (int i = 0; i < 200 && !status["recordingMeeting"].is_string(); ++i) {
        std::this_thread::sleep_for(100ms);
        status = calendarStatus();
    }
    ASSERT_EQ(status["recordingMeeting"], "Review \uFFFD( plan") << readAll(daemonLog());
    auto sourcesJson = run("calendar list --json");
    auto sources = nlohmann::json::parse(sourcesJson.output.substr(sourcesJson.output.find('[')), nullptr, false);
    ASSERT_TRUE(sources.is_array() && sources.size() == 2u) << sourcesJson.output;
    EXPECT_FALSE(sources[0]["readable"].get<bool>());
    EXPECT_NE(sources[0]["error"].get<std::string>().find("nests"), std::string::npos) << sources.dump();
    auto listed = run("calendar list");
    EXPECT_NE(listed.output.find("nests"), std::string::npos) << listed.output;
    EXPECT_EQ(::waitpid(daemon, nullptr, WNOHANG), 0) << readAll(daemonLog());

    // And it starts again with both calendars configured.
    ::kill(daemon, SIGTERM);
    int exit = 0;
    waitpid(daemon, &exit, 0);
    daemon = test::spawnLogged({vell(), "--lang", "en", "-v", "daemon"}, daemonLog());
    bool up = false;
    for (int i = 0; i < 100 && !up; ++i) {
        up = run("status --json").output.find("\"host\":true") != std::string::npos;
        if (!up) std::this_thread::sleep_for(100ms);
    }
    EXPECT_TRUE(up) << readAll(daemonLog());
    EXPECT_NE(run("calendar list").output.find("nests"), std::string::npos);
}

}  // namespace
}  // namespace vell
