#include <gtest/gtest.h>

#include <cerrno>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "base/files.h"
#include "base/manual_executor.h"
#include "base/preference_keys.h"
#include "base/runtime.h"
#include "platform/calendar/ics_calendar_source.h"
#include "tests/support/temp_home.h"

namespace vell::calendar {
namespace {

namespace fs = std::filesystem;
using automation::CalendarAccess;

const fs::path kFixtures = fs::path(VELL_SOURCE_DIR) / "tests/platform/calendars";

// The Python subscription server over a folder of the test's own.
class CalendarServer {
public:
    explicit CalendarServer(fs::path folder) : folder_(std::move(folder)) {
        int out[2];
        EXPECT_EQ(pipe(out), 0);
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], 1);
            close(out[0]);
            execlp("python3", "python3", (kFixtures / "calendar_server.py").c_str(), folder_.c_str(), nullptr);
            _exit(127);
        }
        close(out[1]);
        // The port line, read to its end (a read may be interrupted or come in pieces).
        std::string line;
        char c = 0;
        while (line.find('\n') == std::string::npos) {
            ssize_t n = read(out[0], &c, 1);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            line += c;
        }
        close(out[0]);
        port_ = std::atoi(line.c_str());
        EXPECT_GT(port_, 0);
    }
    ~CalendarServer() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
    }
    std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }
    int hits(const std::string& path) const {
        std::ifstream in(folder_ / "hits.txt");
        std::string p;
        int n;
        while (in >> p >> n)
            if (p == path) return n;
        return 0;
    }

private:
    fs::path folder_;
    pid_t pid_ = -1;
    int port_ = 0;
};

class CalendarSourceTest : public ::testing::Test {
protected:
    CalendarSourceTest() : exec(clock) { runtime::install(&exec, &clock); }
    ~CalendarSourceTest() override {
        source.reset();
        runtime::install(nullptr, nullptr);
    }
    IcsCalendarSource& make() {
        source = std::make_unique<IcsCalendarSource>(defaults(), home.dataHome() / "Vell" / "Calendars",
                                                     [] { return std::vector<std::string>{"ana@example.com"}; }, exec, clock);
        return *source;
    }
    UserDefaults& defaults() { return UserDefaults::standard(); }
    std::optional<SourceState> state(const std::string& s) {
        for (auto& st : source->states())
            if (st.source == s) return st;
        return std::nullopt;
    }
    // Runs the tick's side until the download the last access started has come back.
    void settle() {
        exec.runUntil([&] {
            for (auto& st : source->states())
                if (st.remote && !st.loadedAt && !st.error) return false;
            return true;
        });
    }

    test::TempHome home;
    ManualClock clock{std::chrono::system_clock::now()};
    ManualExecutor exec;
    std::unique_ptr<IcsCalendarSource> source;
};

TEST_F(CalendarSourceTest, SourcesAreStoredNormalisedAndRemovedByNameOrNumber) {
    EXPECT_FALSE(addSource(defaults(), "/no/such/file.ics"));
    EXPECT_FALSE(addSource(defaults(), "ftp://example.com/cal.ics"));
    EXPECT_EQ(addSource(defaults(), "webcal://example.com/cal.ics").value(), "https://example.com/cal.ics");
    auto file = addSource(defaults(), (kFixtures / "../calendars/google.ics").string());
    ASSERT_TRUE(file);
    EXPECT_EQ(*file, (kFixtures / "google.ics").string());
    EXPECT_TRUE(addSource(defaults(), *file));  // twice: kept once
    EXPECT_EQ(configuredSources(defaults()).size(), 2u);
    EXPECT_EQ(removeSource(defaults(), "1").value(), "https://example.com/cal.ics");
    EXPECT_FALSE(removeSource(defaults(), "5"));
    EXPECT_EQ(removeSource(defaults(), *file).value(), *file);
    EXPECT_TRUE(configuredSources(defaults()).empty());
}

TEST_F(CalendarSourceTest, AccessFollowsWhetherAnyCalendarCanBeReadAndABrokenEditKeepsTheLastGoodCopy) {
    auto& s = make();
    EXPECT_EQ(s.access(), CalendarAccess::notDetermined);
    const fs::path file = home.root() / "mine.ics";
    fs::copy_file(kFixtures / "not-a-calendar.html", file);
    ASSERT_TRUE(addSource(defaults(), file.string()));
    EXPECT_EQ(s.access(), CalendarAccess::denied);
    EXPECT_EQ(state(file.string())->error, "not an iCalendar file");

    fs::copy_file(kFixtures / "google.ics", file, fs::copy_options::overwrite_existing);
    fs::last_write_time(file, fs::last_write_time(file) + std::chrono::seconds(5));
    EXPECT_EQ(s.access(), CalendarAccess::granted);
    EXPECT_FALSE(state(file.string())->error);
    const auto week = s.events(WallTime{std::chrono::seconds(1'773'619'200)}, WallTime{std::chrono::seconds(1'774'224'000)});
    EXPECT_FALSE(week.empty());

    // Saved half-written: the error shows, the meetings stay.
    std::error_code ec;
    files::writeAtomically(file, "BEGIN:VCALENDAR\r\nBEGIN:VEV", ec);
    fs::last_write_time(file, fs::last_write_time(file) + std::chrono::seconds(10));
    files::writeAtomically(file, "<html>", ec);
    fs::last_write_time(file, fs::last_write_time(file) + std::chrono::seconds(20));
    EXPECT_EQ(s.access(), CalendarAccess::granted);
    EXPECT_TRUE(state(file.string())->error);
    EXPECT_EQ(s.events(WallTime{std::chrono::seconds(1'773'619'200)}, WallTime{std::chrono::seconds(1'774'224'000)}), week);
}

