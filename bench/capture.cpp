// What capture costs: CPU of the microphone and the system-audio tap together (percent of
// one core, and CPU seconds per hour of recording) and the time from start to the first
// delivered block, beside `parecord` recording the same two sources for the same time in
// the same run.
//
//   bench_capture [seconds]      (default 30 per side)
//
// Uses the sound server in PULSE_SERVER when one answers; otherwise starts a private
// PulseAudio with a 48 kHz sine source as the microphone and an idle null sink.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "app/composition.h"
#include "audio/mic_capture.h"
#include "base/log.h"
#include "platform/pulse/pulse_connection.h"
#include "platform/pulse/system_audio_tap.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

double cpuSeconds(const rusage& r) {
    return static_cast<double>(r.ru_utime.tv_sec + r.ru_stime.tv_sec) +
           static_cast<double>(r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
}

double selfCPU() {
    rusage r{};
    getrusage(RUSAGE_SELF, &r);
    return cpuSeconds(r);
}

pid_t spawn(std::vector<std::string> argv, const char* out = "/dev/null") {
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

bool serverAnswers() {
    try {
        vell::pulse::Connection c("bench probe", "bench-probe");
        c.connect();
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

// A private server when none is reachable.
struct PrivateServer {
    pid_t pid = -1;
    std::filesystem::path dir;
    PrivateServer() {
        if (std::getenv("PULSE_SERVER") && serverAnswers()) return;
        char pattern[] = "/tmp/vell-bench-XXXXXX";
        dir = ::mkdtemp(pattern);
        ::setenv("XDG_RUNTIME_DIR", dir.c_str(), 1);
        ::setenv("PULSE_SERVER", ("unix:" + (dir / "native").string()).c_str(), 1);
        pid = spawn({"pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no",
                     "--load=module-native-protocol-unix auth-anonymous=1 socket=" + (dir / "native").string(),
                     "--load=module-null-sink sink_name=speakers",
                     "--load=module-sine-source source_name=benchmic rate=48000 frequency=440"});
        auto deadline = Clock::now() + 15s;
        while (!serverAnswers() && Clock::now() < deadline) std::this_thread::sleep_for(20ms);
    }
    ~PrivateServer() {
        if (pid <= 0) return;
        ::kill(pid, SIGTERM);
        ::waitpid(pid, nullptr, 0);
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
};

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// Milliseconds from start() to the first block, for the microphone and for the tap.
std::pair<double, double> firstBlockMs() {
    std::vector<double> mic, tap;
    for (int i = 0; i < 5; ++i) {
        std::atomic<int64_t> micAt{0}, tapAt{0};
        auto capture = vell::audio::MicCapture::makeDefault();
        vell::audio::SystemAudioTap systemTap;
        auto t0 = Clock::now();
        capture->start({}, [&](vell::audio::PcmBufferPtr) {
            int64_t zero = 0;
            micAt.compare_exchange_strong(zero, (Clock::now() - t0).count());
        }, {});
        auto t1 = Clock::now();
        systemTap.start([&](vell::audio::PcmBufferPtr) {
            int64_t zero = 0;
            tapAt.compare_exchange_strong(zero, (Clock::now() - t1).count());
        });
        auto deadline = Clock::now() + 3s;
        while ((micAt == 0 || tapAt == 0) && Clock::now() < deadline) std::this_thread::sleep_for(1ms);
        mic.push_back(static_cast<double>(micAt.load()) / 1e6);
        tap.push_back(static_cast<double>(tapAt.load()) / 1e6);
        capture->stop();
        systemTap.stop();
    }
    return {median(mic), median(tap)};
}

// Milliseconds from spawning `parecord` to its first byte of audio.
double peerFirstByteMs(const std::string& source) {
    std::vector<double> times;
    for (int i = 0; i < 5; ++i) {
        int fds[2];
        if (::pipe(fds) != 0) return -1;
        auto t0 = Clock::now();
        std::string cmd = "parecord";
        std::vector<std::string> argv = {cmd, "--raw", "--latency-msec=20", "--format=float32le", "--device=" + source};
        std::vector<char*> args;
        for (auto& a : argv) args.push_back(a.data());
        args.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
        posix_spawn_file_actions_addclose(&actions, fds[0]);
        pid_t pid;
        posix_spawnp(&pid, "parecord", &actions, nullptr, args.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(fds[1]);
        char byte;
        if (::read(fds[0], &byte, 1) == 1) times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
        ::kill(pid, SIGTERM);
        ::waitpid(pid, nullptr, 0);
        ::close(fds[0]);
    }
    return times.empty() ? -1 : median(times);
}

}  // namespace

int main(int argc, char** argv) {
    vell::app::installPlatformBindings();
    double seconds = argc > 1 ? std::atof(argv[1]) : 30.0;
    if (seconds <= 0) seconds = 30.0;
    vell::log::setMinimumLevel(vell::log::Level::Error);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    PrivateServer server;
    if (!serverAnswers()) {
        std::fprintf(stderr, "bench_capture: no sound server\n");
        return 1;
    }
    vell::pulse::Connection probe("bench info", "bench-info");
    probe.connect();
    auto info = probe.serverInfo();
    std::string micSource = info.defaultSource;
    std::string monitor = probe.defaultSinkMonitor();
    auto micInfo = probe.source(micSource);
    auto monInfo = probe.source(monitor);
    probe.disconnect();
    std::printf("server: %s %s; microphone %s (%u Hz, %u ch); system audio %s (%u Hz, %u ch); %.0f s per side\n",
                info.serverName.c_str(), info.serverVersion.c_str(), micSource.c_str(), micInfo ? micInfo->rate : 0,
                micInfo ? micInfo->channels : 0, monitor.c_str(), monInfo ? monInfo->rate : 0, monInfo ? monInfo->channels : 0,
                seconds);

    // Start to first block.
    auto [micMs, tapMs] = firstBlockMs();
    double peerMicMs = peerFirstByteMs(micSource);
    double peerTapMs = peerFirstByteMs(monitor);
    std::printf("first block: microphone %.1f ms, system audio %.1f ms | parecord (process start included) %.1f ms, %.1f ms | "
                "ratio %.2f, %.2f\n",
                micMs, tapMs, peerMicMs, peerTapMs, micMs / peerMicMs, tapMs / peerTapMs);

    // CPU of our capture: microphone and tap together, blocks handed to a trivial consumer.
    std::atomic<uint64_t> frames{0};
    auto capture = vell::audio::MicCapture::makeDefault();
    vell::audio::SystemAudioTap tap;
    capture->start({}, [&](vell::audio::PcmBufferPtr b) { frames += b->frames(); }, {});
    tap.start([&](vell::audio::PcmBufferPtr b) { frames += b->frames(); });
    std::this_thread::sleep_for(500ms);  // past the connection set-up
    double cpu0 = selfCPU();
    auto w0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    double ourCPU = selfCPU() - cpu0;
    double ourWall = std::chrono::duration<double>(Clock::now() - w0).count();
    capture->stop();
    tap.stop();

    // The peer: two parecord processes on the same sources, same format and fragment size.
    pid_t a = spawn({"parecord", "--raw", "--latency-msec=20", "--format=float32le", "--device=" + micSource});
    pid_t b = spawn({"parecord", "--raw", "--latency-msec=20", "--format=float32le", "--device=" + monitor});
    std::this_thread::sleep_for(500ms);
    auto p0 = Clock::now();
    // Their set-up (process start, connection) is counted too; it is a few milliseconds.
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    ::kill(a, SIGTERM);
    ::kill(b, SIGTERM);
    double peerWall = std::chrono::duration<double>(Clock::now() - p0).count() + 0.5;
    double peerCPU = 0;
    for (pid_t p : {a, b}) {
        rusage r{};
        int status;
        if (::wait4(p, &status, 0, &r) == p) peerCPU += cpuSeconds(r);
    }

    double ourPct = 100.0 * ourCPU / ourWall;
    double peerPct = 100.0 * peerCPU / peerWall;
    std::printf("cpu: vell capture %.3f%% of one core (%.1f s per hour, %llu frames) | parecord x2 %.3f%% (%.1f s per hour) | "
                "ratio %.2f\n",
                ourPct, ourPct * 36.0, static_cast<unsigned long long>(frames.load()), peerPct, peerPct * 36.0,
                peerPct > 0 ? ourPct / peerPct : 0.0);
    std::printf("goals: cpu < 0.5%% %s, first block < 150 ms %s\n", ourPct < 0.5 ? "met" : "MISSED",
                std::max(micMs, tapMs) < 150 ? "met" : "MISSED");
    return 0;
}
