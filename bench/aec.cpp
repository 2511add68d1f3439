// bench_aec: echo cancellation of the recording's microphone, measured on a private
// PulseAudio server and offline on the same signals.
//
// The scene: one espeak-ng voice (the far end of a call) is played into the "speakers" sink;
// a loopback carries the speakers' monitor into a "room" sink 60 ms late and 10 dB down, the
// way a loudspeaker reaches a microphone; a second voice (the near talker) is played into
// the room 7.5 s later, over the far end (double talk). The microphone is the room's monitor
// (remapped as an ordinary source). Vell records the way a recording does: the system tap
// on the default sink's monitor, the microphone engine on the default source, the realtime
// mixer with echo cancellation. A wrapper around the canceller keeps every 10 ms frame it
// was given and returned, in the mixer's alignment, and the thread CPU time it took.
//
// Printed: ERLE (echo return loss enhancement of the microphone's part of the mix; the
// system audio itself is in the mix on purpose) over the far end alone after 2 s of
// convergence, the correlation of the cleaned microphone with the clean near-end voice
// while both talk, and the canceller's CPU share of one core at 44.1 kHz.
//
//   bench_aec [rounds]          live (private server) and offline; the offline part
//                               `rounds` times, keeping the least CPU
//   bench_aec offline [rounds]  offline only
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "app/composition.h"
#include "audio/echo_cancellation.h"
#include "audio/echo_canceller.h"
#include "audio/mic_capture.h"
#include "audio/realtime_mixer.h"
#include "platform/aec/webrtc_echo_canceller.h"
#include "platform/pulse/system_audio_tap.h"

namespace fs = std::filesystem;
using namespace vell;

