#include "platform/pulse/preview_player.h"

#include <pulse/error.h>
#include <pulse/simple.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "base/log.h"

namespace vell::platform {

namespace {
const log::Logger kLog("PreviewPlayer");
constexpr double kBlockSeconds = 0.05;

class PulsePreviewPlayer final : public insurance::PreviewPlayer {
public:
    explicit PulsePreviewPlayer(PcmDecoder decode) : decode_(std::move(decode)) {}
    ~PulsePreviewPlayer() override { stop(); }

    bool play(const std::filesystem::path& file) override {
        stop();
        auto pcm = decode_ ? decode_(file) : std::nullopt;
        if (!pcm || pcm->samples.empty() || pcm->channels <= 0 || pcm->sampleRate <= 0) return false;
        pcm_ = std::move(*pcm);
        pa_sample_spec spec{PA_SAMPLE_S16LE, static_cast<uint32_t>(pcm_.sampleRate), static_cast<uint8_t>(pcm_.channels)};
        // A short target buffer, so the position and a pause follow the ear closely.
        pa_buffer_attr attr{};
        attr.maxlength = static_cast<uint32_t>(-1);
        attr.tlength = static_cast<uint32_t>(pa_usec_to_bytes(150'000, &spec));
        attr.prebuf = static_cast<uint32_t>(-1);
        attr.minreq = static_cast<uint32_t>(-1);
        attr.fragsize = static_cast<uint32_t>(-1);
        int error = 0;
        stream_ = pa_simple_new(nullptr, "Vell", PA_STREAM_PLAYBACK, nullptr, "Recovered speech preview", &spec, nullptr,
                                &attr, &error);
        if (!stream_) {
            kLog.error(std::string("cannot open a playback stream: ") + pa_strerror(error));
            return false;
        }
        frame_ = 0;
        heard_ = 0;
        clockRunning_ = false;
        stopping_ = false;
        paused_ = false;
        playing_ = true;
        thread_ = std::thread([this] { run(); });
        return true;
    }

    void pause() override {
        std::lock_guard lock(mutex_);
        if (!playing_) return;
        // The place freezes now, not when the player thread next looks.
        heard_ = place();
        clockRunning_ = false;
        paused_ = true;
        playing_ = false;
    }

    void resume() override {
        std::lock_guard lock(mutex_);
        if (!paused_) return;
        paused_ = false;
        playing_ = true;
        wake_.notify_all();
    }

    void stop() override {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
            playing_ = false;
            wake_.notify_all();
        }
        if (thread_.joinable()) thread_.join();
        if (stream_) {
            int error = 0;
            pa_simple_flush(stream_, &error);
            pa_simple_free(stream_);
            stream_ = nullptr;
        }
    }

    double currentTime() const override {
        std::lock_guard lock(mutex_);
        return pcm_.sampleRate ? place() / pcm_.sampleRate : 0;
    }
    bool isPlaying() const override { return playing_.load(); }

private:
    void run() {
        const int64_t frames = static_cast<int64_t>(pcm_.samples.size()) / pcm_.channels;
        const int64_t block = std::max<int64_t>(1, static_cast<int64_t>(kBlockSeconds * pcm_.sampleRate));
        int error = 0;
        for (;;) {
            {
                std::unique_lock lock(mutex_);
                if (paused_) {
                    // What the server still holds is dropped; the place stays where the ear is.
                    pa_simple_flush(stream_, &error);
                    frame_ = static_cast<int64_t>(heard_);
                    wake_.wait(lock, [this] { return !paused_ || stopping_; });
                }
                if (stopping_) return;
            }
            if (frame_ >= frames) break;
            if (!clockRunning_) {
                // Playing from here: the ear's place moves with the clock from now on.
                std::lock_guard lock(mutex_);
                since_ = std::chrono::steady_clock::now();
                placeAtStart_ = static_cast<double>(frame_);
                clockRunning_ = true;
            }
            const int64_t n = std::min(block, frames - frame_);
            const auto* data = pcm_.samples.data() + frame_ * pcm_.channels;
            if (pa_simple_write(stream_, data, static_cast<size_t>(n * pcm_.channels) * sizeof(int16_t), &error) < 0) {
                kLog.error(std::string("playback stopped: ") + pa_strerror(error));
                break;
            }
            frame_ += n;
        }
        if (!stopping_) pa_simple_drain(stream_, &error);
        std::lock_guard lock(mutex_);
        clockRunning_ = false;
        heard_ = static_cast<double>(frame_);
        playing_ = false;
    }

    // The server's latency figure is no help here (a null or network sink reports its whole
    // block as held), so the place runs with the clock from the first block, up to the end.
    // Under mutex_.
    double place() const {
        if (!clockRunning_) return heard_;
        const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - since_).count();
        const double total = static_cast<double>(pcm_.samples.size() / std::max(1, pcm_.channels));
        return std::min(total, placeAtStart_ + elapsed * pcm_.sampleRate);
    }

    PcmDecoder decode_;
    PlaybackPcm pcm_;
    pa_simple* stream_ = nullptr;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    bool paused_ = false;
    std::atomic<bool> playing_{false};
    int64_t frame_ = 0;  // next frame to write (player thread)
    // The listener's place (under mutex_): frozen in heard_, or running from since_.
    bool clockRunning_ = false;
    std::chrono::steady_clock::time_point since_;
    double placeAtStart_ = 0;
    double heard_ = 0;
};
}  // namespace

std::unique_ptr<insurance::PreviewPlayer> makePulsePreviewPlayer(PcmDecoder decode) {
    return std::make_unique<PulsePreviewPlayer>(std::move(decode));
}

}  // namespace vell::platform
