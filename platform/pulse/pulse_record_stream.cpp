#include "platform/pulse/pulse_record_stream.h"

#include <pulse/pulseaudio.h>

#include <chrono>
#include <cstring>

#include "audio/errors.h"

namespace vell::pulse {

using audio::CoreAudioError;

namespace {
double monotonicSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
}  // namespace

struct RecordStream::Callbacks {
    static void state(pa_stream* s, void* userdata) {
        auto* self = static_cast<RecordStream*>(userdata);
        auto state = pa_stream_get_state(s);
        if (state == PA_STREAM_FAILED && self->events_) self->events_(StreamEvent::Failed);
        self->connection_.signal();
    }
    static void moved(pa_stream*, void* userdata) {
        auto* self = static_cast<RecordStream*>(userdata);
        if (self->events_) self->events_(StreamEvent::Moved);
    }
    static void suspended(pa_stream* s, void* userdata) {
        auto* self = static_cast<RecordStream*>(userdata);
        if (self->events_) self->events_(pa_stream_is_suspended(s) == 1 ? StreamEvent::Suspended : StreamEvent::Resumed);
    }
    static void readable(pa_stream*, size_t, void* userdata) { static_cast<RecordStream*>(userdata)->read(); }
};

RecordStream::RecordStream(Connection& connection, RecordOptions options)
    : connection_(connection), options_(std::move(options)) {}

RecordStream::~RecordStream() { stop(); }

void RecordStream::start() {
    if (running()) return;
    auto source = connection_.source(options_.source);
    if (!source) throw CoreAudioError(PA_ERR_NOENTITY, "pa_context_get_source_info_by_name");

    Connection::Lock lock(connection_);
    pa_sample_spec spec{PA_SAMPLE_FLOAT32NE, options_.rate.value_or(source->rate), options_.channels.value_or(source->channels)};
    if (!pa_sample_spec_valid(&spec)) throw CoreAudioError(PA_ERR_NOTSUPPORTED, "pa_sample_spec_valid");
    rate_ = spec.rate;
    channels_ = spec.channels;
    stream_ = pa_stream_new(connection_.context(), options_.streamName.c_str(), &spec, nullptr);
    if (!stream_) throw CoreAudioError(pa_context_errno(connection_.context()), "pa_stream_new");

    pa_stream_set_state_callback(stream_, &Callbacks::state, this);
    pa_stream_set_read_callback(stream_, &Callbacks::readable, this);
    pa_stream_set_moved_callback(stream_, &Callbacks::moved, this);
    pa_stream_set_suspended_callback(stream_, &Callbacks::suspended, this);

    pa_buffer_attr attr;
    attr.maxlength = static_cast<uint32_t>(-1);
    attr.tlength = attr.prebuf = attr.minreq = static_cast<uint32_t>(-1);
    attr.fragsize = static_cast<uint32_t>(pa_usec_to_bytes(static_cast<pa_usec_t>(options_.fragmentSeconds * 1e6), &spec));
    int flags = PA_STREAM_ADJUST_LATENCY;
    if (options_.dontMove) flags |= PA_STREAM_DONT_MOVE;

    auto fail = [&](const char* operation, int error) {
        pa_stream_set_state_callback(stream_, nullptr, nullptr);
        pa_stream_set_read_callback(stream_, nullptr, nullptr);
        pa_stream_set_moved_callback(stream_, nullptr, nullptr);
        pa_stream_set_suspended_callback(stream_, nullptr, nullptr);
        pa_stream_disconnect(stream_);
        pa_stream_unref(stream_);
        stream_ = nullptr;
        throw CoreAudioError(error, operation);
    };
    if (options_.sinkInput && pa_stream_set_monitor_stream(stream_, *options_.sinkInput) < 0) {
        fail("pa_stream_set_monitor_stream", pa_context_errno(connection_.context()));
    }
    if (pa_stream_connect_record(stream_, options_.source.c_str(), &attr, static_cast<pa_stream_flags_t>(flags)) < 0) {
        fail("pa_stream_connect_record", pa_context_errno(connection_.context()));
    }
    const bool settled = connection_.waitFor([&] {
        auto state = pa_stream_get_state(stream_);
        return state == PA_STREAM_READY || !PA_STREAM_IS_GOOD(state);
    });
    if (pa_stream_get_state(stream_) == PA_STREAM_READY) return;
    fail("pa_stream_connect_record", settled ? pa_context_errno(connection_.context()) : PA_ERR_TIMEOUT);
}

void RecordStream::stop() {
    Connection::Lock lock(connection_);
    if (!stream_) return;
    pa_stream_set_state_callback(stream_, nullptr, nullptr);
    pa_stream_set_read_callback(stream_, nullptr, nullptr);
    pa_stream_set_moved_callback(stream_, nullptr, nullptr);
    pa_stream_set_suspended_callback(stream_, nullptr, nullptr);
    if (PA_STREAM_IS_GOOD(pa_stream_get_state(stream_))) pa_stream_disconnect(stream_);
    pa_stream_unref(stream_);
    stream_ = nullptr;
}

bool RecordStream::running() const {
    Connection::Lock lock(connection_);
    return stream_ && pa_stream_get_state(stream_) == PA_STREAM_READY;
}

void RecordStream::setDataHandler(DataHandler handler) {
    Connection::Lock lock(connection_);
    data_ = std::move(handler);
}

void RecordStream::setEventHandler(EventHandler handler) {
    Connection::Lock lock(connection_);
    events_ = std::move(handler);
}

void RecordStream::read() {
    // Runs on the connection's thread with the loop locked.
    const size_t frameBytes = sizeof(float) * static_cast<size_t>(channels_);
    for (;;) {
        const void* data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(stream_, &data, &bytes) < 0 || bytes == 0) return;
        size_t frames = bytes / frameBytes;
        if (data_ && frames > 0) {
            auto buffer = audio::PcmBuffer::make(rate_, channels_, frames);
            // A hole (data == nullptr) is audio the server lost: it stays silent.
            if (data) {
                const auto* in = static_cast<const float*>(data);
                for (size_t f = 0; f < frames; ++f) {
                    for (int c = 0; c < channels_; ++c) buffer->channels[static_cast<size_t>(c)][f] = in[f * static_cast<size_t>(channels_) + static_cast<size_t>(c)];
                }
            }
            buffer->hostTime = monotonicSeconds() - static_cast<double>(frames) / rate_;
            data_(std::move(buffer));
        }
        pa_stream_drop(stream_);
    }
}

}  // namespace vell::pulse
