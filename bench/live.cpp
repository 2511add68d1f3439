// Extra cost of live advice: the same `vell record --seconds N` (default 75) on a private
// PulseAudio server, once signed out (a plain recording) and once signed in to a private
// reference service with --live (30-second segments encoded and uploaded in order, both
// sides' levels, tiles polled every 5 s), as CPU time of the vell process and the ratio of
// the two. With several rounds the two alternate and the least CPU of each is kept.
// Usage: bench_live [seconds] [rounds]
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <numbers>
#include <string>
#include <thread>
#include <vector>
#include "app/composition.h"
#include "bench/private_pulse.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using namespace vell::bench;

}  // namespace

int main(int argc, char** argv) {
    vell::app::installPlatformBindings();
    ::signal(SIGPIPE, SIG_IGN);  // the microphone pipe closes when the server stops
    const int seconds = argc > 1 ? std::max(10, std::atoi(argv[1])) : 75;
    const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 1;
    const fs::path dir = benchFolder("live");
    if (dir.empty()) return 1;
    const fs::path runtime = dir / "runtime";
    setenv("HOME", dir.c_str(), 1);
    unsetenv("DBUS_SESSION_BUS_ADDRESS");  // the session goes to the session file, no keyring
    PrivatePulse pulse;
    if (!pulse.start(runtime, "bench_live")) return 1;

    // The reference service, on a port of its own.
    const int port = 20000 + int(getpid() % 20000);
    const std::string base = "http://127.0.0.1:" + std::to_string(port) + "/";
    setenv("VELL_API_BASE_URL", base.c_str(), 1);
    const std::string devserver = std::string(VELL_BINARY_DIR) + "/devserver/vell-devserver";
    fs::create_directories(dir / "service");
    sh(devserver + " --port " + std::to_string(port) + " --data " + (dir / "service").string() + " >" +
       (dir / "service.log").string() + " 2>&1 & echo $! > " + (dir / "service.pid").string());
    std::this_thread::sleep_for(std::chrono::seconds(1));

    const fs::path tone = dir / "tone.wav";
    sh("sox -q -n -r 48000 -c 2 " + tone.string() + " synth " + std::to_string(2 * rounds * (seconds + 15) + 30) + " sine 440 vol 0.3");
    sh("paplay --device=speakers " + tone.string() + " >/dev/null 2>&1 &");
    std::this_thread::sleep_for(std::chrono::seconds(1));

    const std::string vell = std::string(VELL_BINARY_DIR) + "/vell";
    // Two homes: signed out (a plain recording) and signed in (the same recording with a live
    // session: 30-second segments encoded and uploaded, tiles polled every 5 s).
    auto home = [&](const char* name) {
        setenv("XDG_DATA_HOME", (dir / name / "data").c_str(), 1);
        setenv("XDG_CONFIG_HOME", (dir / name / "config").c_str(), 1);
    };
    home("live");
    if (sh("printf 'vell-demo\\n' | " + vell + " login --email demo@vell.local >/dev/null 2>&1") != 0) {
        std::fprintf(stderr, "bench_live: cannot sign in to the reference service\n");
    }
    std::printf("bench_live: %d s of recording (speech-like mic at 16 kHz + 48 kHz stereo tone), 30 s live segments\n", seconds);
    auto keepBest = [](Usage& best, const Usage& u, bool first) {
        const long rss = std::max(best.maxRssKiB, u.maxRssKiB);
        if (first || (u.wall > 0 && u.cpu / u.wall < best.cpu / best.wall)) best = u;
        best.maxRssKiB = rss;
    };
    Usage plain, live;
    for (int round = 0; round < rounds; ++round) {
        home("plain");
        keepBest(plain, runToEnd({vell, "record", "--seconds", std::to_string(seconds)}, dir / "plain.out"), round == 0);
        home("live");
        keepBest(live, runToEnd({vell, "record", "--live", "--seconds", std::to_string(seconds)}, dir / "live.out"), round == 0);
        if (rounds > 1) std::printf("  round %d of %d done\n", round + 1, rounds);
    }
    auto report = [](const char* name, const Usage& u) {
        std::printf("  %-36s CPU %6.2f s over %6.1f s = %5.2f %% of a core, peak RSS %6.1f MiB%s\n", name, u.cpu, u.wall,
                    u.wall > 0 ? 100 * u.cpu / u.wall : 0, double(u.maxRssKiB) / 1024,
                    WIFEXITED(u.status) && WEXITSTATUS(u.status) == 0 ? "" : "  (FAILED)");
    };
    report("vell record (signed out, plain)", plain);
    report("vell record --live (signed in)", live);
    std::fflush(stdout);
    sh("printf '  service received: ' ; grep -c '/chunk 200' " + (dir / "service.log").string() +
       " | tr -d '\\n'; printf ' segments, '; grep -c '/tiles 200' " + (dir / "service.log").string() +
       " | tr -d '\\n'; printf ' tile polls\\n'");
    if (plain.cpu > 0) std::printf("  ratio CPU live / plain: %.3f (goal: at most 1.5)\n", live.cpu / plain.cpu);

    sh("kill $(cat " + (dir / "service.pid").string() + ") 2>/dev/null");
    pulse.stop();
    std::error_code ignored;
    fs::remove_all(dir, ignored);
    return 0;
}
