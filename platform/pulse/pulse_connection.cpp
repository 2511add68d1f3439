#include "platform/pulse/pulse_connection.h"

#include <atomic>
#include <chrono>

#include <pulse/pulseaudio.h>

#include "audio/errors.h"

namespace vell::pulse {

using audio::CoreAudioError;
using audio::SoundServerNotAnswering;

namespace {

std::string prop(const pa_proplist* list, const char* key) {
    const char* v = list ? pa_proplist_gets(list, key) : nullptr;
    return v ? v : "";
}

SourceInfo toSourceInfo(const pa_source_info* i) {
    SourceInfo s;
    s.index = i->index;
    s.name = i->name ? i->name : "";
    s.description = i->description ? i->description : s.name;
    s.isMonitor = i->monitor_of_sink != PA_INVALID_INDEX;
    s.bus = prop(i->proplist, PA_PROP_DEVICE_BUS);
    s.formFactor = prop(i->proplist, PA_PROP_DEVICE_FORM_FACTOR);
    s.alsaDevice = prop(i->proplist, PA_PROP_DEVICE_STRING);
    s.rate = i->sample_spec.rate;
    s.channels = i->sample_spec.channels;
    return s;
}

void operationStateCallback(pa_operation*, void* userdata) {
    static_cast<const Connection*>(userdata)->signal();
}

}  // namespace

struct Connection::Callbacks {
    static void state(pa_context* c, void* userdata) {
        auto* self = static_cast<Connection*>(userdata);
        auto state = pa_context_get_state(c);
        if (state == PA_CONTEXT_READY) self->wasReady_ = true;
        if ((state == PA_CONTEXT_FAILED || state == PA_CONTEXT_TERMINATED) && self->wasReady_) {
            self->wasReady_ = false;
            if (self->onLost_ && state == PA_CONTEXT_FAILED) self->onLost_();
        }
        self->signal();
    }

    static void event(pa_context*, pa_subscription_event_type_t type, uint32_t, void* userdata) {
        auto* self = static_cast<Connection*>(userdata);
        if (!self->onChange_) return;
        switch (type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) {
            case PA_SUBSCRIPTION_EVENT_SOURCE:
                self->onChange_(Change::Sources);
                break;
            case PA_SUBSCRIPTION_EVENT_SINK:
                self->onChange_(Change::Sinks);
                break;
            case PA_SUBSCRIPTION_EVENT_SERVER:
                self->onChange_(Change::Server);
                break;
            case PA_SUBSCRIPTION_EVENT_SINK_INPUT:
                self->onChange_(Change::SinkInputs);
                break;
            default:
                break;
        }
    }
};

Connection::Lock::Lock(const Connection& c) : loop_(c.mainloop_) {
    // The loop's own thread already holds the lock while it runs callbacks.
    locked_ = !pa_threaded_mainloop_in_thread(loop_);
    if (locked_) pa_threaded_mainloop_lock(loop_);
}

Connection::Lock::~Lock() {
    if (locked_) pa_threaded_mainloop_unlock(loop_);
}

Connection::Connection(std::string clientName, std::string threadName) : clientName_(std::move(clientName)) {
    mainloop_ = pa_threaded_mainloop_new();
    if (!mainloop_) throw CoreAudioError(PA_ERR_INTERNAL, "pa_threaded_mainloop_new");
    if (threadName.size() > 15) threadName = threadName.substr(threadName.size() - 15);
    pa_threaded_mainloop_set_name(mainloop_, threadName.c_str());
    if (pa_threaded_mainloop_start(mainloop_) < 0) {
        pa_threaded_mainloop_free(mainloop_);
        throw CoreAudioError(PA_ERR_INTERNAL, "pa_threaded_mainloop_start");
    }
}

Connection::~Connection() {
    disconnect();
    pa_threaded_mainloop_stop(mainloop_);
    pa_threaded_mainloop_free(mainloop_);
}

void Connection::signal() const { pa_threaded_mainloop_signal(mainloop_, 0); }

bool Connection::connected() const {
    Lock lock(*this);
    return context_ && pa_context_get_state(context_) == PA_CONTEXT_READY;
}

int Connection::lastError() const {
    Lock lock(*this);
    return context_ ? pa_context_errno(context_) : PA_ERR_CONNECTIONTERMINATED;
}

namespace {
// Nobody listening on the socket (or no socket) means no server runs: the user can start one.
[[noreturn]] void throwConnectFailure(int error) {
    if (error == PA_ERR_CONNECTIONREFUSED || error == PA_ERR_NOENTITY) throw audio::SoundServerAbsent(error, "pa_context_connect");
    throw CoreAudioError(error, "pa_context_connect");
}
}  // namespace

void Connection::connect() {
    Lock lock(*this);
    if (context_ && pa_context_get_state(context_) == PA_CONTEXT_READY) return;
    releaseContext();
    pa_proplist* props = pa_proplist_new();
    pa_proplist_sets(props, PA_PROP_APPLICATION_NAME, "Vell");
    pa_proplist_sets(props, PA_PROP_APPLICATION_ID, "app.quillon.mac");
    pa_proplist_sets(props, PA_PROP_APPLICATION_ICON_NAME, "audio-input-microphone");
    context_ = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(mainloop_), clientName_.c_str(), props);
    pa_proplist_free(props);
    if (!context_) throw CoreAudioError(PA_ERR_INTERNAL, "pa_context_new");
    pa_context_set_state_callback(context_, &Callbacks::state, this);
    if (pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        throwConnectFailure(pa_context_errno(context_));
    }
    const bool settled = waitFor([&] {
        auto state = pa_context_get_state(context_);
        return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
    });
    if (pa_context_get_state(context_) == PA_CONTEXT_READY) return;
    const int error = settled ? pa_context_errno(context_) : PA_ERR_TIMEOUT;
    releaseContext();
    if (!settled) throw SoundServerNotAnswering(error, "pa_context_connect");
    throwConnectFailure(error);
}

