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
#include <nlohmann/json.hpp>
#include <map>
#include <thread>

#include "app/composition.h"
#include "app/composition_live.h"
#include "app/core_services.h"
#include "app/host.h"
#include "app/input_levels.h"
#include "audio/capture_messages.h"
#include "audio/microphone_settings.h"
#include "base/runtime.h"
#include "base/user_defaults.h"
#include "cli/command.h"
#include "cli/host_client.h"
#include "cli/microphone_choice.h"
#include "cli/record_messages.h"
#include "cli/runtime_scope.h"
#include "cli/signal_watcher.h"
#include "cli/terminal.h"
#include "cli/units.h"
#include "live/live_messages.h"
#include "platform/dbus/control_server.h"
#include "platform/pulse/pulse_input_devices.h"
#include "recording/recorder_messages.h"
#include "recording/recorder_service.h"

namespace vell::cli {

namespace {
namespace msg = record_messages;

// One tick of the mixer: anything shorter writes no audio.
constexpr double kShortestSeconds = 0.1;

// "[######    ]" for a peak level, on a -60...0 dBFS scale.
std::string bar(float peak) {
    constexpr int kWidth = 12;
    const double db = peak > 0 ? 20 * std::log10(peak) : -120;
    const int filled = std::clamp(int(std::lround((db + 60) / 60 * kWidth)), 0, kWidth);
    return "[" + std::string(std::size_t(filled), '#') + std::string(std::size_t(kWidth - filled), ' ') + "]";
}

std::string progressLine(double elapsed, float microphone, float system) {
    const int whole = int(elapsed);
    return fmt::format("\r\033[K  {:02}:{:02}:{:02}  {} {}  {} {}", whole / 3600, whole / 60 % 60, whole % 60,
                       msg::kMicLabel.str(), bar(microphone), msg::kSystemLabel.str(), bar(system));
}

// What `vell record` tells: plain lines in the interface language, or JSON lines for scripts;
// the elapsed time and levels redrawn in place only on a terminal that can.
class RecordOutput {
public:
    RecordOutput(bool json, bool quiet) : json_(json), quiet_(quiet), fancy_(fancyTerminal() && !json && !quiet) {}
    bool drawsProgress() const { return fancy_; }
    void started(const std::string& id, const std::string& file, double limitSeconds, bool microphoneFellBack) const {
        // The user chose a microphone and gets another one: said even when quiet.
        if (microphoneFellBack)
            std::cerr << audio::messages::kDisconnectedMicrophone.str() << msg::kRecordingFromDefault.str() << "\n";
        if (json_) {
            std::cout << nlohmann::json{{"event", "started"}, {"id", id}, {"file", file}, {"microphoneFellBack", microphoneFellBack}}
                             .dump()
                      << std::endl;
            return;
        }
        if (quiet_) {
            // Quiet drops the hints, not the result: the id alone, for a script to keep.
            std::cout << id << std::endl;
            return;
        }
        std::cout << msg::kRecording.str() << id << "\n" << msg::kFile.str() << file << std::endl;
        if (limitSeconds > 0) {
            std::cerr << msg::kStopHintLimited.str() << fmt::format("{:g}", limitSeconds) << msg::kStopHintLimitedEnd.str() << "\n";
        } else {
            std::cerr << msg::kStopHint.str() << "\n";
        }
    }
    void progress(double elapsed, float microphone, float system) {
        if (!fancy_) return;
        std::cerr << progressLine(elapsed, microphone, system) << std::flush;
        shown_ = true;
    }
    void clear() {
        if (shown_) std::cerr << "\r\033[K" << std::flush;
        shown_ = false;
    }
    void stopped(const std::string& id, const std::string& file, double length, bool kept) {
        clear();
        if (json_) {
            std::cout << nlohmann::json{{"event", "stopped"}, {"id", id}, {"file", file}, {"length", length}, {"kept", kept}}.dump()
                      << std::endl;
            return;
        }
        if (kept && !quiet_) std::cout << msg::kSaved.str() << fmt::format("{:.1f}", length) << " s" << std::endl;
    }

private:
    bool json_, quiet_, fancy_;
    bool shown_ = false;
};

// Prints each cue once, and again when the service changes what it says; and the live
// advisor's problems as they come.
class LiveCuePrinter {
public:
    explicit LiveCuePrinter(bool json) : json_(json) {}
    void show(const live::LiveAdvice& advice) {
        for (const auto& tile : advice.tiles) {
            const std::string text = live::tileText(tile);
            auto& seen = shown_[tile.id];
            if (seen == text) continue;
            seen = text;
            if (json_) {
                std::cout << nlohmann::json{{"event", "cue"}, {"id", tile.id}, {"kind", tile.kind}, {"title", live::tileTitle(tile)},
                                            {"text", text}, {"weight", tile.weight}, {"atMs", tile.atMs}}
                                 .dump()
                          << std::endl;
            } else {
                std::cout << msg::kCue.str() << live::tileTitle(tile) << ": " << text << std::endl;
            }
        }
        if (advice.message != message_) {
            message_ = advice.message;
            if (message_) std::cerr << "vell: " << *message_ << "\n";
        }
    }

private:
    bool json_;
    std::map<std::string, std::string> shown_;
    std::optional<std::string> message_;
};

// The recording made by the host that owns the data folder: started, watched and stopped
// through its control interface, with the output of an in-process recording.
int recordThroughHost(const dbus::ControlClient& host, double seconds, const std::optional<std::string>& microphone,
                      SignalWatcher& signals, RecordOutput& out, bool live) {
    LiveCuePrinter cues(false);
    auto showCues = [&] {
        if (!live) return;
        auto text = host.liveAdvice();
        if (!text) return;
        auto advice = live::liveAdviceFromJson(nlohmann::json::parse(*text, nullptr, false));
        if (advice) {
            out.clear();
            cues.show(*advice);
        }
    };
    std::atomic<bool> stopRequested{false};
    signals.watch([&stopRequested] { stopRequested = true; });
    auto started = microphone ? host.startRecordingOn(*microphone) : host.startRecording();
    if (!started) {
        std::cerr << "vell: " << msg::kDidNotStart.str() << started.error().message << "\n";
        return kExitFailure;
    }
    const auto& [id, file] = *started;
    auto fellBack = host.microphoneFellBack();
    out.started(id, file, seconds, fellBack && *fellBack);
    const auto begin = std::chrono::steady_clock::now();
    int exitCode = kExitOK;
    nlohmann::json entry;
    while (true) {
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        const double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        // A host that no longer answers (killed, hung) leaves nothing to report as saved.
        auto hostGone = [&](const dbus::ControlError& error) {
            out.clear();
            std::cerr << "vell: " << msg::kHostGone.str() << error.message << "\n";
            return kExitFailure;
        };
        if (stopRequested || (seconds > 0 && waited >= seconds)) {
            auto stopped = host.stopRecording(false);
            if (stopped) entry = nlohmann::json::parse(*stopped, nullptr, false);
            if (!stopped && !stopped.error().notRecording()) return hostGone(stopped.error());
            if (stopped) break;
        }
        showCues();
        auto status = host.status();
        if (!status) return hostGone(status.error());
        if (status && status->recording && status->recordingID == id) {
            out.progress(status->elapsed, float(status->microphoneLevel), float(status->systemLevel));
            continue;
        }
        // Stopped by someone else or by itself (limits, write error): say why.
        out.clear();
        if (status && !status->lastError.empty()) {
            std::cerr << "vell: " << status->lastError << "\n";
            if (status->lastError == recording::messages::kStoppedOnWriteError.str()) exitCode = kExitFailure;
        }
        if (auto list = host.pending()) {
            for (const auto& e : nlohmann::json::parse(*list, nullptr, false)) {
                if (e.is_object() && e.value("id", "") == id) entry = e;
            }
        }
        break;
    }
    out.stopped(id, file, lengthOf(entry), entry.is_object() && !entry.empty());
    return exitCode;
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("record", msg::kDescription.str());
    auto seconds = std::make_shared<double>(0);
    auto json = std::make_shared<bool>(false);
    auto device = std::make_shared<std::string>();
    auto force = std::make_shared<bool>(false);
    cmd->add_flag("--json", *json, msg::kJsonOption.str());
    cmd->add_option("--device", *device, audio::messages::kDeviceOption.str());
    cmd->add_flag("--force", *force, audio::messages::kForceOption.str());
    auto live = std::make_shared<bool>(false);
    cmd->add_flag("--live", *live, msg::kLiveOption.str());
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
    cmd->callback([&context, seconds, json, device, force, live] {
        // A microphone for this recording only, checked against the list like `vell mic`.
        std::optional<std::string> microphone;
        if (!device->empty()) {
            audio::MicrophoneSettings settings(platform::makePulseInputDevices(), UserDefaults::standard(), false);
            auto argument = parseMicrophoneArgument(*device, settings, *force);
            if (!argument) {
                std::cerr << "vell: " << argument.error() << "\n";
                context.exitCode = kExitUsage;
                return;
            }
            if (argument->missing && !context.quiet) std::cerr << audio::messages::kNotConnectedYet.str() << "\n";
            microphone = argument->selection.encoded();
        }
        SignalWatcher signals;
        if (auto host = runningHost()) {
            RecordOutput out(*json, context.quiet);
            context.exitCode = recordThroughHost(*host, *seconds, microphone, signals, out, *live);
            return;
        }
        auto scope = RuntimeScope::enter(context);
        if (!scope) return;
        auto& core = app::core();
        auto& recorder = core.recorder();
        // Signs in from the stored session meanwhile; a recording that starts before the
        // answer is stamped with the account that session belongs to.
        core.bootstrap();
        // This process owns the data folder while it records: it serves `vell pending`,
        // `vell status` and `vell stop` from other terminals, like a host would.
        auto server = dbus::ControlServer::start(app::host());
        auto& main = runtime::main();
        auto& levels = app::inputLevels();
        RecordOutput out(*json, context.quiet);

        bool started = false;
        bool stopping = false;
        std::string id;
        std::filesystem::path file;
        TimerHandle limit, progress, settle;
        LiveCuePrinter cues(*json);
        Subscription adviceWatch;
        if (*live) {
            adviceWatch = app::liveAdvisor().advice.subscribe([&](const live::LiveAdvice& advice) {
                main.post([&, advice] {
                    out.clear();
                    cues.show(advice);
                });
            });
        }
        // The live session gets its last segment and is closed before the program ends; a
        // service that cannot be reached is not waited for (what it missed is live advice
        // only: the recording is complete and its upload comes later).
        auto settleThenStop = [&] {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
            settle = main.repeat(0.1, [&, deadline] {
                auto& advisor = app::liveAdvisor();
                const bool unreachable = advisor.advice.get().message == live::messages::kServiceUnreachable.str();
                if (!advisor.settled() && !unreachable && std::chrono::steady_clock::now() < deadline) return;
                settle.cancel();
                scope->stop();
            });
        };
        auto finishRun = [&] {
            limit.cancel();
            progress.cancel();
            const auto& outcome = recorder.lastStop();
            const bool kept = !(outcome && outcome->id == id && !outcome->kept);
            // Without a kept part the reason was said already; nothing waits to be uploaded.
            if (!kept) context.exitCode = kExitFailure;
            out.stopped(id, file.string(), kept && outcome && outcome->id == id ? outcome->savedSeconds : 0.0, kept);
            settleThenStop();
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
                out.clear();
                const auto reason = recorder.state.lastError.get();
                if (reason) std::cerr << "vell: " << *reason << "\n";
                if (reason && *reason == recording::messages::kStoppedOnWriteError.str()) context.exitCode = kExitFailure;
                finishRun();
            });
        });
        signals.watch([&main, &stopNow] { main.post([&stopNow] { stopNow(); }); });

        recording::RecordingStartOptions options;
        if (microphone) {
            auto selection = audio::MicrophoneSelection::parse(*microphone);
            if (selection) options.microphone = audio::MicrophoneSettings::shared().target(*selection);
        }
        recorder.start(std::move(options), [&](bool ok) {
            if (!ok) {
                const auto reason = recorder.state.lastError.get();
                std::cerr << "vell: " << msg::kDidNotStart.str() << reason.value_or("") << "\n";
                context.exitCode = kExitFailure;
                scope->stop();
                return;
            }
            started = true;
            id = recorder.currentID().value_or("");
            if (*live && !core.client().hasSessionCookie()) std::cerr << "vell: " << msg::kLiveNeedsSignIn.str() << "\n";
            for (const auto& r : recorder.pending())
                if (r.id == id) file = r.fileURL;
            out.started(id, file.string(), *seconds, recorder.state.microphoneFellBack.get());
            if (*seconds > 0) limit = main.postAfter(*seconds, [&] { stopNow(); });
            if (out.drawsProgress()) {
                progress = main.repeat(0.25, [&] {
                    out.progress(recorder.state.elapsed.get(), levels.microphone.exchange(0), levels.system.exchange(0));
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
