// bench_calendar [events] [series]: loading and expanding a large calendar for the 15 s
// tick of the calendar recorder (one day back, 60 s ahead), our libical layer beside
// Debian's python3-icalendar with python3-recurring-ical-events doing the same expansion of
// the same file. Default 5,000 events of which 200 are weekly series (a year old, with
// EXDATEs and moved or cancelled instances), in UTC, floating-free TZIDs with their
// VTIMEZONE, and all-day events. Each side runs in its own process: the time is the median
// of 5 reads-and-expansions of the file (the first, cold one shown too), the memory its peak
// resident size and the growth over what the process held before reading the file.
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/manual_executor.h"
#include "base/user_defaults.h"
#include "bench/process_sample.h"
#include "platform/calendar/ical_expand.h"
#include "platform/calendar/ics_calendar_source.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kRounds = 5;

std::string stamp(std::time_t t) {
    std::tm utc{};
    gmtime_r(&t, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &utc);
    return text;
}
std::string local(std::time_t t) {  // the same wall-clock digits, without the Z (for TZID)
    std::string s = stamp(t);
    s.pop_back();
    return s;
}
std::string day(std::time_t t) { return stamp(t).substr(0, 8); }

const char* kZones =
    "BEGIN:VTIMEZONE\r\nTZID:Europe/Berlin\r\nBEGIN:DAYLIGHT\r\nTZOFFSETFROM:+0100\r\nTZOFFSETTO:+0200\r\nTZNAME:CEST\r\n"
    "DTSTART:19700329T020000\r\nRRULE:FREQ=YEARLY;BYMONTH=3;BYDAY=-1SU\r\nEND:DAYLIGHT\r\nBEGIN:STANDARD\r\n"
    "TZOFFSETFROM:+0200\r\nTZOFFSETTO:+0100\r\nTZNAME:CET\r\nDTSTART:19701025T030000\r\nRRULE:FREQ=YEARLY;BYMONTH=10;BYDAY=-1SU\r\n"
    "END:STANDARD\r\nEND:VTIMEZONE\r\n"
    "BEGIN:VTIMEZONE\r\nTZID:America/New_York\r\nBEGIN:DAYLIGHT\r\nTZOFFSETFROM:-0500\r\nTZOFFSETTO:-0400\r\nTZNAME:EDT\r\n"
    "DTSTART:19700308T020000\r\nRRULE:FREQ=YEARLY;BYMONTH=3;BYDAY=2SU\r\nEND:DAYLIGHT\r\nBEGIN:STANDARD\r\n"
    "TZOFFSETFROM:-0400\r\nTZOFFSETTO:-0500\r\nTZNAME:EST\r\nDTSTART:19701101T020000\r\nRRULE:FREQ=YEARLY;BYMONTH=11;BYDAY=1SU\r\n"
    "END:STANDARD\r\nEND:VTIMEZONE\r\n";

