#include "platform/alsa/alsa_mic_engine.h"

#include <alsa/asoundlib.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <chrono>
#include <mutex>
#include <thread>

#include "audio/errors.h"
#include "base/log.h"
#include "platform/pulse/pulse_connection.h"

namespace vell::platform {

namespace {

using audio::CoreAudioError;
using audio::MicCaptureError;

const log::Logger& logger() {
    static const log::Logger instance("AlsaMicEngine");
    return instance;
}

// ALSA prints its own diagnostics straight to standard error (a machine without a sound
// card fills the terminal with them); they belong in our log, where the error we raise
// from the failed call is reported anyway.
void alsaDiagnostic(const char* file, int line, const char* function, int err, const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    logger().debug(std::string("alsa ") + (function ? function : "?") + " (" + (file ? file : "?") + ":" +
                   std::to_string(line) + "): " + text + (err ? std::string(": ") + snd_strerror(err) : ""));
}

void routeAlsaDiagnostics() {
    static std::once_flag once;
    std::call_once(once, [] { snd_lib_error_set_handler(&alsaDiagnostic); });
}

double monotonicSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// The ALSA name of a sound-server source, when the server runs and the source sits on ALSA.
std::string alsaNameOf(const audio::MicrophoneTarget& target) {
    try {
        pulse::Connection connection("Vell device lookup", "vell-alsa-look");
        connection.connect();
        std::optional<pulse::SourceInfo> source;
        if (target.uid) source = connection.source(*target.uid);
        if (!source && target.deviceID) source = connection.source(*target.deviceID);
        if (source) return source->alsaDevice;
    } catch (const std::exception&) {
        // No server: no device can be named.
    }
    return {};
}

class AlsaMicEngine final : public audio::MicCaptureEngine {
public:
    ~AlsaMicEngine() override {
        stop();
        if (pcm_) snd_pcm_close(pcm_);
    }

    // A chosen device is opened on its own ALSA name or not at all: ALSA's "default" would
    // record whatever microphone that is, and the user would not know.
    void selectDevice(const audio::MicrophoneTarget& target) override {
        const std::string name = alsaNameOf(target);
        if (name.empty()) {
            logger().info("the sound server cannot name an ALSA device for " + target.uid.value_or("device " + std::to_string(target.deviceID.value_or(0))));
            throw MicCaptureError::deviceRejected(-ENODEV);
        }
        onDefault_ = false;
        openDevice(name, true);
    }

    void installTap(audio::BufferHandler handler) override {
        std::lock_guard lock(handlerMutex_);
        handler_ = std::move(handler);
    }

    void removeTap() override {
        std::lock_guard lock(handlerMutex_);
        handler_ = nullptr;
    }

    void prepare() override {
        if (!pcm_) openDevice("default", false);
        snd_pcm_hw_params_t* hw;
        snd_pcm_hw_params_alloca(&hw);
        int err = snd_pcm_hw_params_any(pcm_, hw);
        unsigned channels = 1;
        if (err >= 0) err = snd_pcm_hw_params_set_access(pcm_, hw, SND_PCM_ACCESS_RW_INTERLEAVED);
        if (err >= 0) err = snd_pcm_hw_params_set_format(pcm_, hw, SND_PCM_FORMAT_FLOAT_LE);
        if (err >= 0) err = snd_pcm_hw_params_get_channels_min(hw, &channels);
        if (err >= 0) err = snd_pcm_hw_params_set_channels(pcm_, hw, channels);
        unsigned rate = 48000;
        if (err >= 0) err = snd_pcm_hw_params_set_rate_near(pcm_, hw, &rate, nullptr);
        unsigned period = 20000;
        if (err >= 0) err = snd_pcm_hw_params_set_period_time_near(pcm_, hw, &period, nullptr);
        unsigned bufferTime = 200000;
        if (err >= 0) err = snd_pcm_hw_params_set_buffer_time_near(pcm_, hw, &bufferTime, nullptr);
        if (err >= 0) err = snd_pcm_hw_params(pcm_, hw);
        if (err < 0) throw CoreAudioError(err, "snd_pcm_hw_params");
        snd_pcm_uframes_t periodFrames = 0;
        snd_pcm_hw_params_get_period_size(hw, &periodFrames, nullptr);
        rate_ = rate;
        channels_ = static_cast<int>(channels);
        periodFrames_ = periodFrames > 0 ? periodFrames : rate / 50;
        err = snd_pcm_prepare(pcm_);
        if (err < 0) throw CoreAudioError(err, "snd_pcm_prepare");
    }

