#pragma once
// One connection to the sound server over the PulseAudio protocol (PulseAudio itself, or
// PipeWire through pipewire-pulse): a context on its own threaded main loop, with the
// blocking introspection calls that device lists, microphones and the system-audio tap
// need. The server may go away at any time: calls then throw CoreAudioError, callbacks
// report the loss, nothing crashes.
//
// Callbacks (events, loss, stream data) run on the connection's own thread. They must not
// call the blocking helpers of the same connection: hop to another thread first.
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct pa_threaded_mainloop;
struct pa_context;
struct pa_operation;

namespace vell::pulse {

struct SourceInfo {
    uint32_t index = 0;
    std::string name;         // the persistent device UID
    std::string description;  // what people call it
    bool isMonitor = false;
    std::string bus;          // property "device.bus" ("usb", "bluetooth", ...)
    std::string formFactor;   // property "device.form_factor" ("internal", "headset", ...)
    std::string alsaDevice;   // property "device.string" when the source sits on ALSA
    uint32_t rate = 0;
    uint8_t channels = 0;
};

struct ServerInfo {
    std::string defaultSink;
    std::string defaultSource;
    std::string serverName;     // "pulseaudio" or "PulseAudio (on PipeWire ...)"
    std::string serverVersion;
};

// Which kinds of change a subscriber hears about.
enum class Change { Sources, Sinks, Server, SinkInputs };

class Connection {
public:
    // threadName: the label of the connection's thread (kept to the kernel's 15 characters).
    Connection(std::string clientName, std::string threadName);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Connects (again, after a loss) and waits until the server answers. Throws
    // CoreAudioError(error, "pa_context_connect"). Does nothing when already connected.
    void connect();
    bool connected() const;
    void disconnect();

    ServerInfo serverInfo();                              // throws CoreAudioError
    std::vector<SourceInfo> sources();                    // every source, monitors included
    std::optional<SourceInfo> source(const std::string& name);
    std::optional<SourceInfo> source(uint32_t index);
    // The monitor source of a sink (by sink name), absent when the sink does not exist.
    std::optional<std::string> monitorOfSink(const std::string& sinkName);
    // The monitor source of the current default sink, looked up by name (not through the
    // "@DEFAULT_MONITOR@" alias, which some servers resolve late or not at all). Throws
    // CoreAudioError when there is no default sink or it has no monitor.
    std::string defaultSinkMonitor();

    // Events of the chosen kinds and the loss of the server, on the connection's thread.
    // Replaces any previous subscription; call after connect().
    void subscribe(std::vector<Change> kinds, std::function<void(Change)> onChange);
    void onLost(std::function<void()> onLost);

    // For streams built on this connection (platform/pulse/pulse_record_stream.h).
    pa_threaded_mainloop* mainloop() const { return mainloop_; }
    pa_context* context() const { return context_; }
    // The last error number of the context (0 when none).
    int lastError() const;

    // RAII lock of the main loop (reentrant from the loop's own thread).
    class Lock {
    public:
        explicit Lock(const Connection& c);
        ~Lock();
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        pa_threaded_mainloop* loop_;
        bool locked_;
    };

    // Waits (with the loop locked) until the operation finishes; false when the server was
    // lost meanwhile. Throws CoreAudioError(PA_ERR_TIMEOUT, operation) when the server did
    // not answer in time; the operation is then cancelled, so its callback never runs.
    // Unreferences the operation.
    bool await(pa_operation* op, const char* operation = "pa_operation") const;
    // Waits (with the loop locked, never on the loop's own thread) until `done` holds, for
    // at most kAnswerSeconds (see below); false on time-out. A server that is alive but stuck, or a
    // PipeWire without a session manager that never links a stream, must not hang us.
    bool waitFor(const std::function<bool()>& done) const;
    static constexpr double kAnswerSeconds = 5.0;
    // After a wait went unanswered, later waits of the process (any connection) only give
    // the server kRecheckSeconds for kStuckMemorySeconds, until it answers again.
    static constexpr double kRecheckSeconds = 0.5;
    static constexpr double kStuckMemorySeconds = 30.0;
    // Wakes waiters; called by the library callbacks.
    void signal() const;

private:
    struct Callbacks;
    friend struct Callbacks;
    void requireConnected(const char* operation) const;
    // Detaches and drops the context, if any; the caller holds the loop's lock.
    void releaseContext();

    std::string clientName_;
    pa_threaded_mainloop* mainloop_ = nullptr;
    pa_context* context_ = nullptr;
    std::function<void(Change)> onChange_;
    std::function<void()> onLost_;
    bool wasReady_ = false;
};

}  // namespace vell::pulse