// Events spread over 120 days around `now`; series weekly from a year back, each with two
// EXDATEs, one moved and one cancelled instance; some fall in the window by construction.
std::string makeCalendar(int events, int series, std::time_t now) {
    std::ostringstream out;
    out << "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vell//bench//EN\r\n" << kZones;
    const char* zones[] = {nullptr, "Europe/Berlin", "America/New_York"};
    auto start = [&](const char* zone, std::time_t t) {
        return zone ? std::string(";TZID=") + zone + ":" + local(t) : ":" + stamp(t);
    };
    for (int i = 0; i < events - series; ++i) {
        const std::time_t t = now - 60 * 86400 + std::time_t(i) * (120LL * 86400 / (events - series)) - (i % 7) * 60;
        out << "BEGIN:VEVENT\r\nUID:single-" << i << "@bench\r\nDTSTAMP:" << stamp(now) << "\r\n";
        if (i % 50 == 0) {
            out << "DTSTART;VALUE=DATE:" << day(t) << "\r\nDTEND;VALUE=DATE:" << day(t + 86400) << "\r\n";
        } else {
            const char* zone = zones[i % 3];
            out << "DTSTART" << start(zone, t) << "\r\nDTEND" << start(zone, t + 1800) << "\r\n";
        }
        out << "SUMMARY:Meeting " << i << "\r\nLOCATION:https://meet.example.com/" << i << "\r\n";
        if (i % 3 == 0) out << "ATTENDEE;PARTSTAT=ACCEPTED:mailto:me@example.com\r\nATTENDEE:mailto:other" << i << "@example.com\r\n";
        if (i % 40 == 0) out << "STATUS:CANCELLED\r\n";
        out << "END:VEVENT\r\n";
    }
    for (int s = 0; s < series; ++s) {
        // Weekly, a year back, at a time of day that puts some instance near now.
        const std::time_t first = now - 364 * 86400 - (s % 7) * 86400 - (s % 24) * 3600 + 600;
        const char* zone = zones[s % 3];
        out << "BEGIN:VEVENT\r\nUID:series-" << s << "@bench\r\nDTSTAMP:" << stamp(now) << "\r\nDTSTART" << start(zone, first)
            << "\r\nDTEND" << start(zone, first + 3600) << "\r\nSUMMARY:Weekly " << s << "\r\n";
        out << (s % 4 == 0 ? "RRULE:FREQ=WEEKLY;COUNT=80\r\n" : "RRULE:FREQ=WEEKLY\r\n");
        out << "EXDATE" << start(zone, first + 7 * 86400 * 3) << "\r\nEXDATE" << start(zone, first + 7 * 86400 * 10) << "\r\n";
        out << "ATTENDEE:mailto:me@example.com\r\nATTENDEE:mailto:team" << s << "@example.com\r\nEND:VEVENT\r\n";
        // One instance moved by an hour, one cancelled.
        out << "BEGIN:VEVENT\r\nUID:series-" << s << "@bench\r\nDTSTAMP:" << stamp(now) << "\r\nRECURRENCE-ID"
            << start(zone, first + 7 * 86400 * 20) << "\r\nDTSTART" << start(zone, first + 7 * 86400 * 20 + 3600)
            << "\r\nDTEND" << start(zone, first + 7 * 86400 * 20 + 7200) << "\r\nSUMMARY:Weekly " << s << " (moved)\r\nEND:VEVENT\r\n";
        out << "BEGIN:VEVENT\r\nUID:series-" << s << "@bench\r\nDTSTAMP:" << stamp(now) << "\r\nRECURRENCE-ID"
            << start(zone, first + 7 * 86400 * 30) << "\r\nDTSTART" << start(zone, first + 7 * 86400 * 30)
            << "\r\nDTEND" << start(zone, first + 7 * 86400 * 30 + 3600) << "\r\nSTATUS:CANCELLED\r\nSUMMARY:Weekly " << s
            << "\r\nEND:VEVENT\r\n";
    }
    out << "END:VCALENDAR\r\n";
    return out.str();
}

long statusKiB(const char* key) { return vell::bench::field("/proc/self/status", key); }

// The child that measures our side: prints "count cold_ms median_ms peak_kib base_kib".
int runOurs(const std::string& file, double from, double to) {
    const long base = statusKiB("VmRSS:");
    std::vector<double> times;
    size_t count = 0;
    for (int round = 0; round < kRounds; ++round) {
        const auto began = Clock::now();
        std::ifstream in(file, std::ios::binary);
        const std::string text((std::istreambuf_iterator<char>(in)), {});
        auto expanded = vell::calendar::expandCalendar(text, vell::wallTimeFromSeconds(from), vell::wallTimeFromSeconds(to),
                                                      {"me@example.com"});
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - began).count());
        if (!expanded) {
            std::fprintf(stderr, "%s\n", expanded.error().c_str());
            return 1;
        }
        count = expanded->meetings.size();
    }
    const double cold = times[0];
    std::sort(times.begin(), times.end());
    std::printf("%zu %.3f %.3f %ld %ld\n", count, cold, times[kRounds / 2], statusKiB("VmHWM:"), base);
    return 0;
}

// The recorder's 15 s tick as the calendar source serves it: the first tick reads and
// expands the file, later ones reuse that expansion while the file is unchanged. Prints
// "first_ms median_ms".
struct Tick {
    double firstMs = 0, medianMs = 0;
};
Tick measureTick(const fs::path& file) {
    const fs::path dir = file.string() + ".source";
    fs::create_directories(dir);
    vell::UserDefaults defaults(dir / "defaults.json");
    (void)vell::calendar::addSource(defaults, file.string());
    vell::SystemClock clock;
    vell::ManualClock idle;
    vell::ManualExecutor main(idle);  // downloads only; a file source never posts
    vell::calendar::IcsCalendarSource source(defaults, dir / "cache", [] { return std::vector<std::string>{"me@example.com"}; },
                                            main, clock);
    std::vector<double> times;
    for (int round = 0; round < 21; ++round) {
        const auto now = clock.now();
        const auto began = Clock::now();
        (void)source.events(now - std::chrono::hours(24), now + std::chrono::seconds(60));
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - began).count());
    }
    Tick tick{times[0], 0};
    times.erase(times.begin());
    std::sort(times.begin(), times.end());
    tick.medianMs = times[times.size() / 2];
    fs::remove_all(dir);
    return tick;
}