namespace {

constexpr int kRate = 44100;
constexpr std::size_t kFrame = kRate / 100;
constexpr double kNearOffset = 7.5;   // the near talker starts this long after the far end
constexpr double kConverge = 2.0;     // seconds of far end before ERLE counts
constexpr double kEchoDelay = 0.060;  // the loopback's latency
constexpr float kEchoGain = 0.316228f;  // -10 dB

int sh(const std::string& command) { return std::system(command.c_str()); }

double threadCpu() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

std::vector<float> readRaw(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::vector<float> out;
    float v;
    while (in.read(reinterpret_cast<char*>(&v), sizeof v)) out.push_back(v);
    return out;
}

// Every frame the canceller saw: the microphone before and after, the reference.
struct Tape {
    std::mutex lock;
    std::vector<float> in, out, reference;
    double cpu = 0;
    std::size_t frames = 0;
    std::optional<int> delayMs;
    std::optional<double> erleDb;
};
Tape* gTape = nullptr;

class TapedCanceller final : public audio::EchoCanceller {
public:
    explicit TapedCanceller(std::unique_ptr<audio::EchoCanceller> inner)
        : EchoCanceller(inner->sampleRate(), inner->channels()), inner_(std::move(inner)) {}
    Expected<Unit, std::string> analyzeReference(const float* frame) override {
        ref_.assign(frame, frame + frameSamples());
        const double t0 = threadCpu();
        auto r = inner_->analyzeReference(frame);
        cpu_ += threadCpu() - t0;
        return r;
    }
    Expected<Unit, std::string> process(float* const* planes) override {
        std::vector<float> before(planes[0], planes[0] + frameSamples());
        const double t0 = threadCpu();
        auto r = inner_->process(planes);
        cpu_ += threadCpu() - t0;
        if (gTape) {
            std::lock_guard g(gTape->lock);
            gTape->in.insert(gTape->in.end(), before.begin(), before.end());
            gTape->out.insert(gTape->out.end(), planes[0], planes[0] + frameSamples());
            gTape->reference.insert(gTape->reference.end(), ref_.begin(), ref_.end());
            gTape->cpu += cpu_;
            gTape->frames += 1;
            cpu_ = 0;
            if (gTape->frames % 100 == 0) {
                auto m = inner_->metrics();
                if (m.delayMs) gTape->delayMs = m.delayMs;
                if (m.erleDb) gTape->erleDb = m.erleDb;
            }
        }
        return r;
    }
    Metrics metrics() const override { return inner_->metrics(); }

private:
    std::unique_ptr<audio::EchoCanceller> inner_;
    std::vector<float> ref_;
    double cpu_ = 0;
};

double energy(const std::vector<float>& x, std::size_t from, std::size_t to) {
    double e = 0;
    for (std::size_t i = from; i < std::min(to, x.size()); ++i) e += double(x[i]) * x[i];
    return e;
}

// Correlation of a with b shifted by lag (a[i] against b[i - lag]) over a's [from, to).
double correlation(const std::vector<float>& a, const std::vector<float>& b, std::size_t from, std::size_t to, long lag) {
    double ab = 0, aa = 0, bb = 0;
    for (std::size_t i = from; i < std::min(to, a.size()); ++i) {
        const long j = long(i) - lag;
        const double y = (j >= 0 && std::size_t(j) < b.size()) ? b[std::size_t(j)] : 0.0;
        ab += a[i] * y, aa += double(a[i]) * a[i], bb += y * y;
    }
    return aa > 0 && bb > 0 ? ab / std::sqrt(aa * bb) : 0;
}

// The lag (in samples, within ±range) at which b best lines up with a over [from, to).
long bestLag(const std::vector<float>& a, const std::vector<float>& b, std::size_t from, std::size_t to, long guess,
             long range) {
    long best = guess;
    double top = -2;
    for (long lag = guess - range; lag <= guess + range; lag += 4) {
        const double c = correlation(a, b, from, std::min(to, from + std::size_t(3 * kRate)), lag);
        if (c > top) top = c, best = lag;
    }
    for (long lag = best - 4; lag <= best + 4; ++lag) {
        const double c = correlation(a, b, from, std::min(to, from + std::size_t(3 * kRate)), lag);
        if (c > top) top = c, best = lag;
    }
    return best;
}

// Where `near` begins in `x` (at or after `after`): the 10 ms envelopes line up first,
// then the samples.
long findNear(const std::vector<float>& x, const std::vector<float>& near, std::size_t after) {
    auto envelope = [](const std::vector<float>& v) {
        std::vector<float> e(v.size() / kFrame);
        for (std::size_t k = 0; k < e.size(); ++k) e[k] = float(std::sqrt(energy(v, k * kFrame, (k + 1) * kFrame) / kFrame));
        return e;
    };
    const auto xEnvelope = envelope(x), nearEnvelope = envelope(near);
    long frameLag = 0;
    double top = -2;
    for (long k = long(after / kFrame); k + long(nearEnvelope.size()) <= long(xEnvelope.size()); ++k) {
        const double c = correlation(xEnvelope, nearEnvelope, std::size_t(k), std::size_t(k) + nearEnvelope.size(), k);
        if (c > top) top = c, frameLag = k;
    }
    return bestLag(x, near, std::size_t(frameLag) * kFrame, std::size_t(frameLag) * kFrame + near.size(),
                   frameLag * long(kFrame), long(2 * kFrame));
}

// Correlation of the voice in `x` (from `at`, where `near` begins) with the clean `near`,
// in half-second pieces each lined up anew within ±5 ms of the one before: a capture
// that lost or gained a few samples under load (or a peer that compensates drift) is
// measured on its voice, not on its clock.
double pieceCorrelation(const std::vector<float>& x, const std::vector<float>& near, long at) {
    const std::size_t piece = kRate / 2;
    const long range = long(0.005 * kRate);
    double ab = 0, aa = 0, bb = 0;
    long lag = at;
    for (std::size_t from = 0; from + piece <= near.size(); from += piece) {
        long best = lag;
        double top = -2;
        for (long l = lag - range; l <= lag + range; ++l) {
            const double c = correlation(x, near, std::size_t(std::max(0L, long(from) + l)),
                                         std::size_t(std::max(0L, long(from + piece) + l)), l);
            if (c > top) top = c, best = l;
        }
        lag = best;
        for (std::size_t i = from; i < from + piece; ++i) {
            const long j = long(i) + lag;
            const double a = (j >= 0 && std::size_t(j) < x.size()) ? x[std::size_t(j)] : 0.0;
            ab += a * near[i], aa += a * a, bb += double(near[i]) * near[i];
        }
    }
    return aa > 0 && bb > 0 ? ab / std::sqrt(aa * bb) : 0;
}

// CPU seconds the private sound server has used so far.
double serverCpu(const fs::path& runtime) {
    std::ifstream pidFile(runtime / "pulse" / "pid");
    long pid = 0;
    if (!(pidFile >> pid)) return 0;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const auto close = line.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream rest(line.substr(close + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; i <= 15 && rest >> field; ++i) {
        if (i == 14 || i == 15) ticks += std::stod(field);
    }
    return ticks / double(sysconf(_SC_CLK_TCK));
}

struct Figures {
    double erleDb = 0, nearCorrelation = 0, rawCorrelation = 0, cpuShare = 0;
    std::optional<int> delayMs;
};

void print(const char* name, const Figures& f) {
    std::printf("  %-8s ERLE %5.1f dB (goal >= 20)   near-end correlation %.3f (goal >= 0.9; %.3f before cancelling)\n",
                name, f.erleDb, f.nearCorrelation, f.rawCorrelation);
    std::printf("  %-8s canceller CPU %.3f %% of a core at 44.1 kHz (goal < 1 %%)", "", 100 * f.cpuShare);
    if (f.delayMs) std::printf(", delay it found %d ms", *f.delayMs);
    std::printf("\n");
}

// Offline: the same voices through a simulated loopback (60 ms, -10 dB), mixed tick by tick.
Figures offline(const std::vector<float>& far, const std::vector<float>& near, const fs::path& dir) {
    const std::size_t delay = std::size_t(kEchoDelay * kRate), nearAt = std::size_t(kNearOffset * kRate);
    const std::size_t total = std::max(far.size(), nearAt + near.size()) + kRate / 2;
    std::vector<float> system(total, 0.0f), echo(total, 0.0f), nearTrack(total, 0.0f), mic(total, 0.0f);
    std::copy(far.begin(), far.end(), system.begin());
    for (std::size_t i = delay; i < total; ++i) echo[i] = kEchoGain * system[i - delay];
    std::copy(near.begin(), near.end(), nearTrack.begin() + std::ptrdiff_t(nearAt));
    for (std::size_t i = 0; i < total; ++i) mic[i] = echo[i] + nearTrack[i];

    Tape tape;
    gTape = &tape;
    ManualClock clock;
    audio::EchoCancellation echoControl{[] { return std::unique_ptr<audio::OutputRouteWatcher>(); }};
    audio::RealtimeMixer::Options options;
    options.clock = &clock;
    options.automaticTicks = false;
    options.echo = &echoControl;
    std::vector<float> mixed;
    double cpu = 0;
    {
        audio::RealtimeMixer mixer(dir / "offline.aac", kRate, std::move(options));
        mixer.onMixedBuffer = [&mixed](audio::PcmBufferPtr b) { mixed.insert(mixed.end(), b->channels[0].begin(), b->channels[0].end()); };
        mixer.open();
        mixer.setSystemEnabled(true);
        const std::size_t block = 882;
        for (std::size_t at = 0, i = 0; at + block <= total; at += block, ++i) {
            auto s = audio::PcmBuffer::make(kRate, 2, block);
            auto m = audio::PcmBuffer::make(kRate, 1, block);
            for (auto& plane : s->channels) std::copy_n(system.begin() + std::ptrdiff_t(at), block, plane.begin());
            std::copy_n(mic.begin() + std::ptrdiff_t(at), block, m->channels[0].begin());
            mixer.appendSystem(s);
            mixer.appendMicrophone(m);
            clock.advance(0.02);
            if (i % 5 == 4) mixer.tick();
        }
        mixer.finish();
    }
    gTape = nullptr;
    cpu = tape.cpu;
    // The microphone's part of the mix: the mix less the system audio at its gain.
    for (std::size_t i = 0; i < mixed.size() && i < system.size(); ++i) mixed[i] -= system[i] * audio::RealtimeMixer::kSystemGain;

    Figures f;
    const std::size_t from = std::size_t(kConverge * kRate), to = nearAt;
    f.erleDb = 10 * std::log10(energy(echo, from, to) / std::max(1e-20, energy(mixed, from, to)));
    const std::size_t nearEnd = nearAt + near.size();
    const long shift = bestLag(mixed, nearTrack, nearAt, nearEnd, 0, 2000);
    std::printf("  offline: the cleaned microphone runs %.1f ms behind its input\n", 1000.0 * double(shift) / kRate);
    f.nearCorrelation = correlation(mixed, nearTrack, nearAt, nearEnd, shift);
    f.rawCorrelation = correlation(mic, nearTrack, nearAt, nearEnd, 0);
    f.cpuShare = cpu / (double(tape.frames) / 100.0);
    f.delayMs = tape.delayMs;
    return f;
}

// Live: the scene on a private PulseAudio server, recorded by the real capture parts.
// PulseAudio's own echo canceller (module-echo-cancel, WebRTC, its gain control off so
// that levels stay comparable) on the same scene, recorded with parec: the peer.
std::optional<Figures> peer(const fs::path& dir, const fs::path& farWav, const fs::path& nearWav,
                            const std::vector<float>& near) {
    const std::string quiet = " >/dev/null 2>&1";
    if (sh("pactl load-module module-echo-cancel source_master=benchmic sink_master=speakers source_name=ecsrc "
           "sink_name=ecsink aec_method=webrtc aec_args='\"analog_gain_control=0 digital_gain_control=0\"'" + quiet) != 0) {
        std::fprintf(stderr, "bench_aec: module-echo-cancel did not load\n");
        return std::nullopt;
    }
    const fs::path raw = dir / "peer-raw.f32", cleaned = dir / "peer-ec.f32";
    sh("parec --device=benchmic --raw --format=float32le --rate=44100 --channels=1 > " + raw.string() + " 2>/dev/null & "
       "echo $! > " + (dir / "parec.pids").string() + "; "
       "parec --device=ecsrc --raw --format=float32le --rate=44100 --channels=1 > " + cleaned.string() + " 2>/dev/null & "
       "echo $! >> " + (dir / "parec.pids").string());
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    sh("paplay --latency-msec=200 --device=ecsink " + farWav.string() + " & echo $! > " + (dir / "far.pid").string());
    std::this_thread::sleep_for(std::chrono::milliseconds(int(kNearOffset * 1000)));
    sh("paplay --latency-msec=200 --device=room " + nearWav.string());
    sh("while kill -0 $(cat " + (dir / "far.pid").string() + ") 2>/dev/null; do sleep 0.1; done");
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    sh("kill $(cat " + (dir / "parec.pids").string() + ")" + quiet);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));