void Connection::disconnect() {
    Lock lock(*this);
    releaseContext();
    wasReady_ = false;
}

void Connection::releaseContext() {
    if (!context_) return;
    pa_context_set_state_callback(context_, nullptr, nullptr);
    pa_context_set_subscribe_callback(context_, nullptr, nullptr);
    pa_context_disconnect(context_);
    pa_context_unref(context_);
    context_ = nullptr;
}

void Connection::requireConnected(const char* operation) const {
    if (!context_ || pa_context_get_state(context_) != PA_CONTEXT_READY) {
        throw CoreAudioError(context_ ? pa_context_errno(context_) : PA_ERR_CONNECTIONTERMINATED, operation);
    }
}

namespace {
struct Expiry {
    const Connection* connection;
    bool expired = false;
};
void expire(pa_mainloop_api*, pa_time_event*, const struct timeval*, void* userdata) {
    auto* expiry = static_cast<Expiry*>(userdata);
    expiry->expired = true;
    expiry->connection->signal();
}
}  // namespace

namespace {
// When the server last left a wait unanswered (steady clock, in ns; 0 = it has answered
// since). Shared by every connection of the process: one command lists, then opens, then
// taps, and a stuck server must not cost the full wait at each step.
std::atomic<int64_t> gUnansweredAt{0};

int64_t steadyNow() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double answerWindowSeconds() {
    const int64_t at = gUnansweredAt.load();
    if (at == 0) return Connection::kAnswerSeconds;
    const double since = static_cast<double>(steadyNow() - at) / 1e9;
    return since < Connection::kStuckMemorySeconds ? Connection::kRecheckSeconds : Connection::kAnswerSeconds;
}
}  // namespace

bool Connection::waitFor(const std::function<bool()>& done) const {
    if (done()) return true;
    Expiry expiry{this};
    const double window = answerWindowSeconds();
    pa_time_event* timer =
        context_ ? pa_context_rttime_new(context_, pa_rtclock_now() + static_cast<pa_usec_t>(window * PA_USEC_PER_SEC),
                                         &expire, &expiry)
                 : nullptr;
    while (!done() && !expiry.expired) pa_threaded_mainloop_wait(mainloop_);
    if (timer) pa_threaded_mainloop_get_api(mainloop_)->time_free(timer);
    const bool answered = done();
    if (answered) {
        gUnansweredAt.store(0);
    } else if (expiry.expired) {
        gUnansweredAt.store(steadyNow());
    }
    return answered;
}

bool Connection::await(pa_operation* op, const char* operation) const {
    if (!op) return false;
    pa_operation_set_state_callback(op, &operationStateCallback, const_cast<Connection*>(this));
    waitFor([&] {
        return pa_operation_get_state(op) != PA_OPERATION_RUNNING || !context_ ||
               !PA_CONTEXT_IS_GOOD(pa_context_get_state(context_));
    });
    const bool timedOut = pa_operation_get_state(op) == PA_OPERATION_RUNNING && context_ &&
                          PA_CONTEXT_IS_GOOD(pa_context_get_state(context_));
    if (pa_operation_get_state(op) == PA_OPERATION_RUNNING) pa_operation_cancel(op);
    bool done = pa_operation_get_state(op) == PA_OPERATION_DONE;
    pa_operation_set_state_callback(op, nullptr, nullptr);
    pa_operation_unref(op);
    if (timedOut) throw SoundServerNotAnswering(PA_ERR_TIMEOUT, operation);
    return done;
}

namespace {
struct Collect {
    const Connection* connection;
    std::vector<SourceInfo> sources;
    ServerInfo server;
    std::optional<std::string> monitor;
};
}  // namespace

