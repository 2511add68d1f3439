#include "tests/support/pulse_server.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "tests/support/child_process.h"
#include "tests/support/temp_home.h"

extern char** environ;

namespace vell::test {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

std::string quote(const std::string& s) {
    std::string out = "'";
    for (char c : s) {
        if (c == '\'') {
            out += "'\\''";
        } else {
            out += c;
        }
    }
    return out + "'";
}

pid_t spawn(const std::vector<std::string>& argv, char** envp, const std::string& logFile = {}) {
    const pid_t pid = spawnChild(argv, logFile.empty() ? fs::path("/dev/null") : fs::path(logFile), envp, true);
    if (pid < 0) throw std::runtime_error("cannot start " + argv[0]);
    return pid;
}

// Waits for a child at most `limit`; kills it harder when it does not go.
void reap(pid_t pid, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        int status;
        pid_t r = ::waitpid(pid, &status, WNOHANG);
        if (r == pid || r < 0) return;
        std::this_thread::sleep_for(5ms);
    }
    ::kill(pid, SIGKILL);
    int status;
    ::waitpid(pid, &status, 0);
}

void saveEnv(const char* name, std::string& into, bool& had) {
    if (const char* v = std::getenv(name)) {
        into = v;
        had = true;
    }
}

void restoreEnv(const char* name, const std::string& value, bool had) {
    if (had) {
        ::setenv(name, value.c_str(), 1);
    } else {
        ::unsetenv(name);
    }
}

}  // namespace

