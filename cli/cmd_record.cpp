// vell record [--seconds N]: a user-initiated recording of the microphone and the system
// audio. Prints the recording's id and file, shows elapsed time and levels on a terminal,
// and stops on the limit, Ctrl-C or SIGTERM, leaving a ready pending entry.
#include <fmt/format.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <iostream>
#include <thread>

#include "app/composition.h"
#include "app/core_services.h"
#include "cli/command.h"
#include "cli/record_messages.h"
#include "cli/runtime_scope.h"
#include "platform/runtime.h"
#include "recording/recorder_messages.h"
#include "recording/recorder_service.h"

namespace vell::cli {

namespace {
namespace msg = record_messages;

// One tick of the mixer: anything shorter writes no audio.
constexpr double kShortestSeconds = 0.1;

// Peak levels of the two inputs since the display last looked.
struct LevelMeter {
    std::atomic<float> mic{0};
    std::atomic<float> system{0};

    static void raise(std::atomic<float>& level, const audio::PcmBuffer& buffer) {
        float peak = 0;
        for (const auto& plane : buffer.channels)
            for (float v : plane) peak = std::max(peak, std::abs(v));
        float seen = level.load();
        while (peak > seen && !level.compare_exchange_weak(seen, peak)) {
        }
    }
};

// The real mixer, with the inputs' levels measured on the way in.
class MeteredMixer final : public audio::RecordingMixer {
public:
    MeteredMixer(std::unique_ptr<audio::RecordingMixer> inner, std::shared_ptr<LevelMeter> meter)
        : inner_(std::move(inner)), meter_(std::move(meter)) {
        inner_->onMixedBuffer = [this](audio::PcmBufferPtr b) {
            if (onMixedBuffer) onMixedBuffer(std::move(b));
        };
        inner_->onSystemBuffer = [this](audio::PcmBufferPtr b) {
            if (onSystemBuffer) onSystemBuffer(std::move(b));
        };
        inner_->onWriteError = [this](const std::string& e) {
            if (onWriteError) onWriteError(e);
        };
    }
    void open() override { inner_->open(); }
    std::filesystem::path outputFile() const override { return inner_->outputFile(); }
    void setSystemEnabled(bool enabled) override { inner_->setSystemEnabled(enabled); }
    void appendMicrophone(audio::PcmBufferPtr buffer) override {
        if (buffer) LevelMeter::raise(meter_->mic, *buffer);
        inner_->appendMicrophone(std::move(buffer));
    }
    void appendSystem(audio::PcmBufferPtr buffer) override {
        if (buffer) LevelMeter::raise(meter_->system, *buffer);
        inner_->appendSystem(std::move(buffer));
    }
    void finish() override { inner_->finish(); }

private:
    std::unique_ptr<audio::RecordingMixer> inner_;
    std::shared_ptr<LevelMeter> meter_;
};

// "[######    ]" for a peak level, on a -60...0 dBFS scale.
std::string bar(float peak) {
    constexpr int kWidth = 12;
    const double db = peak > 0 ? 20 * std::log10(peak) : -120;
    const int filled = std::clamp(int(std::lround((db + 60) / 60 * kWidth)), 0, kWidth);
    return "[" + std::string(std::size_t(filled), '#') + std::string(std::size_t(kWidth - filled), ' ') + "]";
}

// Ctrl-C, SIGTERM (and SIGUSR1, our own wake-up) are taken by one thread with sigwait, so
// the recording is stopped on the main loop like any other stop.
class SignalWatcher {
public:
    SignalWatcher() {
        sigemptyset(&set_);
        sigaddset(&set_, SIGINT);
        sigaddset(&set_, SIGTERM);
        sigaddset(&set_, SIGUSR1);
        // Before any other thread exists, so that every thread inherits the mask.
        pthread_sigmask(SIG_BLOCK, &set_, &previous_);
    }
    ~SignalWatcher() {
        if (thread_.joinable()) {
            done_ = true;
            pthread_kill(thread_.native_handle(), SIGUSR1);
            thread_.join();
        }
        pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
    }
    void watch(std::function<void()> onStop) {
        thread_ = std::thread([this, onStop = std::move(onStop)] {
            while (!done_) {
                int signal = 0;
                if (sigwait(&set_, &signal) != 0) continue;
                if (done_) return;
                if (signal == SIGINT || signal == SIGTERM) onStop();
            }
        });
    }

private:
    sigset_t set_{}, previous_{};
    std::atomic<bool> done_{false};
    std::thread thread_;
};

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("record", msg::kDescription.str());
    auto seconds = std::make_shared<double>(0);
    cmd->add_option("--seconds", *seconds, msg::kSecondsOption.str())->check(CLI::Validator(
        [](std::string& text) -> std::string {
            // "inf", "nan" and lengths shorter than one mixer tick would either never stop
            // or stop before a single frame reached the file.
            try {
                std::size_t used = 0;
                const double value = std::stod(text, &used);
                if (used == text.size() && std::isfinite(value) && value >= kShortestSeconds) return {};
            } catch (const std::exception&) {
            }
            return msg::kBadSeconds.str();
        },
        "SECONDS"));
    cmd->callback([&context, seconds] {
        SignalWatcher signals;
        auto scope = RuntimeScope::enter(context);
        if (!scope) return;
        auto meter = std::make_shared<LevelMeter>();
        recording::RecorderService::setSharedPartsProvider([meter] {
            auto parts = app::recorderParts();
            if (auto make = parts.makeMixer) {
                parts.makeMixer = [make, meter](const std::filesystem::path& file, double rate) -> std::unique_ptr<audio::RecordingMixer> {
                    auto inner = make(file, rate);
                    if (!inner) return nullptr;
                    return std::make_unique<MeteredMixer>(std::move(inner), meter);
                };
            }
            return parts;
        });
        auto& core = app::core();
        auto& recorder = core.recorder();
        // Signs in from the stored session meanwhile; a recording that starts before the
        // answer is stamped with the account that session belongs to.
        core.bootstrap();
        auto& main = runtime::main();
        const bool terminal = ::isatty(STDERR_FILENO) == 1;

        bool started = false;
        bool stopping = false;
        bool progressShown = false;
        std::string id;
        TimerHandle limit, progress;
        auto clearProgress = [&] {
            if (progressShown) std::cerr << "\r\033[K" << std::flush;
            progressShown = false;
        };
        auto finishRun = [&] {
            limit.cancel();
            progress.cancel();
            clearProgress();
            const auto& outcome = recorder.lastStop();
            if (outcome && outcome->id == id && !outcome->kept) {
                // The reason was said already; nothing is waiting to be uploaded.
                context.exitCode = kExitFailure;
            } else {
                const double length = outcome && outcome->id == id ? outcome->savedSeconds : 0.0;
                std::cout << msg::kSaved.str() << fmt::format("{:.1f}", length) << " s" << std::endl;
            }
            scope->stop();
        };
        auto stopNow = [&] {
            if (!started || stopping) return;
            stopping = true;
            recorder.stop(true, false);
            finishRun();
        };
        // The recorder may also stop on its own (write error, limits): say why. Posted, so
        // that the stop has finished (its message and the saved length are final) first.
        auto watching = recorder.state.isRecording.subscribe([&](bool recording) {
            main.post([&, recording] {
                if (recording || !started || stopping) return;
                stopping = true;
                clearProgress();
                const auto reason = recorder.state.lastError.get();
                if (reason) std::cerr << "vell: " << *reason << "\n";
                if (reason && *reason == recording::messages::kStoppedOnWriteError.str()) context.exitCode = kExitFailure;
                finishRun();
            });
        });
        signals.watch([&main, &stopNow] { main.post([&stopNow] { stopNow(); }); });

        recorder.start({}, [&](bool ok) {
            if (!ok) {
                const auto reason = recorder.state.lastError.get();
                std::cerr << "vell: " << msg::kDidNotStart.str() << reason.value_or("") << "\n";
                context.exitCode = kExitFailure;
                scope->stop();
                return;
            }
            started = true;
            id = recorder.currentID().value_or("");
            std::filesystem::path file;
            for (const auto& r : recorder.pending())
                if (r.id == id) file = r.fileURL;
            std::cout << msg::kRecording.str() << id << "\n" << msg::kFile.str() << file.string() << std::endl;
            if (*seconds > 0) limit = main.postAfter(*seconds, [&] { stopNow(); });
            if (terminal) {
                std::cerr << msg::kStopHint.str() << "\n";
                progress = main.repeat(0.25, [&] {
                    const double elapsed = recorder.state.elapsed.get();
                    const int whole = int(elapsed);
                    std::cerr << fmt::format("\r\033[K  {:02}:{:02}:{:02}  {} {}  {} {}", whole / 3600, whole / 60 % 60,
                                             whole % 60, msg::kMicLabel.str(), bar(meter->mic.exchange(0)),
                                             msg::kSystemLabel.str(), bar(meter->system.exchange(0)))
                              << std::flush;
                    progressShown = true;
                });
            }
        });
        scope->run();
        if (context.exitCode == kExitOK && !started) context.exitCode = kExitFailure;
    });
}
}  // namespace

VELL_COMMAND(20, setup);

}  // namespace vell::cli
