// bench_tray: how fast vell-tray shows its icon and how much memory it keeps while idle,
// beside two small tray-only applications from Debian, qlipper (a Qt 5 clipboard manager)
// and qmidinet (a Qt 6 MIDI gateway, when installed), each started the same way on a
// private X server (Xvfb) and session bus. The bench stands in for the desktop's tray host:
// a StatusNotifierWatcher on that bus, so an icon counts as shown when its program
// registers it there.
//   bench_tray [RUNS]
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <sdbus-c++/sdbus-c++.h>
#include <thread>
#include <sstream>

#include "bench/process_sample.h"
#include "tests/support/status_notifier_watcher.h"

using namespace vell::bench;
using Clock = std::chrono::steady_clock;

namespace {

// Programs are measured one at a time: the first icon registered after a start is that
// program's (Qt 5 passes its service name, Qt 6 its object path).
using Watcher = vell::test::StatusNotifierWatcher;

struct Run {
    double startSeconds = -1;
    long rssKiB = 0, pssKiB = 0;
    double wakeups = 0;  // task switches a second, 6 to 10 s after the icon showed
};

long currentRss(pid_t pid) { return field("/proc/" + std::to_string(pid) + "/status", "VmRSS:"); }

Run measure(Watcher& watcher, const std::vector<std::string>& command, const fs::path& log) {
    Run run;
    const auto begin = Clock::now();
    const pid_t pid = spawn(command, log);
    if (pid <= 0) return run;
    if (auto shown = watcher.waitFor(begin, std::chrono::seconds(30))) {
        run.startSeconds = std::chrono::duration<double>(*shown - begin).count();
        std::this_thread::sleep_for(std::chrono::seconds(4));  // settled, idle
        run.rssKiB = currentRss(pid);
        run.pssKiB = sample(pid).pssKiB;
        // BENCH_KEEP: the mappings stay beside the logs, to see where the memory goes.
        if (getenv("BENCH_KEEP")) sh("cat /proc/" + std::to_string(pid) + "/smaps > '" + log.string() + ".smaps'");
        // Idle cost: how often it wakes once the launch is long over.
        std::this_thread::sleep_for(std::chrono::seconds(2));
        const long before = sample(pid).switches;
        std::this_thread::sleep_for(std::chrono::seconds(4));
        run.wakeups = double(sample(pid).switches - before) / 4;
    }
    ::kill(pid, SIGTERM);
    for (int i = 0; i < 50 && waitpid(pid, nullptr, WNOHANG) == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ::kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return run;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

// One program measured: what it is, how it starts, and its runs that showed an icon.
struct Program {
    std::string name, about;
    std::vector<std::string> command;
    std::vector<double> start, rss, pss, wakeups;
};

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    const fs::path tray = fs::path(VELL_BINARY_DIR) / "vell-tray";
    if (!fs::exists(tray) || sh("command -v qlipper >/dev/null && command -v Xvfb >/dev/null") != 0) {
        std::fprintf(stderr, "bench_tray: needs %s, qlipper and Xvfb\n", tray.c_str());
        return 1;
    }
    std::vector<std::string> trayCommand;
    // BENCH_PREFIX runs vell-tray under a tool (strace, perf record) to see where its time goes.
    if (const char* prefix = getenv("BENCH_PREFIX")) {
        std::istringstream words(prefix);
        for (std::string w; words >> w;) trayCommand.push_back(w);
    }
    trayCommand.push_back(tray.string());
    std::vector<Program> programs{{"vell-tray", "Qt 6, the host", trayCommand, {}, {}, {}},
                                  {"qlipper", "Qt 5, clipboard list", {"qlipper"}, {}, {}, {}}};
    // A Qt 6 peer too, when installed: the same toolkit's floor.
    if (sh("command -v qmidinet >/dev/null") == 0) programs.push_back({"qmidinet", "Qt 6, MIDI gateway", {"qmidinet"}, {}, {}, {}});
    else std::fprintf(stderr, "bench_tray: qmidinet is not installed; comparing with qlipper only\n");
    const fs::path dir = fs::temp_directory_path() / ("vell-bench-tray-" + std::to_string(getpid()));
    fs::create_directories(dir / "run");
    fs::permissions(dir / "run", fs::perms::owner_all);
    fs::create_directories(dir / "tmp");
    setenv("XDG_RUNTIME_DIR", (dir / "run").c_str(), 1);
    setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
    setenv("HOME", dir.c_str(), 1);
    setenv("TMPDIR", (dir / "tmp").c_str(), 1);
    setenv("QT_QPA_PLATFORM", "xcb", 1);
    unsetenv("PULSE_SERVER");
    // The tray opens straight to its icon: first run done, no automation polling.
    fs::create_directories(dir / "config" / "Vell");
    std::ofstream(dir / "config" / "Vell" / "defaults.json")
        << R"({"app.quillon.mac.onboardingDone":true,"app.quillon.mac.openAtLoginDefaultApplied":true,)"
        << R"("app.quillon.mac.autoRecordCalls":false})";
    if (sh("pulseaudio --daemonize=yes -n --exit-idle-time=-1 --disallow-exit --load=module-native-protocol-unix "
           "--load='module-null-sink sink_name=speakers' >/dev/null 2>&1") != 0) {
        std::fprintf(stderr, "bench_tray: cannot start pulseaudio\n");
        return 1;
    }
    const std::string display = ":" + std::to_string(500 + getpid() % 400);
    const pid_t x = spawn({"Xvfb", display, "-screen", "0", "1280x800x24", "-nolisten", "tcp"}, dir / "xvfb.log");
    for (int i = 0; i < 50 && !fs::exists("/tmp/.X11-unix/X" + display.substr(1)); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    setenv("DISPLAY", display.c_str(), 1);
    const pid_t busPid = startPrivateBus(dir);

    {
        Watcher watcher;
        for (int i = 0; i < runs; ++i) {
            // Alternate, so a slower moment of the machine is shared between them.
            for (auto& program : programs) {
                const auto run = measure(watcher, program.command, dir / (program.name + ".log"));
                if (run.startSeconds < 0) {
                    std::fprintf(stderr, "bench_tray: %s's icon did not show (run %d)\n", program.name.c_str(), i);
                    continue;
                }
                program.start.push_back(run.startSeconds);
                program.rss.push_back(double(run.rssKiB) / 1024);
                program.pss.push_back(double(run.pssKiB) / 1024);
                program.wakeups.push_back(run.wakeups);
            }
        }
    }
    if (busPid > 0) ::kill(busPid, SIGTERM);
    ::kill(x, SIGTERM);
    waitpid(x, nullptr, 0);
    sh("pulseaudio --kill 2>/dev/null");
    std::error_code ec;
    if (getenv("BENCH_KEEP")) std::fprintf(stderr, "kept %s\n", dir.c_str());
    else fs::remove_all(dir, ec);
    const auto& vell = programs.front();
    if (vell.start.empty()) return 1;

    std::printf("tray start-up to a registered icon and idle memory 4 s later (median of %d runs, Xvfb):\n", runs);
    for (const auto& p : programs) {
        if (p.start.empty()) continue;
        std::printf("  %-10s (%-21s): %.3f s, RSS %.1f MiB, PSS %.1f MiB, idle %.1f wake-ups/s\n", p.name.c_str(),
                    p.about.c_str(), median(p.start), median(p.rss), median(p.pss), median(p.wakeups));
    }
    for (size_t i = 1; i < programs.size(); ++i) {
        const auto& peer = programs[i];
        if (peer.start.empty()) continue;
        std::printf("  ratio vell-tray / %-9s: start %.2f x (goal <= 1), RSS %.2f x (goal <= 1.2), PSS %.2f x\n",
                    peer.name.c_str(), median(vell.start) / median(peer.start), median(vell.rss) / median(peer.rss),
                    median(vell.pss) / median(peer.pss));
    }
    return 0;
}
