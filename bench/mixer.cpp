// Offline cost of the recording pipeline: N minutes (default 60) of 48 kHz mono microphone
// and 48 kHz stereo system audio through RealtimeMixer and the AAC writer, driven tick by
// tick as fast as it goes. Peers measured in the same run on the same PCM:
//   - the ffmpeg CLI mixing both inputs (amix) and encoding AAC 128k (CPU of the child);
//   - the bare AAC writer encoding already-mixed 44.1 kHz stereo, once synced to disk every
//     0.1 s like the recording file and once never synced.
// Each figure is the least CPU of `rounds` interleaved runs (default 1): on a shared machine
// the least disturbed run is the one that shows the code's own cost.
// Usage: bench_mixer [minutes] [rounds]
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <numbers>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "app/composition.h"
#include "audio/realtime_mixer.h"
#include "platform/codec/aac_writer.h"

extern char** environ;

namespace {

using namespace vell;
constexpr int kInRate = 48000;
constexpr int kOutRate = 44100;
constexpr int kTableSeconds = 10;

double cpuSeconds(const rusage& r) {
    return double(r.ru_utime.tv_sec + r.ru_stime.tv_sec) + double(r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
}
double selfCpu() {
    rusage r{};
    getrusage(RUSAGE_SELF, &r);
    return cpuSeconds(r);
}

// A voice-like microphone (harmonics of 140 Hz, syllable-rate envelope) and a music-like
// system stream (a chord, one side slightly different), both with a little noise.
float micAt(double t, float noise) {
    const double envelope = 0.5 + 0.5 * std::sin(2 * std::numbers::pi * 4 * t);
    double v = 0;
    for (int h = 1; h <= 6; ++h) v += std::sin(2 * std::numbers::pi * 140 * h * t) / h;
    return float(0.25 * envelope * v) + noise;
}
float systemAt(double t, int side, float noise) {
    double v = std::sin(2 * std::numbers::pi * 220 * t) + std::sin(2 * std::numbers::pi * 277.2 * t) +
               std::sin(2 * std::numbers::pi * (side ? 330 : 329) * t);
    return float(0.15 * v) + noise;
}

struct Tables {
    std::vector<float> mic;                    // 48 kHz mono
    std::vector<float> sysInterleaved;         // 48 kHz stereo, interleaved (for ffmpeg)
    std::vector<std::vector<float>> sys;       // 48 kHz stereo, planar
    std::vector<std::vector<float>> premixed;  // 44.1 kHz stereo, planar: what the mixer makes of the above
    // The same audio cut into the 20 ms blocks the capture streams deliver, made once: the
    // capture side's cost is measured by bench_capture, not here.
    std::vector<audio::PcmBufferPtr> micBlocks;
    std::vector<audio::PcmBufferPtr> sysBlocks;
};

double runMixer(const Tables& t, int minutes, const std::filesystem::path& out,
                std::function<void(audio::PcmBufferPtr)> onMixed = {});

Tables makeTables() {
    Tables t;
    std::mt19937 random(1);
    std::normal_distribution<float> noise(0, 0.01f);
    const std::size_t n = std::size_t(kInRate) * kTableSeconds;
    t.mic.resize(n);
    t.sys.assign(2, std::vector<float>(n));
    t.sysInterleaved.resize(2 * n);
    for (std::size_t i = 0; i < n; ++i) {
        const double s = double(i) / kInRate;
        t.mic[i] = micAt(s, noise(random));
        for (int c = 0; c < 2; ++c) t.sysInterleaved[2 * i + c] = t.sys[c][i] = systemAt(s, c, noise(random));
    }
    constexpr std::size_t kBlock = kInRate / 50;
    for (std::size_t at = 0; at + kBlock <= n; at += kBlock) {
        auto mic = std::make_shared<audio::PcmBuffer>();
        mic->sampleRate = kInRate;
        mic->channels = {std::vector<float>(t.mic.begin() + long(at), t.mic.begin() + long(at + kBlock))};
        auto sys = std::make_shared<audio::PcmBuffer>();
        sys->sampleRate = kInRate;
        sys->channels = {std::vector<float>(t.sys[0].begin() + long(at), t.sys[0].begin() + long(at + kBlock)),
                         std::vector<float>(t.sys[1].begin() + long(at), t.sys[1].begin() + long(at + kBlock))};
        t.micBlocks.push_back(std::move(mic));
        t.sysBlocks.push_back(std::move(sys));
    }
    return t;
}

double runMixer(const Tables& t, int minutes, const std::filesystem::path& out,
                std::function<void(audio::PcmBufferPtr)> onMixed) {
    const double before = selfCpu();
    audio::RealtimeMixer::Options options;
    options.automaticTicks = false;
    audio::RealtimeMixer mixer(out, kOutRate, std::move(options));
    mixer.onMixedBuffer = std::move(onMixed);
    mixer.open();
    mixer.setSystemEnabled(true);
    constexpr std::size_t kBlock = kInRate / 50;  // 20 ms, as the capture streams deliver
    const std::size_t blocks = minutes > 0 ? std::size_t(minutes) * 60 * 50 : std::size_t(kTableSeconds) * 50;
    const std::size_t tableBlocks = t.mic.size() / kBlock;
    for (std::size_t b = 0; b < blocks; ++b) {
        const std::size_t at = b % tableBlocks;
        mixer.appendMicrophone(t.micBlocks[at]);
        mixer.appendSystem(t.sysBlocks[at]);
        // One tick's worth (0.1 s) arrives, then the tick runs: like the live streams,
        // whose threads are idle while the mixer works.
        if (b % 5 == 4 || b + 1 == blocks) mixer.tick();
    }
    mixer.finish();
    return selfCpu() - before;
}

// The writer alone on already-mixed audio, in 0.1 s blocks; `synced` makes it keep the
// recording file's promise (on disk after every block) as the mixer does.
double runBareEncoder(const Tables& t, int minutes, const std::filesystem::path& out, bool synced) {
    const double before = selfCpu();
    auto writer = media::openAacWriter(out, {media::AacContainer::adts, kOutRate, 2, 128'000});
    if (!writer) {
        std::fprintf(stderr, "%s\n", writer.error().c_str());
        std::exit(1);
    }
    constexpr std::size_t kBlock = kOutRate / 10;
    const std::size_t blocks = std::size_t(minutes) * 60 * 10;
    const std::size_t tableBlocks = t.premixed[0].size() / kBlock;
    for (std::size_t b = 0; b < blocks; ++b) {
        const std::size_t at = (b % tableBlocks) * kBlock;
        const float* planes[2] = {t.premixed[0].data() + at, t.premixed[1].data() + at};
        (void)(*writer)->write(planes, 2, kBlock, kOutRate);
        if (synced) (void)(*writer)->syncToDisk();
    }
    (void)(*writer)->finish();
    return selfCpu() - before;
}

// Streams `seconds` of a looping table into a FIFO.
void feedFifo(const std::filesystem::path& fifo, const std::vector<float>& table, std::size_t samples) {
    const int fd = ::open(fifo.c_str(), O_WRONLY);
    if (fd < 0) return;
    std::size_t left = samples;
    while (left > 0) {
        const std::size_t n = std::min(left, table.size());
        const char* p = reinterpret_cast<const char*>(table.data());
        std::size_t bytes = n * sizeof(float);
        while (bytes > 0) {
            const ssize_t w = ::write(fd, p, bytes);
            if (w <= 0) {
                ::close(fd);
                return;
            }
            p += w;
            bytes -= std::size_t(w);
        }
        left -= n;
    }
    ::close(fd);
}

double runFfmpeg(const Tables& t, int minutes, const std::filesystem::path& dir) {
    const auto micFifo = dir / "mic.f32";
    const auto sysFifo = dir / "sys.f32";
    mkfifo(micFifo.c_str(), 0600);
    mkfifo(sysFifo.c_str(), 0600);
    const std::string out = (dir / "ffmpeg.aac").string();
    const std::string graph =
        "[0]aresample=44100,pan=stereo|c0=c0|c1=c0[m];[1]aresample=44100,volume=0.85[s];"
        "[m][s]amix=inputs=2:normalize=0";
    std::vector<std::string> args{"ffmpeg", "-nostdin", "-loglevel", "error", "-y",
                                  "-f", "f32le", "-ar", "48000", "-ac", "1", "-i", micFifo.string(),
                                  "-f", "f32le", "-ar", "48000", "-ac", "2", "-i", sysFifo.string(),
                                  "-filter_complex", graph, "-c:a", "aac", "-b:a", "128k", "-f", "adts", out};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawnp(&pid, "ffmpeg", nullptr, nullptr, argv.data(), environ) != 0) {
        std::fprintf(stderr, "cannot run ffmpeg\n");
        std::exit(1);
    }
    const std::size_t frames = std::size_t(minutes) * 60 * kInRate;
    std::thread mic(feedFifo, micFifo, std::cref(t.mic), frames);
    std::thread sys(feedFifo, sysFifo, std::cref(t.sysInterleaved), frames * 2);
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    mic.join();
    sys.join();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) std::fprintf(stderr, "ffmpeg failed (%d)\n", status);
    return cpuSeconds(usage);
}

}  // namespace

int main(int argc, char** argv) {
    vell::app::installPlatformBindings();
    const int minutes = argc > 1 ? std::max(1, std::atoi(argv[1])) : 60;
    const char* tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/vell-bench-mixer-XXXXXX";
    if (!mkdtemp(templ.data())) return 1;
    const std::filesystem::path dir = templ;

    Tables tables = makeTables();
    // The bare encoder gets exactly what the mixer produces from one pass over the tables,
    // so both encode the same signal.
    tables.premixed.assign(2, {});
    (void)runMixer(tables, 0, dir / "premix.aac", [&](audio::PcmBufferPtr b) {
        for (int c = 0; c < 2; ++c) tables.premixed[c].insert(tables.premixed[c].end(), b->channels[c].begin(), b->channels[c].end());
    });
    std::printf("bench_mixer: %d min of 48 kHz mono mic + 48 kHz stereo system -> AAC 128 kbit/s 44.1 kHz stereo%s\n",
                minutes, argc > 2 ? " (least of the rounds)" : "");
    const char* only = std::getenv("VELL_BENCH_ONLY");  // mixer, bare or ffmpeg: profile one part
    auto wanted = [&](const char* part) { return !only || std::string(only) == part; };
    const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 1;
    double ours = 1e300, bareSynced = 1e300, bare = 1e300, ffmpeg = 1e300;
    for (int round = 0; round < rounds; ++round) {
        ours = std::min(ours, wanted("mixer") ? runMixer(tables, minutes, dir / "mixer.aac") : 1);
        bareSynced = std::min(bareSynced, wanted("bare") ? runBareEncoder(tables, minutes, dir / "bare-synced.aac", true) : 1);
        bare = std::min(bare, wanted("bare") ? runBareEncoder(tables, minutes, dir / "bare.aac", false) : 1);
        ffmpeg = std::min(ffmpeg, wanted("ffmpeg") ? runFfmpeg(tables, minutes, dir) : 1);
    }
    const double audioSeconds = minutes * 60.0;
    auto line = [&](const char* what, double cpu) {
        std::printf("  %-46s %7.2f s CPU  (%6.0fx real time)\n", what, cpu, audioSeconds / cpu);
    };
    line("RealtimeMixer + writer (synced every 0.1 s):", ours);
    line("bare writer, pre-mixed, synced every 0.1 s:", bareSynced);
    line("bare writer, pre-mixed, never synced:", bare);
    line("ffmpeg CLI amix + aac 128k (child CPU):", ffmpeg);
    std::printf("  ratio mixer / ffmpeg CLI:                 %.3f  (goal <= 0.80)\n", ours / ffmpeg);
    std::printf("  ratio mixer / bare writer, same syncing:  %.3f  (goal <= 1.15)\n", ours / bareSynced);
    std::printf("  ratio mixer / bare writer, never synced:  %.3f  (the price of a file that survives a crash)\n",
                ours / bare);
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
    return 0;
}
