// Cost of insurance mode while it listens: `vell daemon` with insurance on (no other
// automation) on a private PulseAudio server whose microphone is a timer-driven source fed a
// speech-like signal in real time, measured over N seconds (default 60) for its CPU share of one core
// and peak RSS, beside `parec | ffmpeg` writing the same 16 kHz mono 32 kbit/s ADTS stream
// over the same seconds (CPU of both processes, the larger peak RSS). Both run at once.
// The daemon's figure includes the idle host under it (see bench_host_idle).
// Usage: bench_insurance [seconds]
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
#include <fstream>
#include <numbers>
#include <string>
#include <thread>
#include <vector>
#include "app/composition.h"

#include "bench/private_pulse.h"
#include "bench/process_sample.h"

namespace {

namespace fs = std::filesystem;

using namespace vell::bench;

}  // namespace

int main(int argc, char** argv) {
    vell::app::installPlatformBindings();
    ::signal(SIGPIPE, SIG_IGN);  // the microphone pipe closes when the server stops
    const double seconds = argc > 1 ? std::max(5.0, std::atof(argv[1])) : 60;
    const fs::path dir = benchFolder("ins");
    if (dir.empty()) return 1;
    const fs::path runtime = dir / "runtime";
    setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
    setenv("HOME", dir.c_str(), 1);
    PrivatePulse pulse;
    if (!pulse.start(runtime, "bench_insurance")) return 1;

    const pid_t busPid = startPrivateBus(dir);

    fs::create_directories(dir / "config" / "Vell");
    std::ofstream(dir / "config" / "Vell" / "defaults.json")
        << R"({"app.quillon.mac.autoRecordCalls":false,"app.quillon.mac.insurance.enabled":true,)"
        << R"("app.quillon.mac.insurance.privacyAccepted":true})";
    const fs::path vell = fs::path(VELL_BINARY_DIR) / "vell";
    const pid_t host = spawn({vell.string(), "daemon"}, dir / "daemon.log");
    std::this_thread::sleep_for(std::chrono::seconds(3));  // past the start-up

    // The peer over the same seconds, in parallel.
    const std::string peerScript =
        "parec --raw --format=s16le --rate=16000 --channels=1 | ffmpeg -nostdin -loglevel error -y "
        "-f s16le -ar 16000 -ac 1 -i - -c:a aac -b:a 32k -t " + std::to_string(seconds) + " -f adts " +
        (dir / "peer.aac").string();
    double peerCpu = 0, peerWall = 0;
    long peerRssKiB = 0;
    std::thread peerRun([&] {
        const auto begin = std::chrono::steady_clock::now();
        const pid_t pid = spawn({"sh", "-c", peerScript}, dir / "peer.log");
        rusage r{};
        int status = 0;
        wait4(pid, &status, 0, &r);  // sh's figures include parec and ffmpeg, which it waited for
        peerWall = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        peerCpu = double(r.ru_utime.tv_sec + r.ru_stime.tv_sec) + double(r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
        peerRssKiB = r.ru_maxrss;
    });
    const Sample hostStart = sample(host);
    const auto threadsStart = threadSamples(host);
    const auto begin = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    const Sample hostEnd = sample(host);
    const auto threadsEnd = threadSamples(host);
    peerRun.join();
    std::size_t chunks = 0;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(dir / "data" / "Vell" / "Insurance", ec)) chunks += e.is_regular_file();

    ::kill(host, SIGTERM);
    waitpid(host, nullptr, 0);
    if (busPid > 0) ::kill(busPid, SIGTERM);
    pulse.stop();
    const auto peerBytes = fs::file_size(dir / "peer.aac", ec);
    if (peerBytes == 0 || ec) sh("tail -5 " + (dir / "peer.log").string() + " >&2");
    fs::remove_all(dir, ec);

    const double ours = 100 * (hostEnd.cpuSeconds - hostStart.cpuSeconds) / wall;
    const double peer = peerWall > 0 ? 100 * peerCpu / peerWall : 0;
    std::printf("insurance mode listening for %.0f s (CPU at the clock tick's resolution, 10 ms):\n", wall);
    std::printf("  vell daemon, insurance on : %.3f %% of a core, peak RSS %.1f MiB (PSS %.1f MiB), %zu files in the buffer\n",
                ours, double(hostEnd.peakRssKiB) / 1024, double(hostEnd.pssKiB) / 1024, chunks);
    // The writer is the thread of the queue "app.quillon.mac.insurance" (names keep their
    // last 15 characters); it converts nothing, it encodes and writes.
    std::printf("  of which the insurance writer: %.3f %% of a core, the capture %.3f %%\n",
                threadShare(threadsStart, threadsEnd, "n.mac.insurance", wall),
                threadShare(threadsStart, threadsEnd, "llon.mac.mic-io", wall));
    printThreads(threadsStart, threadsEnd, wall);
    std::printf("  parec | ffmpeg aac 32k    : %.3f %% of a core, peak RSS %.1f MiB (larger of the two), %llu bytes\n", peer,
                double(peerRssKiB) / 1024, static_cast<unsigned long long>(peerBytes));
    if (peer > 0)
        std::printf("  ratio CPU vell / peer: %.3f   ratio peak RSS vell / peer: %.3f\n", ours / peer,
                    double(hostEnd.peakRssKiB) / double(std::max(1L, peerRssKiB)));
    std::printf("  goals: < 0.5 %% of a core, CPU ratio <= 0.8\n");
    return 0;
}