PulseServer::PulseServer() {
    std::string pattern = (fs::temp_directory_path() / "vell-pulse-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    dir_ = pattern;
    ::chmod(dir_.c_str(), 0700);
    // A FIFO or socket whose reader died must give an error, not end the test process.
    ::signal(SIGPIPE, SIG_IGN);

    saveEnv("PULSE_SERVER", savedServer_, hadServer_);
    saveEnv("XDG_RUNTIME_DIR", savedRuntime_, hadRuntime_);

    // The server gets its own HOME too, so parallel servers never share state files.
    std::vector<std::string> env = {"XDG_RUNTIME_DIR=" + dir_.string(), "HOME=" + dir_.string(),
                                    "PATH=" + std::string(std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin")};
    if (const char* suite = std::getenv(kSuiteMarker)) env.push_back(std::string(kSuiteMarker) + "=" + suite);
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);

    pid_ = spawn({"pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--disallow-exit", "--use-pid-file=no",
                  "--log-target=stderr", "--load=module-native-protocol-unix auth-anonymous=1 socket=" + (dir_ / "native").string(),
                  "--load=module-null-sink sink_name=speakers", "--load=module-pipe-source " + micModuleArguments()},
                 envp.data(), (dir_ / "server.log").string());

    ::setenv("PULSE_SERVER", serverAddress().c_str(), 1);
    ::setenv("XDG_RUNTIME_DIR", dir_.c_str(), 1);
    try {
        waitUntilReady();
        pactl("set-default-sink speakers");
        pactl("set-default-source fakemic");
        auto modules = pactl("list short modules");
        size_t at = modules.output.find("module-pipe-source");
        if (at == std::string::npos) throw std::runtime_error("the fake microphone did not load");
        size_t lineStart = modules.output.rfind('\n', at);
        micModule_ = static_cast<uint32_t>(std::stoul(modules.output.substr(lineStart == std::string::npos ? 0 : lineStart + 1)));
        openFifo();
    } catch (...) {
        kill();
        restoreEnv("PULSE_SERVER", savedServer_, hadServer_);
        restoreEnv("XDG_RUNTIME_DIR", savedRuntime_, hadRuntime_);
        std::error_code ec;
        fs::remove_all(dir_, ec);
        throw;
    }
    feeder_ = std::thread([this] { feed(); });
}

PulseServer::~PulseServer() {
    stopFeeding_ = true;
    if (feeder_.joinable()) feeder_.join();
    stopPlaying();
    {
        std::lock_guard lock(mutex_);
        if (fifo_ >= 0) ::close(fifo_);
        fifo_ = -1;
    }
    kill();
    restoreEnv("PULSE_SERVER", savedServer_, hadServer_);
    restoreEnv("XDG_RUNTIME_DIR", savedRuntime_, hadRuntime_);
    std::error_code ec;
    fs::remove_all(dir_, ec);
}

std::string PulseServer::serverAddress() const { return "unix:" + (dir_ / "native").string(); }

std::string PulseServer::micModuleArguments() const {
    return "source_name=fakemic file=" + (dir_ / "mic.fifo").string() + " format=s16le rate=16000 channels=1";
}

void PulseServer::waitUntilReady() {
    auto deadline = std::chrono::steady_clock::now() + 15s;
    while (std::chrono::steady_clock::now() < deadline) {
        int status;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            throw std::runtime_error("pulseaudio exited at start; see its log in " + dir_.string());
        }
        if (fs::exists(dir_ / "native") && pactl("info").status == 0) return;
        std::this_thread::sleep_for(20ms);
    }
    throw std::runtime_error("pulseaudio did not answer within 15 s");
}

void PulseServer::kill() {
    {
        std::lock_guard lock(mutex_);
        if (fifo_ >= 0) ::close(fifo_);
        fifo_ = -1;
    }
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    reap(pid_, 3000ms);
    pid_ = -1;
}

PulseServer::Result PulseServer::pactl(const std::string& arguments) const {
    auto r = runCommand("PULSE_SERVER=" + quote(serverAddress()) + " pactl " + arguments + " 2>&1");
    return {r.status, r.output};
}

std::optional<uint32_t> PulseServer::loadModule(const std::string& moduleAndArguments) const {
    auto r = pactl("load-module " + moduleAndArguments);
    if (r.status != 0) return std::nullopt;
    try {
        return static_cast<uint32_t>(std::stoul(r.output));
    } catch (...) {
        return std::nullopt;
    }
}

bool PulseServer::unloadModule(uint32_t index) const { return pactl("unload-module " + std::to_string(index)).status == 0; }

void PulseServer::unplugMic() {
    {
        std::lock_guard lock(mutex_);
        micPlugged_ = false;
        if (fifo_ >= 0) ::close(fifo_);
        fifo_ = -1;
    }
    unloadModule(micModule_);
}

void PulseServer::replugMic() {
    auto index = loadModule("module-pipe-source " + micModuleArguments());
    if (!index) throw std::runtime_error("cannot load the fake microphone again");
    micModule_ = *index;
    pactl("set-default-source fakemic");
    openFifo();
    std::lock_guard lock(mutex_);
    micPlugged_ = true;
}

void PulseServer::openFifo() {
    // The server holds the read end open, so a non-blocking write end opens at once.
    int fd = -1;
    auto deadline = std::chrono::steady_clock::now() + 5s;
    while (fd < 0 && std::chrono::steady_clock::now() < deadline) {
        fd = ::open((dir_ / "mic.fifo").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) std::this_thread::sleep_for(10ms);
    }
    if (fd < 0) throw std::runtime_error("cannot open the fake microphone's FIFO");
    std::lock_guard lock(mutex_);
    if (fifo_ >= 0) ::close(fifo_);
    fifo_ = fd;
}

void PulseServer::feed() {
    // 10 ms blocks on an absolute schedule, so the source runs at its nominal rate.
    constexpr int kBlock = kMicRate / 100;
    std::vector<int16_t> block(kBlock);
    auto next = std::chrono::steady_clock::now();
    while (!stopFeeding_) {
        {
            std::lock_guard lock(mutex_);
            // The pipe source reads only while somebody records; a FIFO left filling meanwhile
            // would hand the next recorder seconds of backlog at once, so the feeder, like a
            // sound card, lets no more than two blocks wait.
            int waiting = 0;
            if (micPlugged_ && fifo_ >= 0 && ::ioctl(fifo_, FIONREAD, &waiting) == 0 &&
                waiting < 2 * kBlock * int(sizeof(int16_t))) {
                size_t n = std::min<size_t>(kBlock, queued_.size());
                std::copy_n(queued_.begin(), n, block.begin());
                std::fill(block.begin() + static_cast<long>(n), block.end(), 0);
                ssize_t written = ::write(fifo_, block.data(), block.size() * sizeof(int16_t));
                // A full pipe (a stalled server) keeps the queued audio for the next turn.
                if (written == static_cast<ssize_t>(block.size() * sizeof(int16_t))) {
                    queued_.erase(queued_.begin(), queued_.begin() + static_cast<long>(n));
                }
            }
        }
        next += 10ms;
        auto now = std::chrono::steady_clock::now();
        if (next < now - 200ms) next = now;  // after a long stall, do not burst to catch up
        std::this_thread::sleep_until(next);
    }
}

void PulseServer::writeMic(const std::vector<int16_t>& samples) {
    std::lock_guard lock(mutex_);
    queued_.insert(queued_.end(), samples.begin(), samples.end());
}

void PulseServer::writeMic(const std::vector<float>& samples) { writeMic(toInt16(samples)); }

double PulseServer::queuedMicSeconds() const {
    std::lock_guard lock(mutex_);
    return static_cast<double>(queued_.size()) / kMicRate;
}

int PulseServer::play(const fs::path& file, bool wait) {
    std::vector<std::string> env = {"PULSE_SERVER=" + serverAddress(), "XDG_RUNTIME_DIR=" + dir_.string(),
                                    "HOME=" + dir_.string()};
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    pid_t pid = spawn({"paplay", "--latency-msec=30", "--device=speakers", file.string()}, envp.data());
    if (!wait) {
        std::lock_guard lock(mutex_);
        players_.push_back(pid);
        return 0;
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int PulseServer::playTone(double frequency, double seconds, bool wait, double amplitude) {
    static std::atomic<int> counter{0};
    fs::path file = dir_ / ("tone-" + std::to_string(counter++) + ".wav");
    auto r = runCommand("sox -n -r 48000 -c 2 -b 16 " + quote(file.string()) + " synth " + std::to_string(seconds) + " sine " +
                        std::to_string(frequency) + " vol " + std::to_string(amplitude) + " 2>&1");
    if (r.status != 0) throw std::runtime_error("sox failed: " + r.output);
    return play(file, wait);
}

void PulseServer::stopPlaying() {
    std::vector<pid_t> players;
    {
        std::lock_guard lock(mutex_);
        players.swap(players_);
    }
    for (pid_t p : players) {
        ::kill(p, SIGTERM);
        reap(p, 2000ms);
    }
}

std::vector<float> sineWave(double frequency, int rate, double seconds, double amplitude) {
    std::vector<float> out(static_cast<size_t>(seconds * rate));
    for (size_t i = 0; i < out.size(); ++i) {
        out[i] = static_cast<float>(amplitude * std::sin(2.0 * M_PI * frequency * static_cast<double>(i) / rate));
    }
    return out;
}

std::vector<int16_t> toInt16(const std::vector<float>& samples) {
    std::vector<int16_t> out(samples.size());
    for (size_t i = 0; i < samples.size(); ++i) {
        float s = std::clamp(samples[i], -1.0f, 1.0f);
        out[i] = static_cast<int16_t>(std::lround(s * 32767.0f));
    }
    return out;
}

double zeroCrossingFrequency(const std::vector<float>& samples, int rate) {
    if (samples.size() < 2) return 0;
    size_t crossings = 0;
    for (size_t i = 1; i < samples.size(); ++i) {
        if ((samples[i - 1] < 0) != (samples[i] < 0)) ++crossings;
    }
    return static_cast<double>(crossings) / 2.0 / (static_cast<double>(samples.size()) / rate);
}

double rms(const std::vector<float>& samples) {
    if (samples.empty()) return 0;
    double sum = 0;
    for (float s : samples) sum += static_cast<double>(s) * s;
    return std::sqrt(sum / static_cast<double>(samples.size()));
}

}  // namespace vell::test
