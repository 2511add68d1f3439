// vell capture-test --seconds N: opens the recording microphone and the system audio the
// way a recording does and prints their levels (RMS and peak, dBFS) once a second.
#include <fmt/format.h>

#include <chrono>
#include <cmath>
#include <iostream>
#include <mutex>
#include <thread>

#include "audio/capture_messages.h"
#include "audio/error_sentence.h"
#include "audio/mic_capture.h"
#include "audio/microphone_settings.h"
#include "base/user_defaults.h"
#include "cli/command.h"
#include "platform/pulse/pulse_input_devices.h"
#include "platform/pulse/system_audio_tap.h"

namespace vell::cli {

namespace {
namespace msg = audio::messages;

// Sums what arrives on an audio thread; the printing thread takes a second's worth.
class LevelMeter {
public:
    void add(const audio::PcmBuffer& b) {
        std::lock_guard lock(mutex_);
        for (const auto& channel : b.channels) {
            for (float s : channel) {
                sumSquares_ += static_cast<double>(s) * s;
                peak_ = std::max(peak_, static_cast<double>(std::fabs(s)));
            }
            count_ += channel.size();
        }
        rate_ = b.sampleRate;
        channels_ = b.channelCount();
    }
    std::string take() {
        std::lock_guard lock(mutex_);
        std::string out;
        if (count_ == 0) {
            out = msg::kNoAudio.str();
        } else {
            out = fmt::format("{} RMS {} peak", dbfs(std::sqrt(sumSquares_ / static_cast<double>(count_))), dbfs(peak_));
        }
        sumSquares_ = 0;
        peak_ = 0;
        count_ = 0;
        return out;
    }
    std::string format() {
        std::lock_guard lock(mutex_);
        return rate_ > 0 ? fmt::format("{:.0f} Hz, {} ch", rate_, channels_) : "";
    }

private:
    static std::string dbfs(double level) {
        if (level <= 0) return "  -inf dBFS";
        return fmt::format("{:6.1f} dBFS", 20.0 * std::log10(level));
    }
    std::mutex mutex_;
    double sumSquares_ = 0, peak_ = 0, rate_ = 0;
    size_t count_ = 0;
    int channels_ = 0;
};

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("capture-test", msg::kCaptureTestDescription.str());
    auto seconds = std::make_shared<double>(5);
    // Decimals, as `vell record --seconds` takes them.
    cmd->add_option("--seconds", *seconds, msg::kSecondsOption.str())->check(CLI::Range(0.1, 3600.0));
    cmd->callback([&context, seconds] {
        audio::MicrophoneSettings settings(platform::makePulseInputDevices(), UserDefaults::standard(), false);
        auto resolution = settings.recordingResolution();
        LevelMeter micLevels, systemLevels;
        auto mic = audio::MicCapture::makeDefault();
        try {
            mic->start(settings.target(resolution), [&](audio::PcmBufferPtr b) { micLevels.add(*b); }, {});
        } catch (const std::exception& e) {
            std::cerr << "vell: " << msg::kMicrophoneFailed.str() << audio::failureSentence(e) << "\n";
            context.exitCode = kExitFailure;
            return;
        }
        audio::SystemAudioTap tap;
        std::string tapError;
        try {
            tap.start([&](audio::PcmBufferPtr b) { systemLevels.add(*b); });
        } catch (const std::exception& e) {
            tapError = audio::failureSentence(e);
        }
        std::cout << msg::kMicrophoneHeading.str() << ": "
                  << audio::selectionLabel(settings.recordingSelection.get(), settings.devices.get(), settings.systemDefaultUID.get(),
                                           interfaceLanguage());
        if (mic->fellBackToDefault() || resolution.fellBackToDefault) std::cout << " " << msg::kFellBack.str();
        std::cout << "\n" << msg::kSystemAudioHeading.str() << ": "
                  << (tapError.empty() ? tap.monitorName() : msg::kNotAvailable.str() + tapError) << "\n"
                  << std::flush;
        auto next = std::chrono::steady_clock::now();
        // A line a second; a last, shorter one for the fraction left.
        for (double done = 0; done < *seconds - 1e-9;) {
            const double step = std::min(1.0, *seconds - done);
            done += step;
            next += std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(step));
            std::this_thread::sleep_until(next);
            std::cout << fmt::format("{:5.1f}s  {}: {}   {}: {}", done, msg::kMicrophoneHeading.str(), micLevels.take(),
                                     msg::kSystemAudioHeading.str(), tapError.empty() ? systemLevels.take() : "-")
                      << std::endl;
        }
        mic->stop();
        tap.stop();
    });
}

VELL_COMMAND(42, setup);
}  // namespace

}  // namespace vell::cli