ServerInfo Connection::serverInfo() {
    Lock lock(*this);
    requireConnected("pa_context_get_server_info");
    Collect collect{this, {}, {}, {}};
    auto* op = pa_context_get_server_info(
        context_,
        [](pa_context*, const pa_server_info* i, void* userdata) {
            auto* c = static_cast<Collect*>(userdata);
            if (i) {
                c->server.defaultSink = i->default_sink_name ? i->default_sink_name : "";
                c->server.defaultSource = i->default_source_name ? i->default_source_name : "";
                c->server.serverName = i->server_name ? i->server_name : "";
                c->server.serverVersion = i->server_version ? i->server_version : "";
            }
            c->connection->signal();
        },
        &collect);
    if (!await(op, "pa_context_get_server_info")) throw CoreAudioError(lastError(), "pa_context_get_server_info");
    return collect.server;
}

namespace {
void sourceCallback(pa_context*, const pa_source_info* i, int eol, void* userdata) {
    auto* c = static_cast<Collect*>(userdata);
    if (eol == 0 && i) c->sources.push_back(toSourceInfo(i));
    c->connection->signal();
}
}  // namespace

std::vector<SourceInfo> Connection::sources() {
    Lock lock(*this);
    requireConnected("pa_context_get_source_info_list");
    Collect collect{this, {}, {}, {}};
    if (!await(pa_context_get_source_info_list(context_, &sourceCallback, &collect), "pa_context_get_source_info_list")) {
        throw CoreAudioError(lastError(), "pa_context_get_source_info_list");
    }
    return collect.sources;
}

std::optional<SourceInfo> Connection::source(const std::string& name) {
    Lock lock(*this);
    requireConnected("pa_context_get_source_info_by_name");
    Collect collect{this, {}, {}, {}};
    // A missing source ends the operation with an error, which simply means "none".
    await(pa_context_get_source_info_by_name(context_, name.c_str(), &sourceCallback, &collect),
          "pa_context_get_source_info_by_name");
    requireConnected("pa_context_get_source_info_by_name");
    if (collect.sources.empty()) return std::nullopt;
    return collect.sources.front();
}

std::optional<SourceInfo> Connection::source(uint32_t index) {
    Lock lock(*this);
    requireConnected("pa_context_get_source_info_by_index");
    Collect collect{this, {}, {}, {}};
    await(pa_context_get_source_info_by_index(context_, index, &sourceCallback, &collect),
          "pa_context_get_source_info_by_index");
    requireConnected("pa_context_get_source_info_by_index");
    if (collect.sources.empty()) return std::nullopt;
    return collect.sources.front();
}

std::optional<std::string> Connection::monitorOfSink(const std::string& sinkName) {
    Lock lock(*this);
    requireConnected("pa_context_get_sink_info_by_name");
    Collect collect{this, {}, {}, {}};
    await(pa_context_get_sink_info_by_name(
        context_, sinkName.c_str(),
        [](pa_context*, const pa_sink_info* i, int eol, void* userdata) {
            auto* c = static_cast<Collect*>(userdata);
            if (eol == 0 && i && i->monitor_source_name) c->monitor = i->monitor_source_name;
            c->connection->signal();
        },
        &collect));
    requireConnected("pa_context_get_sink_info_by_name");
    return collect.monitor;
}

std::string Connection::defaultSinkMonitor() {
    auto sink = serverInfo().defaultSink;
    if (sink.empty()) throw CoreAudioError(PA_ERR_NOENTITY, "pa_context_get_server_info");
    auto monitor = monitorOfSink(sink);
    if (!monitor || monitor->empty()) throw CoreAudioError(PA_ERR_NOENTITY, "pa_context_get_sink_info_by_name");
    return *monitor;
}

void Connection::subscribe(std::vector<Change> kinds, std::function<void(Change)> onChange) {
    Lock lock(*this);
    requireConnected("pa_context_subscribe");
    onChange_ = std::move(onChange);
    int mask = PA_SUBSCRIPTION_MASK_NULL;
    for (auto k : kinds) {
        if (k == Change::Sources) mask |= PA_SUBSCRIPTION_MASK_SOURCE;
        if (k == Change::Sinks) mask |= PA_SUBSCRIPTION_MASK_SINK;
        if (k == Change::Server) mask |= PA_SUBSCRIPTION_MASK_SERVER;
        if (k == Change::SinkInputs) mask |= PA_SUBSCRIPTION_MASK_SINK_INPUT;
    }
    pa_context_set_subscribe_callback(context_, &Callbacks::event, this);
    if (!await(pa_context_subscribe(context_, static_cast<pa_subscription_mask_t>(mask), nullptr, nullptr),
               "pa_context_subscribe")) {
        throw CoreAudioError(lastError(), "pa_context_subscribe");
    }
}

void Connection::onLost(std::function<void()> onLost) {
    Lock lock(*this);
    onLost_ = std::move(onLost);
}

}  // namespace vell::pulse
