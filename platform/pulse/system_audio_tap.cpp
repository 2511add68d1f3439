#include "platform/pulse/system_audio_tap.h"

#include "audio/errors.h"
#include "base/serial_queue.h"
#include "platform/pulse/pulse_connection.h"
#include "platform/pulse/pulse_record_stream.h"

namespace vell::audio {

namespace {
constexpr double kFragmentSeconds = 0.05;
constexpr double kReconnectSeconds = 1.0;
}

SystemAudioTap::SystemAudioTap()
    : queue_(std::make_unique<SerialQueue>(queues::kSystemTap)), generation_(std::make_shared<std::atomic<uint64_t>>(0)) {}

SystemAudioTap::~SystemAudioTap() {
    stop();
    // Runs what is still queued while every member is alive; it sees a stale generation.
    queue_.reset();
}

void SystemAudioTap::start(BufferHandler handler) {
    std::lock_guard lock(mutex_);
    if (running_) return;
    uint64_t generation = ++*generation_;
    auto connection = std::make_unique<pulse::Connection>("Vell system audio", queues::kSystemTap);
    try {
        connection->connect();
        connection_ = std::move(connection);
        handler_ = std::move(handler);
        openOn(connection_->defaultSinkMonitor());
        listen(generation);
    } catch (const CoreAudioError& e) {
        logger_.error(std::string("cannot start: ") + e.what());
        stream_.reset();
        connection_.reset();
        handler_ = nullptr;
        monitor_.clear();
        throw;
    }
    running_ = true;
}

void SystemAudioTap::listen(uint64_t generation) {
    // Events arrive on the connection's thread; the work happens on the tap's queue.
    auto follow = [this, generation] { queue_->post([this, generation] { followDefault(generation); }); };
    connection_->subscribe({pulse::Change::Server, pulse::Change::Sinks}, [follow](pulse::Change) { follow(); });
    connection_->onLost(follow);
}

void SystemAudioTap::openOn(const std::string& monitor) {
    // The mixer takes audio in every 0.1 s, so 50 ms blocks lose nothing; and a monitor's
    // requested latency is also the sink's, so asking for less would make the server wake
    // the sound card more often for everyone.
    auto stream = std::make_unique<pulse::RecordStream>(*connection_, pulse::RecordOptions{monitor, true, kFragmentSeconds, "System audio"});
    stream->setDataHandler(handler_);
    uint64_t generation = *generation_;
    stream->setEventHandler([this, generation](pulse::StreamEvent event) {
        if (event == pulse::StreamEvent::Failed || event == pulse::StreamEvent::Moved) {
            queue_->post([this, generation] { followDefault(generation); });
        }
    });
    stream->start();
    stream_ = std::move(stream);
    monitor_ = monitor;
    logger_.info("recording system audio from " + monitor + " (" + std::to_string(static_cast<int>(stream_->rate())) + " Hz, " +
                 std::to_string(stream_->channels()) + " channels)");
}

void SystemAudioTap::followDefault(uint64_t generation, bool retrying) {
    std::lock_guard lock(mutex_);
    if (retrying) retry_ = TimerHandle{};
    if (!running_ || generation != *generation_ || !connection_) return;
    if (!connection_->connected()) {
        reconnect(generation);
        return;
    }
    std::string monitor;
    try {
        monitor = connection_->defaultSinkMonitor();
    } catch (const CoreAudioError& e) {
        logger_.error(std::string("no output to follow: ") + e.what());
        return;
    }
    if (monitor == monitor_ && stream_ && stream_->running()) return;
    logger_.info("default output changed; reopening on " + monitor);
    closeStream();
    try {
        openOn(monitor);
    } catch (const CoreAudioError& e) {
        logger_.error(std::string("cannot reopen: ") + e.what());
    }
}

// With mutex_ held.
void SystemAudioTap::closeStream() {
    if (stream_) {
        stream_->setEventHandler(nullptr);
        stream_->stop();
        stream_.reset();
    }
    monitor_.clear();
}

// Runs on the tap's queue with mutex_ held.
void SystemAudioTap::reconnect(uint64_t generation) {
    if (retry_.active()) return;  // the stream and the connection both report one loss
    closeStream();
    try {
        connection_->connect();
        listen(generation);
        openOn(connection_->defaultSinkMonitor());
        logger_.info("the sound server answers again");
        serverLost_ = false;
    } catch (const CoreAudioError& e) {
        if (!serverLost_) logger_.error(std::string("lost the sound server; retrying every second: ") + e.what());
        serverLost_ = true;
        retry_ = queue_->postAfter(kReconnectSeconds, [this, generation] { followDefault(generation, true); });
    }
}

void SystemAudioTap::stop() {
    std::lock_guard lock(mutex_);
    ++*generation_;
    retry_.cancel();
    serverLost_ = false;
    closeStream();
    connection_.reset();
    handler_ = nullptr;
    running_ = false;
}

std::string SystemAudioTap::monitorName() const {
    std::lock_guard lock(mutex_);
    return monitor_;
}

double SystemAudioTap::sampleRate() const {
    std::lock_guard lock(mutex_);
    return stream_ ? stream_->rate() : 0;
}

int SystemAudioTap::channelCount() const {
    std::lock_guard lock(mutex_);
    return stream_ ? stream_->channels() : 0;
}

}  // namespace vell::audio
