#pragma once
// A private PulseAudio server for one test process.
//
//   test::PulseServer pulse;             // starts it; throws std::runtime_error on failure
//   pulse.writeMic(test::sineWave(440, 16000, 1.0));   // what "fakemic" will deliver next
//   pulse.playTone(1000, 0.5);           // plays into "speakers" (= system audio), blocking
//   pulse.play("/path/file.wav", false); // starts paplay in the background
//   pulse.pactl("set-default-sink speakers");
//   auto idx = pulse.loadModule("module-null-sink sink_name=other");
//   pulse.unloadModule(*idx);
//
// What the server offers:
//   - sink "speakers" (module-null-sink): the default sink; its monitor
//     "speakers.monitor" is what the system-audio tap records.
//   - source "fakemic" (module-pipe-source, 16 kHz mono s16le): the default source. A
//     feeder thread writes to its FIFO in real time: queued samples first, silence (exact
//     zeros) otherwise, so the source never stalls and its timing looks like a real device;
//     it lets no more than 20 ms wait in the FIFO, so a recorder never gets a backlog.
//
// While the object lives, PULSE_SERVER and XDG_RUNTIME_DIR point at the private server (so
// libpulse, pactl, paplay and the ALSA pulse plugin of this process and its children talk
// to it); the destructor kills the server, removes its directory and restores both
// variables. Every test process has its own server, so suites run in parallel. Only one
// PulseServer may exist per process at a time.
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace vell::test {

class PulseServer {
public:
    PulseServer();
    ~PulseServer();
    PulseServer(const PulseServer&) = delete;
    PulseServer& operator=(const PulseServer&) = delete;

    static constexpr int kMicRate = 16000;
    static constexpr const char* kMicSource = "fakemic";
    static constexpr const char* kSink = "speakers";
    static constexpr const char* kSinkMonitor = "speakers.monitor";

    // Queues mono samples for "fakemic"; they follow whatever is still queued.
    void writeMic(const std::vector<int16_t>& samples);
    void writeMic(const std::vector<float>& samples);  // -1...1, clipped
    // Seconds of queued microphone audio not yet written to the FIFO.
    double queuedMicSeconds() const;

    // Plays a file (anything paplay reads, e.g. WAV) into "speakers". With wait, returns
    // paplay's exit status after it finished; otherwise 0 at once (the player is killed at
    // the latest by the destructor, or by stopPlaying()).
    int play(const std::filesystem::path& file, bool wait = true);
    // Generates a sine tone WAV (48 kHz stereo) with sox and plays it.
    int playTone(double frequency, double seconds, bool wait = true, double amplitude = 0.5);
    void stopPlaying();

    // Runs `pactl <arguments>` against this server; returns its exit status and output.
    struct Result {
        int status = -1;
        std::string output;
    };
    Result pactl(const std::string& arguments) const;
    // "module-name arg=value ..." → module index, or nothing when pactl refused it.
    std::optional<uint32_t> loadModule(const std::string& moduleAndArguments) const;
    bool unloadModule(uint32_t index) const;
    // The index of the module that created "fakemic" (to unplug and replug the mic).
    uint32_t micModule() const { return micModule_; }
    // Unloads the "fakemic" module (its FIFO writer pauses) / loads it again under the same
    // name; after replugging, the feeder resumes on the new FIFO.
    void unplugMic();
    void replugMic();

    const std::filesystem::path& runtimeDir() const { return dir_; }
    std::string serverAddress() const;  // "unix:<dir>/native"
    pid_t pid() const { return pid_; }

    // Kills the server process (to test a server that goes away). Idempotent.
    void kill();

private:
    void waitUntilReady();
    void feed();
    void openFifo();
    std::string micModuleArguments() const;

    std::filesystem::path dir_;
    pid_t pid_ = -1;
    uint32_t micModule_ = 0;
    std::string savedServer_, savedRuntime_;
    bool hadServer_ = false, hadRuntime_ = false;

    mutable std::mutex mutex_;
    std::deque<int16_t> queued_;
    int fifo_ = -1;
    bool micPlugged_ = true;
    std::atomic<bool> stopFeeding_{false};
    std::thread feeder_;
    std::vector<pid_t> players_;
};

// Sample generators for the fixture and for checks.
std::vector<float> sineWave(double frequency, int rate, double seconds, double amplitude = 0.5);
std::vector<int16_t> toInt16(const std::vector<float>& samples);
// The dominant frequency of a mono signal, counted from zero crossings (good enough for a
// single clean tone).
double zeroCrossingFrequency(const std::vector<float>& samples, int rate);
// Root mean square of a signal.
double rms(const std::vector<float>& samples);

}  // namespace vell::test
