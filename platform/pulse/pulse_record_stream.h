#pragma once
// A record stream on one source of a pulse::Connection: 32-bit float in the source's own
// rate and channels (or those asked for), delivered in blocks of about 20 ms (or as asked) as audio::PcmBuffer on the
// connection's thread. Moves, suspensions and failures (the source was removed, the server
// went away) are reported as events, also on the connection's thread.
#include <atomic>
#include <functional>
#include <optional>
#include <string>

#include "audio/pcm_buffer.h"
#include "platform/pulse/pulse_connection.h"

struct pa_stream;

namespace vell::pulse {

enum class StreamEvent { Moved, Suspended, Resumed, Failed };

struct RecordOptions {
    std::string source;            // source name; must exist
    bool dontMove = false;         // stay on this source (fail instead of following the default)
    double fragmentSeconds = 0.02;
    std::string streamName = "Vell";
    // On a sink's monitor: record only this playback stream (sink input) of the sink.
    std::optional<uint32_t> sinkInput;
    // Asked of the server instead of the source's own rate and channels (it converts).
    std::optional<uint32_t> rate;
    std::optional<uint8_t> channels;
};

class RecordStream {
public:
    using DataHandler = std::function<void(audio::PcmBufferPtr)>;
    using EventHandler = std::function<void(StreamEvent)>;

    RecordStream(Connection& connection, RecordOptions options);
    ~RecordStream();
    RecordStream(const RecordStream&) = delete;
    RecordStream& operator=(const RecordStream&) = delete;

    // Connects and waits until the stream records. Throws CoreAudioError naming the failed
    // call ("pa_context_get_source_info_by_name", "pa_stream_new", "pa_stream_connect_record").
    void start();
    void stop();  // idempotent

    // Safe to change at any time; take effect from the next block.
    void setDataHandler(DataHandler handler);
    void setEventHandler(EventHandler handler);

    bool running() const;
    double rate() const { return rate_; }
    int channels() const { return channels_; }
    const std::string& sourceName() const { return options_.source; }

    struct Callbacks;
    friend struct Callbacks;

private:
    void read();

    Connection& connection_;
    RecordOptions options_;
    pa_stream* stream_ = nullptr;
    double rate_ = 0;
    int channels_ = 0;
    // Guarded by the connection's main loop lock.
    DataHandler data_;
    EventHandler events_;
};

}  // namespace vell::pulse
