#pragma once
// A private PulseAudio for the recording benchmarks, with the devices scripts/private-sound
// gives too (scripts/fake-microphone.pa): "speakers" and a timer-driven "fakemic" fed a
// voice-like signal, in the runtime folder the benchmark made.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <numbers>
#include <string>
#include <thread>
#include <vector>

#include "bench/process_sample.h"

namespace vell::bench {

// A folder of its own for one run (under TMPDIR), with a private "runtime" folder inside for
// the sound server and the bus; empty when it cannot be made.
inline fs::path benchFolder(const std::string& name) {
    const char* tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/vell-bench-" + name + "-XXXXXX";
    if (!mkdtemp(templ.data())) return {};
    const fs::path dir = templ;
    std::error_code ec;
    fs::create_directories(dir / "runtime", ec);
    fs::permissions(dir / "runtime", fs::perms::owner_all, ec);
    return ec ? fs::path{} : dir;
}

class PrivatePulse {
public:
    // Starts the server on `runtime` (XDG_RUNTIME_DIR and PULSE_SERVER are set here) and
    // makes its sink and microphone the defaults; false, with a line on stderr, on failure.
    bool start(const fs::path& runtime, const char* who) {
        setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
        setenv("PULSE_SERVER", ("unix:" + (runtime / "pulse" / "native").string()).c_str(), 1);
        // The microphone is a timer-driven source, as a sound card is under the server's
        // timer scheduling: it wakes as often as the most demanding reader asked for (a pipe
        // source would instead wake every reader at the feeder's own pace).
        if (sh("pulseaudio --daemonize=yes -n --exit-idle-time=-1 --disallow-exit --load=module-native-protocol-unix "
               "--file=" VELL_SOURCE_DIR "/scripts/fake-microphone.pa 2>/dev/null") != 0) {
            std::fprintf(stderr, "%s: cannot start pulseaudio\n", who);
            return false;
        }
        if (sh("pactl list short sources 2>/dev/null | grep -q fakemic") != 0) {
            std::fprintf(stderr, "%s: the sound server has no fake microphone\n", who);
            stop();
            return false;
        }
        running_ = true;
        feeder_ = std::thread([this] { feed(); });
        return true;
    }
    void stop() {
        sh("pulseaudio --kill 2>/dev/null");
        running_ = false;
        if (feeder_.joinable()) feeder_.join();
    }
    ~PrivatePulse() {
        if (feeder_.joinable()) stop();
    }

private:
    // A voice-like signal: five harmonics of 130 Hz under a 3 Hz syllable envelope.
    void feed() {
        // pacat keeps half a second queued in the feed sink, so the sink's clock, not this
        // loop, paces the microphone.
        FILE* player = ::popen("pacat --playback -d micfeed --raw --format=s16le --rate=16000 --channels=1 "
                               "--latency-msec=500 2>/dev/null", "w");
        const int fd = player ? ::fileno(player) : -1;
        std::vector<int16_t> block(160);
        std::size_t n = 0;
        auto next = std::chrono::steady_clock::now();
        while (running_ && fd >= 0) {
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
        if (player) ::pclose(player);
    }

    std::atomic<bool> running_{false};
    std::thread feeder_;
};

}  // namespace vell::bench
