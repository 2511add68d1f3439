// Live cost of a recording: `vell record --seconds N` (default 60) on a private PulseAudio
// server with speech-like audio in the microphone and a tone on the speakers, measured as
// CPU share of one core and peak RSS of the process. The peer in the same run records the
// same two streams with two parec clients and mixes (amix) and encodes them (AAC
// 128 kbit/s) with ffmpeg for the same time.
// Two variants of `vell record`: loudspeakers (the echo canceller at work) and headphones
// (a second sink that says it is headphones is the default output, so the canceller is
// bypassed); the tone plays on both sinks, so the peer's work is the same for either.
// With several rounds all three run in turn; CPU is the least of the rounds (the least
// disturbed on a shared machine), peak RSS the largest.
// Usage: bench_record_live [seconds] [rounds]
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
    const int seconds = argc > 1 ? std::max(5, std::atoi(argv[1])) : 60;
    const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 1;
    const fs::path dir = benchFolder("live");
    if (dir.empty()) return 1;
    const fs::path runtime = dir / "runtime";
    setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
    setenv("HOME", dir.c_str(), 1);
    PrivatePulse pulse;
    if (!pulse.start(runtime, "bench_record_live")) return 1;

    // Headphones: the route watcher reads the form factor of a sink without ports.
    sh("pactl load-module module-null-sink sink_name=phones sink_properties=device.form_factor=headphone >/dev/null");

    // System audio: a tone longer than all runs, on both outputs.
    const fs::path tone = dir / "tone.wav";
    sh("sox -q -n -r 48000 -c 2 " + tone.string() + " synth " + std::to_string(3 * rounds * (seconds + 5) + 30) + " sine 440 vol 0.3");
    for (const char* sink : {"speakers", "phones"}) {
        sh(std::string("paplay --device=") + sink + " " + tone.string() + " >/dev/null 2>&1 &");
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));

    const std::string vell = std::string(VELL_BINARY_DIR) + "/vell";
    std::printf("bench_record_live: %d s of recording (speech-like mic at 16 kHz + 48 kHz stereo tone)\n", seconds);
    // The peer: two parec clients (microphone, speakers' monitor) feeding ffmpeg, which
    // mixes and encodes; CPU counts all three processes, peak RSS is the largest of them.
    const std::string a = (dir / "mic.pcm").string(), b = (dir / "sys.pcm").string();
    const std::string peerScript =
        "rm -f " + a + " " + b + "; mkfifo " + a + " " + b + "; "
        "parec -d fakemic --raw --format=float32le --rate=44100 --channels=2 > " + a + " & p1=$!; "
        "parec -d speakers.monitor --raw --format=float32le --rate=44100 --channels=2 > " + b + " & p2=$!; "
        "ffmpeg -nostdin -loglevel error -y -f f32le -ar 44100 -ac 2 -i " + a + " -f f32le -ar 44100 -ac 2 -i " + b +
        " -filter_complex '[0][1]amix=inputs=2:normalize=0' -c:a aac -b:a 128k -t " + std::to_string(seconds) +
        " -f adts " + (dir / "peer.aac").string() + "; rc=$?; kill $p1 $p2; wait; exit $rc";
    auto keepBest = [](Usage& best, const Usage& u, bool first) {
        const long rss = std::max(best.maxRssKiB, u.maxRssKiB);
        if (first || (u.wall > 0 && u.cpu / u.wall < best.cpu / best.wall)) best = u;
        best.maxRssKiB = rss;
    };
    // The recorder's log says which way the canceller went; a variant that did not go its
    // way measured the wrong thing.
    auto record = [&](const char* sink, const char* expect) {
        sh(std::string("pactl set-default-sink ") + sink);
        const auto used = runToEnd({vell, "-v", "record", "--seconds", std::to_string(seconds)}, dir / "vell.out");
        if (sh("grep -qs '" + std::string(expect) + "' " + (dir / "vell.out").string()) != 0) {
            std::fprintf(stderr, "bench_record_live: no \"%s\" in the recorder's log\n", expect);
            sh("tail -20 " + (dir / "vell.out").string() + " >&2");
        }
        return used;
    };
    Usage ours, phones, peer;
    for (int round = 0; round < rounds; ++round) {
        keepBest(ours, record("speakers", "echo cancellation active"), round == 0);
        keepBest(phones, record("phones", "echo cancellation bypassed: headphones"), round == 0);
        keepBest(peer, runToEnd({"sh", "-c", peerScript}, dir / "peer.out"), round == 0);
        if (rounds > 1) std::printf("  round %d of %d done\n", round + 1, rounds);
    }

    auto report = [](const char* name, const Usage& u) {
        std::printf("  %-44s CPU %6.2f s over %6.1f s = %5.2f %% of a core, peak RSS %6.1f MiB%s\n", name, u.cpu, u.wall,
                    u.wall > 0 ? 100 * u.cpu / u.wall : 0, double(u.maxRssKiB) / 1024,
                    WIFEXITED(u.status) && WEXITSTATUS(u.status) == 0 ? "" : "  (FAILED)");
    };
    for (auto [u, out] : {std::pair{&ours, dir / "vell.out"}, std::pair{&phones, dir / "vell.out"}, std::pair{&peer, dir / "peer.out"}}) {
        if (!WIFEXITED(u->status) || WEXITSTATUS(u->status) != 0) sh("tail -5 " + out.string() + " >&2");
    }
    report("vell record, loudspeakers (canceller on)", ours);
    report("vell record, headphones (canceller bypassed)", phones);
    report("parec x2 | ffmpeg amix + aac 128k (peer)", peer);
    if (peer.cpu > 0) {
        for (auto [name, u] : {std::pair{"loudspeakers", &ours}, std::pair{"headphones", &phones}}) {
            std::printf("  ratio CPU vell %s / peer: %.3f   ratio peak RSS: %.3f\n", name, u->cpu / peer.cpu,
                        double(u->maxRssKiB) / double(std::max(1L, peer.maxRssKiB)));
        }
    }
    std::printf("  goals: CPU ratio <= 1.0 (loudspeakers), <= 0.75 (headphones); peak RSS < 40 MiB\n");

    pulse.stop();
    std::error_code ignored;
    fs::remove_all(dir, ignored);
    return 0;
}