    const auto in = readRaw(raw), out = readRaw(cleaned);
    std::size_t start = 0;
    while (start < in.size() && in[start] == 0.0f) ++start;
    if (start >= in.size() || out.empty()) return std::nullopt;
    const long inNear = findNear(in, near, start), outNear = findNear(out, near, 0);
    const long offset = outNear - inNear;

    Figures f;
    const std::size_t from = start + std::size_t(kConverge * kRate), to = std::size_t(inNear) - kRate / 5;
    if (long(from) + offset < 0 || to <= from) return std::nullopt;
    f.erleDb = 10 * std::log10(energy(in, from, to) /
                               std::max(1e-20, energy(out, std::size_t(long(from) + offset), std::size_t(long(to) + offset))));
    const std::size_t nearFrom = std::size_t(outNear), nearTo = nearFrom + near.size();
    f.nearCorrelation = pieceCorrelation(out, near, bestLag(out, near, nearFrom, nearTo, outNear, 1000));
    f.rawCorrelation = pieceCorrelation(in, near, inNear);
    return f;
}

struct LiveResult {
    std::optional<Figures> vell, peer;
    double serverShareVell = 0, serverSharePeer = 0;  // the sound server's CPU during each pass
};

LiveResult live(const fs::path& dir, const fs::path& farWav, const fs::path& nearWav, const std::vector<float>& near) {
    LiveResult result;
    const fs::path runtime = dir / "runtime";
    fs::create_directories(runtime);
    fs::permissions(runtime, fs::perms::owner_all);
    setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
    setenv("PULSE_SERVER", ("unix:" + (runtime / "pulse" / "native").string()).c_str(), 1);
    if (sh("pulseaudio --daemonize=yes -n --exit-idle-time=-1 --disallow-exit "
           "--load=module-native-protocol-unix "
           "--load='module-null-sink sink_name=speakers rate=44100' "
           "--load='module-null-sink sink_name=room rate=44100' 2>/dev/null") != 0) {
        std::fprintf(stderr, "bench_aec: cannot start pulseaudio\n");
        return result;
    }
    const std::string quiet = " >/dev/null 2>&1";
    sh("pactl load-module module-remap-source source_name=benchmic master=room.monitor" + quiet);
    sh("pactl load-module module-loopback source=speakers.monitor sink=room latency_msec=60 "
       "source_dont_move=true sink_dont_move=true" + quiet);
    sh("pactl set-default-sink speakers; pactl set-default-source benchmic");
    // The loopback's stream into the room: 10 dB down (a linear factor of 0.316).
    sh("for i in $(pactl list short sink-inputs | awk '$4 ~ /loopback/ {print $1}'); do "
       "pactl set-sink-input-volume $i 0.316228; done");

    Tape tape;
    gTape = &tape;
    const double serverBefore = serverCpu(runtime);
    const auto wallBefore = std::chrono::steady_clock::now();
    audio::EchoCancellation echoControl;  // follows the server's default sink
    audio::RealtimeMixer::Options options;
    options.echo = &echoControl;
    auto mixer = std::make_shared<audio::RealtimeMixer>(dir / "live.aac", kRate, std::move(options));
    mixer->open();
    auto microphone = audio::MicCapture::makeDefault();
    audio::SystemAudioTap tap;
    try {
        microphone->start(audio::MicrophoneTarget{}, [mixer](audio::PcmBufferPtr b) { mixer->appendMicrophone(std::move(b)); }, {});
        tap.start([mixer](audio::PcmBufferPtr b) { mixer->appendSystem(std::move(b)); });
        mixer->setSystemEnabled(true);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_aec: cannot capture: %s\n", e.what());
        sh("pulseaudio --kill 2>/dev/null");
        gTape = nullptr;
        return result;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    sh("paplay --latency-msec=200 --device=speakers " + farWav.string() + " & echo $! > " + (dir / "far.pid").string());
    std::this_thread::sleep_for(std::chrono::milliseconds(int(kNearOffset * 1000)));
    const auto during = echoControl.status();
    sh("paplay --latency-msec=200 --device=room " + nearWav.string());
    sh("while kill -0 $(cat " + (dir / "far.pid").string() + ") 2>/dev/null; do sleep 0.1; done");
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    microphone->stop();
    tap.stop();
    mixer->finish();
    mixer.reset();
    gTape = nullptr;
    auto seconds = [](auto since) { return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count(); };
    result.serverShareVell = (serverCpu(runtime) - serverBefore) / seconds(wallBefore);

    const double peerBefore = serverCpu(runtime);
    const auto peerWall = std::chrono::steady_clock::now();
    result.peer = peer(dir, farWav, nearWav, near);
    result.serverSharePeer = (serverCpu(runtime) - peerBefore) / seconds(peerWall);
    sh("pulseaudio --kill 2>/dev/null");

    if (const char* dump = std::getenv("BENCH_AEC_DUMP")) {
        for (auto [name, v] : {std::pair{"in", &tape.in}, std::pair{"out", &tape.out}, std::pair{"ref", &tape.reference}}) {
            std::ofstream f(fs::path(dump) / (std::string(name) + ".f32"), std::ios::binary);
            f.write(reinterpret_cast<const char*>(v->data()), std::streamsize(v->size() * sizeof(float)));
        }
    }
    std::printf("  live: output %s (%s), state with the far end playing: %s\n", during.output.device.c_str(),
                audio::outputKindName(during.output.kind), audio::echoStateName(during.state));
    // The far end begins with the first frame whose reference is not silent; from there on
    // frames are contiguous (the voice never pauses for the second that would bypass).
    std::size_t start = 0;
    while (start < tape.reference.size() && tape.reference[start] == 0.0f) ++start;
    start -= start % kFrame;
    if (start >= tape.reference.size()) {
        std::fprintf(stderr, "bench_aec: the system audio never arrived\n");
        return result;
    }
    // Where the near talker is in the taped microphone (found on the uncancelled input).
    const long lag = findNear(tape.in, near, start);
    const std::size_t nearFrom = std::size_t(std::max(0L, lag)), nearTo = nearFrom + near.size();
    std::printf("  live: far end from %.2f s of the tape, near talker from %.2f s\n", double(start) / kRate,
                double(nearFrom) / kRate);

    Figures f;
    const std::size_t from = start + std::size_t(kConverge * kRate), to = nearFrom > kRate / 5 ? nearFrom - kRate / 5 : 0;
    if (to <= from) std::fprintf(stderr, "bench_aec: the near talker came in before the canceller had converged\n");
    f.erleDb = 10 * std::log10(energy(tape.in, from, to) / std::max(1e-20, energy(tape.out, from, to)));
    // The cleaned voice runs a few milliseconds behind the input (the canceller's filters).
    const long shift = bestLag(tape.out, near, nearFrom, nearTo, lag, 1000);
    f.nearCorrelation = pieceCorrelation(tape.out, near, shift);
    f.rawCorrelation = pieceCorrelation(tape.in, near, lag);
    if (tape.out.size() < nearTo) std::fprintf(stderr, "bench_aec: the tape ends before the near talker does\n");
    f.cpuShare = tape.cpu / (double(tape.frames) / 100.0);
    f.delayMs = tape.delayMs;
    result.vell = f;
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    app::installPlatformBindings();
    audio::EchoCanceller::setFactory([](int rate, int channels) -> Expected<std::unique_ptr<audio::EchoCanceller>, std::string> {
        auto inner = aec::openWebRtcEchoCanceller(rate, channels);
        if (!inner) return unexpected(inner.error());
        return std::unique_ptr<audio::EchoCanceller>(std::make_unique<TapedCanceller>(std::move(*inner)));
    });
    int argument = 1;
    const bool liveToo = !(argc > argument && std::string(argv[argument]) == "offline");
    if (!liveToo) ++argument;
    const int rounds = argc > argument ? std::max(1, std::atoi(argv[argument])) : 1;
    const char* tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/vell-bench-aec-XXXXXX";
    if (!mkdtemp(templ.data())) return 1;
    const fs::path dir = templ;

    // Two voices, at the mixer's rate.
    const fs::path far = dir / "far.wav", near = dir / "near.wav";
    if (sh("espeak-ng -v en-us -s 160 -w " + (dir / "far22.wav").string() +
           " 'Thanks for joining the call today. I wanted to go over the numbers from last quarter before we talk "
           "about the plan for next year. Sales grew in every region except the north, where two large customers "
           "delayed their orders. We expect those orders to arrive in the spring, so the total for the year should "
           "still be close to what we promised.' && "
           "espeak-ng -v en+f3 -p 70 -s 170 -w " + (dir / "near22.wav").string() +
           " 'Sorry to interrupt, but could you send me the slides after the meeting? I would like to check the "
           "figures for the north again.' && "
           "sox -q " + (dir / "far22.wav").string() + " -r 44100 -c 2 " + far.string() + " && "
           "sox -q " + (dir / "near22.wav").string() + " -r 44100 -c 1 " + near.string() + " && "
           "sox -q " + far.string() + " -t f32 -c 1 " + (dir / "far.f32").string() + " && "
           "sox -q " + near.string() + " -t f32 " + (dir / "near.f32").string()) != 0) {
        std::fprintf(stderr, "bench_aec: espeak-ng and sox are needed\n");
        return 1;
    }
    const auto farSamples = readRaw(dir / "far.f32");
    const auto nearSamples = readRaw(dir / "near.f32");
    std::printf("bench_aec: far end %.1f s (espeak-ng en-us), near talker %.1f s (en+f3) from %.1f s on, "
                "echo 60 ms late at -10 dB, mixer at 44.1 kHz\n",
                double(farSamples.size()) / kRate, double(nearSamples.size()) / kRate, kNearOffset);

    // On a shared machine the least CPU of several rounds is the canceller's own cost.
    Figures best = offline(farSamples, nearSamples, dir);
    for (int round = 1; round < rounds; ++round) {
        const Figures again = offline(farSamples, nearSamples, dir);
        if (again.cpuShare < best.cpuShare) best.cpuShare = again.cpuShare;
    }
    if (rounds > 1) std::printf("  offline: least CPU of %d rounds\n", rounds);
    print("offline", best);
    if (liveToo) {
        const auto result = live(dir, far, near, nearSamples);
        if (result.vell) print("live", *result.vell);
        if (result.peer) {
            const auto& p = *result.peer;
            // Its own defaults otherwise: noise suppression, high-pass filter, its processing rate.
            std::printf("  peer     PulseAudio module-echo-cancel (WebRTC, gain control off) on the same scene: ERLE %5.1f dB, "
                        "near-end correlation %.3f (%.3f before)\n", p.erleDb, p.nearCorrelation, p.rawCorrelation);
        }
        std::printf("  sound server CPU: %.2f %% of a core while Vell records, %.2f %% with module-echo-cancel and parec x2\n",
                    100 * result.serverShareVell, 100 * result.serverSharePeer);
    }
    std::error_code ignored;
    fs::remove_all(dir, ignored);
    return 0;
}
