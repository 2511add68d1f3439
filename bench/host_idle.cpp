// The idle host: `vell daemon` with nothing recording and no automation enabled, measured
// over N seconds (default 60) for its CPU share of one core, its wake-ups per second (the
// context switches of all its threads) and its peak RSS, beside a `sleep` process measured
// over the same time. It runs on a private PulseAudio server, a private session bus and a
// private XDG home, signed out.
// Usage: bench_host_idle [seconds]
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>
#include "app/composition.h"

#include "bench/process_sample.h"

namespace {

namespace fs = std::filesystem;

using namespace vell::bench;

}  // namespace

int main(int argc, char** argv) {
    vell::app::installPlatformBindings();
    const double seconds = argc > 1 ? std::atof(argv[1]) : 60;
    const fs::path vell = fs::path(VELL_BINARY_DIR) / "vell";
    const fs::path dir = fs::temp_directory_path() / ("vell-bench-host-" + std::to_string(getpid()));
    fs::create_directories(dir / "run");
    fs::permissions(dir / "run", fs::perms::owner_all);
    setenv("XDG_RUNTIME_DIR", (dir / "run").c_str(), 1);
    setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
    setenv("TMPDIR", (dir / "tmp").c_str(), 1);
    fs::create_directories(dir / "tmp");
    unsetenv("PULSE_SERVER");
    if (sh("pulseaudio --daemonize=yes -n --exit-idle-time=-1 --disallow-exit --load=module-native-protocol-unix "
           "--load='module-null-sink sink_name=speakers' >/dev/null 2>&1") != 0) {
        std::fprintf(stderr, "bench_host_idle: cannot start pulseaudio\n");
        return 1;
    }
    const pid_t busPid = startPrivateBus(dir);

    // No automation enabled: the call recorder is on by default and polls every second.
    fs::create_directories(dir / "config" / "Vell");
    std::ofstream(dir / "config" / "Vell" / "defaults.json") << R"({"app.quillon.mac.autoRecordCalls":false})";
    const pid_t host = spawn({vell.string(), "daemon"}, dir / "daemon.log");
    const pid_t peer = spawn({"sleep", std::to_string(int(seconds) + 30)}, dir / "sleep.log");
    std::this_thread::sleep_for(std::chrono::seconds(3));  // past the start-up
    const Sample hostStart = sample(host), peerStart = sample(peer);
    const auto begin = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    const Sample hostEnd = sample(host), peerEnd = sample(peer);

    ::kill(host, SIGTERM);
    waitpid(host, nullptr, 0);
    ::kill(peer, SIGKILL);
    waitpid(peer, nullptr, 0);
    if (busPid > 0) ::kill(busPid, SIGTERM);
    sh("pulseaudio --kill 2>/dev/null");
    std::error_code ec;
    fs::remove_all(dir, ec);

    const double hostCpu = 100 * (hostEnd.cpuSeconds - hostStart.cpuSeconds) / wall;
    const double peerCpu = 100 * (peerEnd.cpuSeconds - peerStart.cpuSeconds) / wall;
    const double hostWakes = double(hostEnd.switches - hostStart.switches) / wall;
    const double peerWakes = double(peerEnd.switches - peerStart.switches) / wall;
    std::printf("idle host over %.0f s (CPU at the clock tick's resolution, 10 ms):\n", wall);
    std::printf("  vell daemon: %.3f %% of a core, %.2f wake-ups/s, peak RSS %.1f MiB (PSS %.1f MiB)\n", hostCpu,
                hostWakes, double(hostEnd.peakRssKiB) / 1024, double(hostEnd.pssKiB) / 1024);
    std::printf("  sleep      : %.3f %% of a core, %.2f wake-ups/s, peak RSS %.1f MiB\n", peerCpu, peerWakes,
                double(peerEnd.peakRssKiB) / 1024);
    std::printf("  goals: < 0.1 %% of a core, < 2 wake-ups/s, < 30 MiB peak RSS\n");
    return 0;
}