TEST_F(CalendarSourceTest, SubscriptionsAreDownloadedCachedRefreshedEveryFiveMinutesAndFaultsShown) {
    const fs::path served = home.root() / "served";
    fs::create_directories(served);
    fs::copy_file(kFixtures / "google.ics", served / "team.ics");
    CalendarServer server(served);
    auto& s = make();
    const std::string team = server.url("/team.ics");
    for (auto path : {"/team.ics", "/missing.ics", "/loop", "/html"}) ASSERT_TRUE(addSource(defaults(), server.url(path)));

    // The tick never waits for the network: the first access only starts the downloads.
    EXPECT_EQ(s.access(), CalendarAccess::denied);
    settle();
    EXPECT_EQ(s.access(), CalendarAccess::granted);
    EXPECT_TRUE(state(team)->readable);
    EXPECT_EQ(state(server.url("/missing.ics"))->error, "HTTP 404");
    EXPECT_EQ(state(server.url("/loop"))->error, "too many redirects");
    EXPECT_EQ(state(server.url("/html"))->error, "the address does not give a calendar");
    EXPECT_EQ(server.hits("/team.ics"), 1);

    // Ticks within five minutes read the cache only.
    for (int i = 0; i < 10; ++i) {
        clock.advance(15);
        s.access();
        exec.runPending();
    }
    EXPECT_EQ(server.hits("/team.ics"), 1);

    // After five minutes: a conditional request, answered "not modified".
    const auto firstLoad = state(team)->loadedAt;
    clock.advance(300);
    s.access();
    ASSERT_TRUE(exec.runUntil([&] { return state(team)->loadedAt != firstLoad; }));
    EXPECT_EQ(server.hits("/team.ics"), 2);
    EXPECT_FALSE(state(team)->error);

    // The calendar gone from the server: the error shows, the cached copy stays in use.
    fs::remove(served / "team.ics");
    clock.advance(300);
    s.access();
    settle();
    exec.runUntil([&] { return state(team)->error.has_value(); });
    EXPECT_EQ(state(team)->error, "HTTP 404");
    EXPECT_TRUE(state(team)->readable);
    EXPECT_EQ(s.access(), CalendarAccess::granted);
    EXPECT_EQ(server.hits("/team.ics"), 3);

    // A restart reads the cache before any download.
    source.reset();
    auto& again = make();
    EXPECT_EQ(again.access(), CalendarAccess::granted);
}

// The tick asks every 15 s for a window one day back to a minute ahead; the source expands
// a wider span once and answers from it, which must give what a fresh expansion gives.
TEST_F(CalendarSourceTest, TicksAnsweredFromTheCachedExpansionSeeMovesEditsAndLaterMeetings) {
    auto& s = make();
    const fs::path file = home.root() / "moving.ics";
    const auto at = [](WallTime t) {
        const std::time_t seconds = std::chrono::system_clock::to_time_t(t);
        char text[32];
        std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", std::gmtime(&seconds));
        return std::string(text);
    };
    const WallTime now = clock.now();
    auto write = [&](const std::vector<std::pair<std::string, WallTime>>& meetings, int stamp) {
        std::ofstream out(file, std::ios::trunc);
        out << "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//test//EN\r\n";
        for (const auto& [uid, start] : meetings) {
            out << "BEGIN:VEVENT\r\nUID:" << uid << "\r\nSUMMARY:" << uid << "\r\nDTSTART:" << at(start)
                << "\r\nDTEND:" << at(start + std::chrono::minutes(30)) << "\r\nEND:VEVENT\r\n";
        }
        out << "END:VCALENDAR\r\n";
        out.close();
        fs::last_write_time(file, fs::file_time_type::clock::now() + std::chrono::seconds(stamp));
    };
    auto titles = [&](WallTime t) {
        std::vector<std::string> out;
        for (const auto& m : s.events(t - std::chrono::hours(24), t + std::chrono::seconds(60))) out.push_back(m.title);
        return out;
    };
    write({{"soon", now + std::chrono::seconds(30)}, {"tonight", now + std::chrono::hours(10)}}, 1);
    ASSERT_TRUE(addSource(defaults(), file.string()));
    EXPECT_EQ(titles(now), std::vector<std::string>{"soon"});
    // Ten hours on, past the span the first tick expanded: the later meeting is there.
    EXPECT_EQ(titles(now + std::chrono::hours(10)), (std::vector<std::string>{"soon", "tonight"}));
    // Thirty hours on, the first meeting is more than a day old and has left the window.
    EXPECT_EQ(titles(now + std::chrono::hours(30)), std::vector<std::string>{"tonight"});
    // An edit of the file is seen at the next tick.
    write({{"moved", now + std::chrono::seconds(45)}}, 2);
    EXPECT_EQ(titles(now), std::vector<std::string>{"moved"});
}

}  // namespace
}  // namespace vell::calendar
