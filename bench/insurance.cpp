// Cost of insurance mode while it listens: `vell daemon` with insurance on (no other
// automation) on a private PulseAudio server whose microphone is a pipe fed a speech-like
// signal in real time, measured over N seconds (default 60) for its CPU share of one core
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

#include "bench/process_sample.h"

namespace {

namespace fs = std::filesystem;

using namespace vell::bench;

}  // namespace

int main(int argc, char** argv) {
    vell::app::installPlatformBindings();
    ::signal(SIGPIPE, SIG_IGN);  // the microphone pipe closes when the server stops
    const double seconds = argc > 1 ? std::max(5.0, std::atof(argv[1])) : 60;
    const char* tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/vell-bench-ins-XXXXXX";
    if (!mkdtemp(templ.data())) return 1;
    const fs::path dir = templ;
    const fs::path runtime = dir / "run";
    fs::create_directories(runtime);
    fs::permissions(runtime, fs::perms::owner_all);
    setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
    setenv("PULSE_SERVER", ("unix:" + (runtime / "pulse" / "native").string()).c_str(), 1);
    setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
    setenv("HOME", dir.c_str(), 1);
    // The pipe source makes its FIFO itself and refuses one that exists (the server then
    // runs without the microphone and both sides would record the monitor's silence).
    const fs::path fifo = runtime / "mic.fifo";
    if (sh("pulseaudio --daemonize=yes -n --exit-idle-time=-1 --disallow-exit --load=module-native-protocol-unix "
           "--load='module-null-sink sink_name=speakers' "
           "--load='module-pipe-source source_name=fakemic file=" + fifo.string() +
           " format=s16le rate=16000 channels=1' 2>/dev/null") != 0) {
        std::fprintf(stderr, "bench_insurance: cannot start pulseaudio\n");
        return 1;
    }
    if (sh("pactl set-default-source fakemic >/dev/null 2>&1 && pactl set-default-sink speakers >/dev/null 2>&1") != 0) {
        std::fprintf(stderr, "bench_insurance: the server has no fake microphone\n");
        sh("pulseaudio --kill 2>/dev/null");
        return 1;
    }

    // The microphone: a voice-like signal, written in real time.
    std::atomic<bool> stop{false};
    std::thread feeder([&] {
        const int fd = ::open(fifo.c_str(), O_WRONLY);
        std::vector<int16_t> block(160);
        std::size_t n = 0;
        auto next = std::chrono::steady_clock::now();
        while (!stop) {
            for (auto& s : block) {
                const double t = double(n++) / 16000;
                const double env = 0.5 + 0.5 * std::sin(2 * std::numbers::pi * 3 * t);
                double v = 0;
                for (int h = 1; h <= 5; ++h) v += std::sin(2 * std::numbers::pi * 130 * h * t) / h;
                s = int16_t(8000 * env * v);
            }
            if (::write(fd, block.data(), block.size() * 2) < 0) break;
            next += std::chrono::milliseconds(10);
            std::this_thread::sleep_until(next);
        }
        ::close(fd);
    });

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
    const auto begin = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    const Sample hostEnd = sample(host);
    peerRun.join();
    std::size_t chunks = 0;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(dir / "data" / "Vell" / "Insurance", ec)) chunks += e.is_regular_file();

    ::kill(host, SIGTERM);
    waitpid(host, nullptr, 0);
    if (busPid > 0) ::kill(busPid, SIGTERM);
    stop = true;
    sh("pulseaudio --kill 2>/dev/null");
    feeder.join();
    const auto peerBytes = fs::file_size(dir / "peer.aac", ec);
    if (peerBytes == 0 || ec) sh("tail -5 " + (dir / "peer.log").string() + " >&2");
    fs::remove_all(dir, ec);

    const double ours = 100 * (hostEnd.cpuSeconds - hostStart.cpuSeconds) / wall;
    const double peer = peerWall > 0 ? 100 * peerCpu / peerWall : 0;
    std::printf("insurance mode listening for %.0f s (CPU at the clock tick's resolution, 10 ms):\n", wall);
    std::printf("  vell daemon, insurance on : %.3f %% of a core, peak RSS %.1f MiB (PSS %.1f MiB), %zu files in the buffer\n",
                ours, double(hostEnd.peakRssKiB) / 1024, double(hostEnd.pssKiB) / 1024, chunks);
    std::printf("  parec | ffmpeg aac 32k    : %.3f %% of a core, peak RSS %.1f MiB (larger of the two), %llu bytes\n", peer,
                double(peerRssKiB) / 1024, static_cast<unsigned long long>(peerBytes));
    if (peer > 0)
        std::printf("  ratio CPU vell / peer: %.3f   ratio peak RSS vell / peer: %.3f\n", ours / peer,
                    double(hostEnd.peakRssKiB) / double(std::max(1L, peerRssKiB)));
    std::printf("  goals: < 0.5 %% of a core, CPU ratio <= 0.8\n");
    return 0;
}
