// One look at who uses audio, with 50 streams on a private PulseAudio server (25 record
// streams, 25 playback streams, each from its own client under its own program name): the
// CPU time of the call recorder's scan beside `pactl list source-outputs` plus `pactl list
// sink-inputs` reading the same streams. Then the idle host: `vell daemon` with the call
// recorder on (its default, polling every second) and nothing playing, measured over N
// seconds (default 30) for its CPU share of one core, on a private session bus.
// Usage: bench_call_scan [seconds]
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
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
#include "platform/pulse/call_scan.h"

#include "bench/process_sample.h"

namespace {

namespace fs = std::filesystem;
using namespace vell::bench;

constexpr int kStreams = 50;


double processCpu() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

// CPU seconds (user + system) a command took, with its start-up: what a script pays.
double commandCpu(const std::string& command) {
    const pid_t pid = spawnShell("exec " + command + " >/dev/null", "/dev/null");
    int status = 0;
    rusage usage{};
    if (pid <= 0 || wait4(pid, &status, 0, &usage) != pid) return 0;
    auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

int countStreams(const std::string& kind) {
    FILE* p = ::popen(("pactl list short " + kind + " 2>/dev/null | wc -l").c_str(), "r");
    int n = 0;
    if (p && std::fscanf(p, "%d", &n) != 1) n = 0;
    if (p) ::pclose(p);
    return n;
}

}  // namespace

int main(int argc, char** argv) {
    vell::app::installPlatformBindings();
    const double seconds = argc > 1 ? std::atof(argv[1]) : 30;
    const fs::path vell = fs::path(VELL_BINARY_DIR) / "vell";
    const fs::path dir = fs::temp_directory_path() / ("vell-bench-calls-" + std::to_string(getpid()));
    fs::create_directories(dir / "run");
    fs::permissions(dir / "run", fs::perms::owner_all);
    fs::create_directories(dir / "tmp");
    setenv("XDG_RUNTIME_DIR", (dir / "run").c_str(), 1);
    setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
    setenv("TMPDIR", (dir / "tmp").c_str(), 1);
    unsetenv("PULSE_SERVER");
    if (sh("pulseaudio --daemonize=yes -n --exit-idle-time=-1 --disallow-exit --load=module-native-protocol-unix "
           "--load='module-null-sink sink_name=speakers' >/dev/null 2>&1") != 0) {
        std::fprintf(stderr, "bench_call_scan: cannot start pulseaudio\n");
        return 1;
    }

    // --- One scan with 50 streams, beside pactl --------------------------------------
    std::vector<pid_t> clients;
    for (int i = 0; i < kStreams; ++i) {
        const std::string props = "PULSE_PROP='application.process.binary=app" + std::to_string(i) +
                                  " application.name=App" + std::to_string(i) + "' exec ";
        clients.push_back(i % 2 == 0
                              ? spawnShell(props + "parec -d speakers.monitor --raw >/dev/null", "/dev/null")
                              : spawnShell(props + "pacat --playback --raw -d speakers </dev/zero", "/dev/null"));
    }
    for (int tries = 0; tries < 300; ++tries) {
        if (countStreams("source-outputs") + countStreams("sink-inputs") >= kStreams) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    const int outputs = countStreams("source-outputs"), inputs = countStreams("sink-inputs");
    if (outputs + inputs < kStreams) std::fprintf(stderr, "bench_call_scan: only %d of %d streams started\n", outputs + inputs, kStreams);

    vell::pulse::PulseCallScanner scanner;
    std::size_t callers = 0;
    for (int i = 0; i < 5; ++i) scanner.scanNow();  // connects, warms up
    constexpr int kScans = 200;
    const double cpuBefore = processCpu();
    const auto wallBefore = std::chrono::steady_clock::now();
    for (int i = 0; i < kScans; ++i) {
        if (auto scan = scanner.scanNow()) callers = scan->callers.size();
    }
    const double scanCpu = (processCpu() - cpuBefore) / kScans;
    const double scanWall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - wallBefore).count() / kScans;

    constexpr int kPeerRuns = 20;
    double peerCpu = 0;
    for (int i = 0; i < kPeerRuns; ++i) {
        peerCpu += commandCpu("pactl list source-outputs") + commandCpu("pactl list sink-inputs");
    }
    peerCpu /= kPeerRuns;

    for (pid_t pid : clients) {
        if (pid > 0) ::kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
    }

    // --- The idle host with the call recorder on ---------------------------------------
    const pid_t busPid = startPrivateBus(dir);

    const pid_t host = spawnShell("exec '" + vell.string() + "' daemon", dir / "daemon.log");
    std::this_thread::sleep_for(std::chrono::seconds(3));  // past the start-up
    FILE* calls = ::popen(("'" + vell.string() + "' calls --json 2>&1").c_str(), "r");
    std::string callsStatus;
    char line[1024] = {};
    while (calls && std::fgets(line, sizeof line, calls)) callsStatus += line;
    if (calls) ::pclose(calls);
    const double hostStart = sample(host).cpuSeconds;
    const auto begin = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    const double hostCpu = 100 * (sample(host).cpuSeconds - hostStart) / wall;

    ::kill(host, SIGTERM);
    waitpid(host, nullptr, 0);
    if (busPid > 0) ::kill(busPid, SIGTERM);
    sh("pulseaudio --kill 2>/dev/null");
    std::error_code ec;
    fs::remove_all(dir, ec);

    const bool monitoring = callsStatus.find("\"monitoring\":true") != std::string::npos;
    std::printf("one scan of %d record + %d playback streams (%zu callers found), CPU per scan:\n", outputs, inputs,
                callers);
    std::printf("  vell scan                     : %.3f ms (wall %.3f ms)\n", scanCpu * 1e3, scanWall * 1e3);
    std::printf("  pactl source-outputs + sink-inputs: %.3f ms\n", peerCpu * 1e3);
    std::printf("  ratio: %.3f x the peer (goals: <= 2 ms, <= 0.2 x)\n", peerCpu > 0 ? scanCpu / peerCpu : 0.0);
    std::printf("idle host with the call recorder %s over %.0f s (CPU at the clock tick's resolution, 10 ms):\n",
                monitoring ? "monitoring" : "NOT monitoring", wall);
    std::printf("  vell daemon: %.3f %% of a core (goal < 0.2 %%)\n", hostCpu);
    return monitoring ? 0 : 1;
}
