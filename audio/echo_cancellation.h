#pragma once
// Echo cancellation of the recording's microphone, as the rest of the program sees it: the
// user's switch, the output route it depends on, and what the running recording's mixer
// does right now (cancelling, bypassed and why, or off). One process-wide instance; every
// member is thread-safe (the mixer's queue reports, the control interface and the front
// ends read, the route watcher's thread writes the route).
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "audio/output_route.h"
#include "base/log.h"

namespace vell::audio {

enum class EchoState { idle, active, bypassed, off };
enum class EchoBypass { none, headphones, headset, bluetooth, silence, noSystemAudio, unavailable };

const char* echoStateName(EchoState state);    // "idle", "active", "bypassed", "off"
const char* echoBypassName(EchoBypass reason);  // "", "headphones", ..., "silence", "noSystemAudio", "unavailable"

struct EchoCancelStatus {
    bool enabled = true;
    EchoState state = EchoState::idle;  // idle: no recording is running
    EchoBypass reason = EchoBypass::none;
    OutputRoute output;
    std::optional<double> erleDb;
    std::optional<int> delayMs;
};

class EchoCancellation {
public:
    static EchoCancellation& shared();

    // watchers: makes the route watcher while a recording runs (the installed one when empty).
    explicit EchoCancellation(OutputRouteWatcher::Factory watchers = {});
    ~EchoCancellation();
    EchoCancellation(const EchoCancellation&) = delete;
    EchoCancellation& operator=(const EchoCancellation&) = delete;

    // The user's switch (read from the preferences by the owner of the setting).
    void setEnabled(bool enabled);
    bool enabled() const;

    // A recording's mixer takes part from attach() to detach(); the output route is
    // followed only meanwhile.
    void attach();
    void detach();

    OutputRoute route() const;
    void setRoute(const OutputRoute& route);  // from the watcher (or a test); logged when it changes

    // What the mixer does now; logged when the state or the reason changes.
    void report(EchoState state, EchoBypass reason, std::optional<double> erleDb, std::optional<int> delayMs);

    EchoCancelStatus status() const;

private:
    OutputRouteWatcher::Factory watchers_;
    log::Logger logger_{"EchoCancel"};
    mutable std::mutex lock_;
    bool enabled_ = true;
    int attached_ = 0;
    OutputRoute route_;
    EchoState state_ = EchoState::idle;
    EchoBypass reason_ = EchoBypass::none;
    std::optional<double> erleDb_;
    std::optional<int> delayMs_;
    std::unique_ptr<OutputRouteWatcher> watcher_;
};

}  // namespace vell::audio