    void start() override {
        if (thread_.joinable()) return;
        int err = snd_pcm_start(pcm_);
        if (err < 0) throw CoreAudioError(err, "snd_pcm_start");
        stopping_ = false;
        thread_ = std::thread([this] { run(); });
    }

    void stop() override {
        stopping_ = true;
        if (thread_.joinable()) thread_.join();
        if (pcm_) snd_pcm_drop(pcm_);
    }

    void setDeviceChangeHandler(std::function<void()> handler) override {
        std::lock_guard lock(handlerMutex_);
        onDeviceChange_ = std::move(handler);
    }

    bool runsOnDefault() const override { return onDefault_; }

private:
    void openDevice(const std::string& name, bool selecting) {
        if (pcm_) snd_pcm_close(pcm_);
        pcm_ = nullptr;
        routeAlsaDiagnostics();
        int err = snd_pcm_open(&pcm_, name.c_str(), SND_PCM_STREAM_CAPTURE, 0);
        if (err < 0) {
            pcm_ = nullptr;
            if (selecting) throw MicCaptureError::deviceRejected(err);
            throw CoreAudioError(err, "snd_pcm_open");
        }
        logger().info("opened ALSA capture device " + name);
    }

    void run() {
        pthread_setname_np(pthread_self(), "mac.mic-io");
        std::vector<float> interleaved(periodFrames_ * static_cast<size_t>(channels_));
        while (!stopping_) {
            int ready = snd_pcm_wait(pcm_, 100);
            if (ready == 0) continue;
            snd_pcm_sframes_t n = ready < 0 ? ready : snd_pcm_readi(pcm_, interleaved.data(), periodFrames_);
            if (n == -EAGAIN) continue;
            if (n < 0) {
                if (snd_pcm_recover(pcm_, static_cast<int>(n), 1) >= 0) {
                    snd_pcm_start(pcm_);
                    continue;
                }
                logger().error(std::string("ALSA capture failed: ") + snd_strerror(static_cast<int>(n)));
                std::function<void()> notify;
                {
                    std::lock_guard lock(handlerMutex_);
                    notify = onDeviceChange_;
                }
                if (notify && !stopping_) notify();
                return;
            }
            auto frames = static_cast<size_t>(n);
            auto buffer = audio::PcmBuffer::make(rate_, channels_, frames);
            for (size_t f = 0; f < frames; ++f) {
                for (int c = 0; c < channels_; ++c) buffer->channels[static_cast<size_t>(c)][f] = interleaved[f * static_cast<size_t>(channels_) + static_cast<size_t>(c)];
            }
            buffer->hostTime = monotonicSeconds() - static_cast<double>(frames) / rate_;
            std::lock_guard lock(handlerMutex_);
            if (handler_) handler_(std::move(buffer));
        }
    }

    snd_pcm_t* pcm_ = nullptr;
    bool onDefault_ = false;
    double rate_ = 0;
    int channels_ = 0;
    snd_pcm_uframes_t periodFrames_ = 0;
    std::mutex handlerMutex_;
    audio::BufferHandler handler_;
    std::function<void()> onDeviceChange_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace

std::unique_ptr<audio::MicCaptureEngine> makeAlsaMicEngine() { return std::make_unique<AlsaMicEngine>(); }

}  // namespace vell::platform
