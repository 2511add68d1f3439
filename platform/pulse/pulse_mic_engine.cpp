#include "platform/pulse/pulse_mic_engine.h"

#include <pulse/def.h>
#include <pulse/error.h>

#include <atomic>
#include <mutex>
#include <optional>

#include "audio/errors.h"
#include "base/log.h"
#include "base/serial_queue.h"
#include "platform/pulse/pulse_connection.h"
#include "platform/pulse/pulse_record_stream.h"

namespace vell::platform {

namespace {

using audio::CoreAudioError;
using audio::MicCaptureError;

SerialQueue& controlQueue() {
    static SerialQueue queue(queues::kMicControl);
    return queue;
}

const log::Logger& logger() {
    static const log::Logger instance("PulseMicEngine");
    return instance;
}

// What the delayed device checks may touch after the engine is gone.
struct Shared {
    std::atomic<uint64_t> generation{0};
    std::mutex mutex;
    std::function<void()> onDeviceChange;
};

class PulseMicEngine final : public audio::MicCaptureEngine {
public:
    explicit PulseMicEngine(PulseMicDelivery delivery)
        : delivery_(delivery), connection_("Vell microphone", queues::kMicIO), shared_(std::make_shared<Shared>()) {}
    ~PulseMicEngine() override { stop(); }

    void selectDevice(const audio::MicrophoneTarget& target) override {
        std::lock_guard lock(lock_);
        connection_.connect();
        std::optional<pulse::SourceInfo> source;
        if (target.uid) {
            source = connection_.source(*target.uid);
        } else if (target.deviceID) {
            source = connection_.source(*target.deviceID);
        }
        if (!source) throw MicCaptureError::deviceRejected(PA_ERR_NOENTITY);
        chosen_ = source->name;
    }

    void installTap(audio::BufferHandler handler) override {
        std::lock_guard lock(lock_);
        handler_ = std::move(handler);
        if (stream_) stream_->setDataHandler(handler_);
    }

    void removeTap() override {
        std::lock_guard lock(lock_);
        handler_ = nullptr;
        if (stream_) stream_->setDataHandler(nullptr);
    }

    void prepare() override {
        std::lock_guard lock(lock_);
        connection_.connect();
    }

    void start() override {
        std::lock_guard lock(lock_);
        if (stream_) return;
        connection_.connect();
        std::string device = chosen_ ? *chosen_ : connection_.serverInfo().defaultSource;
        if (device.empty()) throw CoreAudioError(PA_ERR_NOENTITY, "pa_context_get_server_info");
        pulse::RecordOptions options{device, chosen_.has_value(), delivery_.blockSeconds, "Microphone"};
        options.rate = delivery_.rate;
        options.channels = delivery_.channels;
        auto stream = std::make_unique<pulse::RecordStream>(connection_, std::move(options));
        stream->setDataHandler(handler_);
        uint64_t generation = ++shared_->generation;
        std::weak_ptr<Shared> weak = shared_;
        stream->setEventHandler([weak, generation, device](pulse::StreamEvent event) {
            if (event == pulse::StreamEvent::Resumed) return;
            controlQueue().postAfter(0.5, [weak, generation, device, event] {
                auto shared = weak.lock();
                if (!shared || shared->generation != generation) return;
                logger().info("microphone " + device + (event == pulse::StreamEvent::Moved       ? " moved"
                                                         : event == pulse::StreamEvent::Suspended ? " was suspended"
                                                                                                  : " failed"));
                std::function<void()> notify;
                {
                    std::lock_guard lock(shared->mutex);
                    notify = shared->onDeviceChange;
                }
                if (notify) notify();
            });
        });
        stream->start();
        stream_ = std::move(stream);
        logger().info("recording from " + device);
    }

    void stop() override {
        std::lock_guard lock(lock_);
        ++shared_->generation;
        if (stream_) {
            stream_->setEventHandler(nullptr);
            stream_->stop();
            stream_.reset();
        }
    }

    void setDeviceChangeHandler(std::function<void()> handler) override {
        std::lock_guard lock(shared_->mutex);
        shared_->onDeviceChange = std::move(handler);
    }

private:
    const PulseMicDelivery delivery_;
    std::mutex lock_;
    pulse::Connection connection_;
    std::shared_ptr<Shared> shared_;
    std::optional<std::string> chosen_;
    audio::BufferHandler handler_;
    std::unique_ptr<pulse::RecordStream> stream_;
};

}  // namespace

std::unique_ptr<audio::MicCaptureEngine> makePulseMicEngine(PulseMicDelivery delivery) {
    return std::make_unique<PulseMicEngine>(delivery);
}

}  // namespace vell::platform
