#include "platform/pulse/pulse_output_route.h"

#include <pulse/pulseaudio.h>

#include <mutex>
#include <stdexcept>

#include "audio/errors.h"
#include "base/log.h"
#include "base/serial_queue.h"
#include "platform/pulse/pulse_connection.h"

namespace vell::platform {

namespace {

const log::Logger kLog{"EchoCancel"};
constexpr double kRetrySeconds = 2.0;

std::string portTypeName(uint32_t type) {
    switch (type) {
        case PA_DEVICE_PORT_TYPE_HEADPHONES: return "headphones";
        case PA_DEVICE_PORT_TYPE_HEADSET: return "headset";
        case PA_DEVICE_PORT_TYPE_SPEAKER: return "speaker";
        case PA_DEVICE_PORT_TYPE_BLUETOOTH: return "bluetooth";
        case PA_DEVICE_PORT_TYPE_HANDSFREE: return "handsfree";
        default: return "";  // line, HDMI, analog, ...: the device's own properties decide
    }
}

struct SinkFacts {
    bool found = false;
    std::string port;
    audio::OutputDeviceTraits traits;
};

std::string property(const pa_proplist* list, const char* key) {
    const char* value = list ? pa_proplist_gets(list, key) : nullptr;
    return value ? value : "";
}

class PulseOutputRouteWatcher final : public audio::OutputRouteWatcher {
public:
    PulseOutputRouteWatcher() : queue_(std::make_unique<SerialQueue>("app.quillon.mac.output-route")) {}
    ~PulseOutputRouteWatcher() override {
        stop();
        queue_.reset();
    }

    void start(std::function<void(const audio::OutputRoute&)> onChange) override {
        std::lock_guard lock(mutex_);
        const uint64_t generation = ++generation_;
        onChange_ = std::move(onChange);
        queue_->post([this, generation] { evaluate(generation); });
    }

    void stop() override {
        // Waits for a running evaluation, so no callback follows.
        queue_->sync([this] {
            std::lock_guard lock(mutex_);
            ++generation_;
            retry_.cancel();
            onChange_ = nullptr;
            connection_.reset();
            reported_.reset();
        });
    }

private:
    // On the queue.
    void evaluate(uint64_t generation) {
        std::unique_lock lock(mutex_);
        if (generation != generation_) return;
        retry_ = TimerHandle{};
        audio::OutputRoute route;
        try {
            if (!connection_ || !connection_->connected()) {
                connection_ = std::make_unique<pulse::Connection>("Vell output route", "vell-outroute");
                connection_->connect();
                auto follow = [this, generation] { queue_->post([this, generation] { evaluate(generation); }); };
                connection_->subscribe({pulse::Change::Server, pulse::Change::Sinks}, [follow](pulse::Change) { follow(); });
                connection_->onLost(follow);
            }
            const auto server = connection_->serverInfo();
            route.device = server.defaultSink;
            const auto facts = sink(server.defaultSink);
            if (facts.found) {
                route.port = facts.port;
                route.kind = audio::classifyOutput(facts.traits);
            }
        } catch (const std::exception& e) {  // CoreAudioError mostly; nothing may escape the queue
            if (!lostLogged_) kLog.error(std::string("cannot read the default output: ") + e.what());
            lostLogged_ = true;
            connection_.reset();
            route = audio::OutputRoute{};
            retry_ = queue_->postAfter(kRetrySeconds, [this, generation] { evaluate(generation); });
        }
        if (connection_) lostLogged_ = false;
        if (reported_ && *reported_ == route) return;
        reported_ = route;
        auto onChange = onChange_;
        lock.unlock();
        if (onChange) onChange(route);
    }

    SinkFacts sink(const std::string& name) {
        SinkFacts facts;
        if (name.empty()) return facts;
        pulse::Connection::Lock lock(*connection_);
        struct Collect {
            pulse::Connection* connection;
            SinkFacts* facts;
        } collect{connection_.get(), &facts};
        connection_->await(pa_context_get_sink_info_by_name(
                               connection_->context(), name.c_str(),
                               [](pa_context*, const pa_sink_info* info, int eol, void* userdata) {
                                   auto* c = static_cast<Collect*>(userdata);
                                   if (eol == 0 && info) {
                                       c->facts->found = true;
                                       if (info->active_port) {
                                           c->facts->port = info->active_port->name ? info->active_port->name : "";
                                           c->facts->traits.portType = portTypeName(info->active_port->type);
                                       }
                                       c->facts->traits.formFactor = property(info->proplist, PA_PROP_DEVICE_FORM_FACTOR);
                                       c->facts->traits.bus = property(info->proplist, PA_PROP_DEVICE_BUS);
                                   }
                                   c->connection->signal();
                               },
                               &collect),
                           "pa_context_get_sink_info_by_name");
        return facts;
    }

    std::unique_ptr<SerialQueue> queue_;
    std::mutex mutex_;
    uint64_t generation_ = 0;
    std::function<void(const audio::OutputRoute&)> onChange_;
    std::unique_ptr<pulse::Connection> connection_;
    std::optional<audio::OutputRoute> reported_;
    TimerHandle retry_;
    bool lostLogged_ = false;
};

}  // namespace

std::unique_ptr<audio::OutputRouteWatcher> makePulseOutputRouteWatcher() {
    return std::make_unique<PulseOutputRouteWatcher>();
}

}  // namespace vell::platform
