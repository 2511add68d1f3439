#include "platform/pulse/pulse_input_devices.h"

#include <mutex>

#include "platform/pulse/pulse_connection.h"

namespace vell::platform {

namespace {

class PulseInputDevices final : public audio::InputDeviceProvider {
public:
    PulseInputDevices() : connection_("Vell devices", "vell-devices") {}
    ~PulseInputDevices() override {
        setChangeHandler(nullptr);
        connection_.disconnect();
    }

    std::vector<audio::AudioInputDevice> devices() override {
        ensureConnected();
        std::vector<audio::AudioInputDevice> out;
        for (const auto& s : connection_.sources()) {
            if (s.isMonitor) continue;
            out.push_back({s.name, s.description, audio::transportFor(s.bus, s.formFactor), s.index});
        }
        return out;
    }

    std::optional<std::string> systemDefaultUID() override {
        ensureConnected();
        auto name = connection_.serverInfo().defaultSource;
        if (name.empty()) return std::nullopt;
        return name;
    }

    void setChangeHandler(std::function<void()> onChange) override {
        bool listen = static_cast<bool>(onChange);
        {
            std::lock_guard lock(callbackMutex_);
            onChange_ = std::move(onChange);
        }
        std::lock_guard lock(mutex_);
        listening_ = listen;
        if (listen) subscribeLocked();
    }

private:
    void ensureConnected() {
        std::lock_guard lock(mutex_);
        if (connection_.connected()) return;
        connection_.connect();
        if (listening_) subscribeLocked();
    }

    void subscribeLocked() {
        try {
            connection_.connect();
            // Runs on the connection's thread: only hand the news on.
            connection_.subscribe({pulse::Change::Sources, pulse::Change::Server}, [this](pulse::Change) { notify(); });
            connection_.onLost([this] { notify(); });
        } catch (const std::exception&) {
            // No server now; the next devices() call connects again.
        }
    }

    void notify() {
        std::function<void()> callback;
        {
            std::lock_guard lock(callbackMutex_);
            callback = onChange_;
        }
        if (callback) callback();
    }

    std::mutex mutex_;  // connecting and subscribing
    pulse::Connection connection_;
    bool listening_ = false;
    // Never held while talking to the server: events arrive on the connection's thread.
    std::mutex callbackMutex_;
    std::function<void()> onChange_;
};

}  // namespace

std::unique_ptr<audio::InputDeviceProvider> makePulseInputDevices() { return std::make_unique<PulseInputDevices>(); }

}  // namespace vell::platform
