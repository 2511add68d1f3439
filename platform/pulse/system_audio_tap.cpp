#include "platform/pulse/system_audio_tap.h"

#include <pulse/def.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "audio/errors.h"
#include "base/serial_queue.h"
#include "platform/pulse/pulse_connection.h"
#include "platform/pulse/pulse_record_stream.h"
#include "platform/pulse/sink_inputs.h"

namespace vell::audio {

namespace {
constexpr double kFragmentSeconds = 0.05;
constexpr double kReconnectSeconds = 1.0;
}  // namespace

// Sums the playback streams of one sink, each recorded on its own, into one stream of
// blocks. All of them come from the same sink (same rate and channels, same pace); a stream
// that has delivered nothing for a while (paused) is left out rather than waited for.
class SystemAudioTap::InputSum {
public:
    InputSum(std::size_t inputs, BufferHandler out) : fifos_(inputs), out_(std::move(out)) {}

    void add(std::size_t which, PcmBufferPtr block) {
        if (fifos_.size() == 1) return out_(std::move(block));
        std::lock_guard lock(mutex_);
        const double now = seconds();
        auto& fifo = fifos_[which];
        if (fifo.channels.size() != block->channels.size()) fifo.channels.assign(block->channels.size(), {});
        for (std::size_t c = 0; c < block->channels.size(); ++c)
            fifo.channels[c].insert(fifo.channels[c].end(), block->channels[c].begin(), block->channels[c].end());
        fifo.lastArrival = now;
        rate_ = block->sampleRate;
        channels_ = block->channelCount();

        std::size_t frames = SIZE_MAX;
        for (const auto& f : fifos_)
            if (now - f.lastArrival < kIdleSeconds) frames = std::min(frames, f.frames());
        if (frames == 0 || frames == SIZE_MAX) return;
        auto sum = PcmBuffer::make(rate_, channels_, frames);
        sum->hostTime = block->hostTime;
        for (auto& f : fifos_) {
            const std::size_t take = std::min(frames, f.frames());
            for (std::size_t c = 0; c < f.channels.size() && c < sum->channels.size(); ++c) {
                for (std::size_t i = 0; i < take; ++i) sum->channels[c][i] += f.channels[c][i];
                f.channels[c].erase(f.channels[c].begin(), f.channels[c].begin() + std::ptrdiff_t(take));
            }
            // A stream far ahead of the others (they stalled) keeps no more than a second.
            const std::size_t limit = static_cast<std::size_t>(rate_);
            for (auto& channel : f.channels)
                if (channel.size() > limit) channel.erase(channel.begin(), channel.end() - std::ptrdiff_t(limit));
        }
        out_(std::move(sum));
    }

private:
    static constexpr double kIdleSeconds = 0.25;
    struct Fifo {
        std::vector<std::vector<float>> channels;
        double lastArrival = -1e9;
        std::size_t frames() const { return channels.empty() ? 0 : channels[0].size(); }
    };
    static double seconds() {
        return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
    }
    std::mutex mutex_;
    std::vector<Fifo> fifos_;
    BufferHandler out_;
    double rate_ = 0;
    int channels_ = 0;
};

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
        plan();
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
    // Playback streams coming and going decide whether our own sound must be left out.
    connection_->subscribe({pulse::Change::Server, pulse::Change::Sinks, pulse::Change::SinkInputs},
                           [follow](pulse::Change) { follow(); });
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
    try {
        plan();
    } catch (const CoreAudioError& e) {
        logger_.error(std::string("cannot follow the output: ") + e.what());
    }
}

// With mutex_ held: records the default output's monitor, or, while this process plays
// on that output itself, each of the output's other playback streams on its own, so that
// Vell's own sound (a preview played during a recording) never lands in a recording.
// Throws CoreAudioError when nothing can be opened.
void SystemAudioTap::plan() {
    const std::string sink = connection_->serverInfo().defaultSink;
    if (sink.empty()) throw CoreAudioError(PA_ERR_NOENTITY, "pa_context_get_server_info");
    const auto monitor = connection_->monitorOfSink(sink);
    if (!monitor || monitor->empty()) throw CoreAudioError(PA_ERR_NOENTITY, "pa_context_get_sink_info_by_name");

    static const std::string self = std::to_string(::getpid());
    const auto inputs = pulse::sinkInputsOf(*connection_, sink);
    std::optional<std::vector<uint32_t>> others;
    if (std::any_of(inputs.begin(), inputs.end(), [](auto& i) { return i.processID == self && !i.corked; })) {
        others.emplace();
        for (const auto& input : inputs)
            if (input.processID != self) others->push_back(input.index);
    }

    const bool running = others ? std::all_of(inputStreams_.begin(), inputStreams_.end(), [](auto& s) { return s->running(); })
                                : stream_ && stream_->running();
    if (*monitor == monitor_ && others == recordedInputs_ && running) return;
    if (!monitor_.empty()) logger_.info("output changed; reopening on " + *monitor);
    closeStream();
    if (others) {
        openExcludingOwn(*monitor, *others);
    } else {
        openOn(*monitor);
    }
}

void SystemAudioTap::openExcludingOwn(const std::string& monitor, const std::vector<uint32_t>& inputs) {
    sum_ = std::make_shared<InputSum>(inputs.size(), handler_);
    uint64_t generation = *generation_;
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        auto stream = std::make_unique<pulse::RecordStream>(
            *connection_, pulse::RecordOptions{monitor, true, kFragmentSeconds, "System audio", inputs[i]});
        stream->setDataHandler([sum = sum_, i](PcmBufferPtr b) { sum->add(i, std::move(b)); });
        stream->setEventHandler([this, generation](pulse::StreamEvent event) {
            if (event == pulse::StreamEvent::Failed || event == pulse::StreamEvent::Moved)
                queue_->post([this, generation] { followDefault(generation); });
        });
        try {
            stream->start();
        } catch (const CoreAudioError& e) {
            // The stream ended between the listing and now: the next event plans again.
            logger_.debug(std::string("a playback stream could not be recorded: ") + e.what());
            continue;
        }
        inputStreams_.push_back(std::move(stream));
    }
    monitor_ = monitor;
    recordedInputs_ = inputs;
    logger_.info("this program plays on " + monitor + ": recording the " + std::to_string(inputs.size()) +
                 " other playback streams one by one");
}

// With mutex_ held.
void SystemAudioTap::closeStream() {
    if (stream_) {
        stream_->setEventHandler(nullptr);
        stream_->stop();
        stream_.reset();
    }
    for (auto& stream : inputStreams_) {
        stream->setEventHandler(nullptr);
        stream->stop();
    }
    inputStreams_.clear();
    sum_.reset();
    recordedInputs_.reset();
    monitor_.clear();
}

// Runs on the tap's queue with mutex_ held.
void SystemAudioTap::reconnect(uint64_t generation) {
    if (retry_.active()) return;  // the stream and the connection both report one loss
    closeStream();
    try {
        connection_->connect();
        listen(generation);
        plan();
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
    if (stream_) return stream_->rate();
    return inputStreams_.empty() ? 0 : inputStreams_.front()->rate();
}

int SystemAudioTap::channelCount() const {
    std::lock_guard lock(mutex_);
    if (stream_) return stream_->channels();
    return inputStreams_.empty() ? 0 : inputStreams_.front()->channels();
}

bool SystemAudioTap::excludingOwnPlayback() const {
    std::lock_guard lock(mutex_);
    return recordedInputs_.has_value();
}

}  // namespace vell::audio