const char* kPeer = R"(import sys, time, datetime
import icalendar, recurring_ical_events
def kib(key):
    for line in open('/proc/self/status'):
        if line.startswith(key): return int(line.split()[1])
base = kib('VmRSS:')
path, start, end = sys.argv[1], float(sys.argv[2]), float(sys.argv[3])
a = datetime.datetime.fromtimestamp(start, datetime.timezone.utc)
b = datetime.datetime.fromtimestamp(end, datetime.timezone.utc)
times = []
for r in range(5):
    t = time.perf_counter()
    cal = icalendar.Calendar.from_ical(open(path, 'rb').read())
    found = recurring_ical_events.of(cal).between(a, b)
    times.append((time.perf_counter() - t) * 1000)
cold = times[0]
times.sort()
print(len(found), '%.3f' % cold, '%.3f' % times[2], kib('VmHWM:'), base)
)";

struct Side {
    size_t count = 0;
    double coldMs = 0, medianMs = 0;
    long peakKiB = 0, baseKiB = 0;
    bool ok = false;
};

Side measure(const std::string& command) {
    Side side;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return side;
    side.ok = std::fscanf(pipe, "%zu %lf %lf %ld %ld", &side.count, &side.coldMs, &side.medianMs, &side.peakKiB, &side.baseKiB) == 5;
    side.ok = ::pclose(pipe) == 0 && side.ok;
    return side;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::string(argv[1]) == "--ours") return runOurs(argv[2], std::atof(argv[3]), std::atof(argv[4]));
    const int events = argc > 1 ? std::atoi(argv[1]) : 5000;
    const int series = argc > 2 ? std::atoi(argv[2]) : 200;
    const std::time_t now = std::time(nullptr);
    const fs::path file = fs::temp_directory_path() / ("bench_calendar_" + std::to_string(::getpid()) + ".ics");
    const std::string text = makeCalendar(events, series, now);
    std::ofstream(file, std::ios::binary) << text;
    // The calendar recorder's fetch window: one day back, 60 s ahead.
    const double from = double(now) - 86400, to = double(now) + 60;
    const std::string window = " " + std::to_string(from) + " " + std::to_string(to);
    const Side ours = measure("'" + std::string(argv[0]) + "' --ours '" + file.string() + "'" + window);
    const fs::path script = file.string() + ".py";
    std::ofstream(script) << kPeer;
    // Debian's interpreter, where the Debian packages are (not one a version manager put first).
    const Side peer = measure("/usr/bin/python3 '" + script.string() + "' '" + file.string() + "'" + window);
    const Tick tick = measureTick(file);
    fs::remove(file);
    fs::remove(script);
    if (!ours.ok || !peer.ok) {
        std::fprintf(stderr, "a side failed (ours %d, peer %d); the peer needs python3-icalendar and python3-recurring-ical-events\n",
                     ours.ok, peer.ok);
        return 1;
    }
    std::printf("calendar: %d events, %d weekly series, %.1f MB; window one day back to 60 s ahead\n", events, series,
                double(text.size()) / 1e6);
    std::printf("%-34s %8s %10s %10s %10s %10s\n", "", "found", "cold ms", "median ms", "peak MiB", "growth MiB");
    auto row = [](const char* name, const Side& s) {
        std::printf("%-34s %8zu %10.1f %10.1f %10.1f %10.1f\n", name, s.count, s.coldMs, s.medianMs, s.peakKiB / 1024.0,
                    (s.peakKiB - s.baseKiB) / 1024.0);
    };
    row("vell (libical)", ours);
    row("python3-icalendar + recurring", peer);
    std::printf("ratio (vell / peer): time %.3f (cold %.3f), peak memory %.3f, growth %.3f\n", ours.medianMs / peer.medianMs,
                ours.coldMs / peer.coldMs, double(ours.peakKiB) / peer.peakKiB,
                double(ours.peakKiB - ours.baseKiB) / std::max(1L, peer.peakKiB - peer.baseKiB));
    std::printf("the 15 s tick through the calendar source: first %.1f ms (reads and expands), then %.3f ms (median of 20)\n",
                tick.firstMs, tick.medianMs);
    std::printf("goals: time under 0.1 x the peer (%s), the tick's read under 50 ms (%s)\n",
                ours.medianMs < 0.1 * peer.medianMs ? "met" : "not met", tick.medianMs < 50 ? "met" : "not met");
    return 0;
}
