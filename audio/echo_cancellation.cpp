#include "audio/echo_cancellation.h"

namespace vell::audio {

const char* echoStateName(EchoState state) {
    switch (state) {
        case EchoState::active: return "active";
        case EchoState::bypassed: return "bypassed";
        case EchoState::off: return "off";
        case EchoState::idle: break;
    }
    return "idle";
}

const char* echoBypassName(EchoBypass reason) {
    switch (reason) {
        case EchoBypass::headphones: return "headphones";
        case EchoBypass::headset: return "headset";
        case EchoBypass::bluetooth: return "bluetooth";
        case EchoBypass::silence: return "silence";
        case EchoBypass::noSystemAudio: return "noSystemAudio";
        case EchoBypass::unavailable: return "unavailable";
        case EchoBypass::none: break;
    }
    return "";
}

EchoCancellation& EchoCancellation::shared() {
    // Never destroyed: a mixer finishing while the process ends may still report.
    static auto* made = new EchoCancellation();
    return *made;
}

EchoCancellation::EchoCancellation(OutputRouteWatcher::Factory watchers) : watchers_(std::move(watchers)) {}

EchoCancellation::~EchoCancellation() {
    std::unique_ptr<OutputRouteWatcher> watcher;
    {
        std::lock_guard guard(lock_);
        watcher = std::move(watcher_);
    }
    if (watcher) watcher->stop();
}

void EchoCancellation::setEnabled(bool enabled) {
    std::lock_guard guard(lock_);
    if (enabled_ == enabled) return;
    enabled_ = enabled;
    logger_.info(enabled ? "echo cancellation switched on" : "echo cancellation switched off");
}

bool EchoCancellation::enabled() const {
    std::lock_guard guard(lock_);
    return enabled_;
}

void EchoCancellation::attach() {
    std::unique_ptr<OutputRouteWatcher> made;
    {
        std::lock_guard guard(lock_);
        if (attached_++ > 0) return;
        made = watchers_ ? watchers_() : OutputRouteWatcher::make();
        // What a previous recording saw may no longer hold; the watcher reports at once.
        if (made) route_ = OutputRoute{};
    }
    if (!made) return;
    // The watcher calls back on its own thread; started outside the lock it writes through.
    made->start([this](const OutputRoute& route) { setRoute(route); });
    std::lock_guard guard(lock_);
    if (attached_ > 0 && !watcher_) {
        watcher_ = std::move(made);
        return;
    }
    // Detached meanwhile: the watcher is not wanted any more.
    made->stop();
}

void EchoCancellation::detach() {
    std::unique_ptr<OutputRouteWatcher> watcher;
    {
        std::lock_guard guard(lock_);
        if (attached_ == 0 || --attached_ > 0) return;
        watcher = std::move(watcher_);
        state_ = EchoState::idle;
        reason_ = EchoBypass::none;
        erleDb_.reset();
        delayMs_.reset();
    }
    if (watcher) watcher->stop();
}

OutputRoute EchoCancellation::route() const {
    std::lock_guard guard(lock_);
    return route_;
}

void EchoCancellation::setRoute(const OutputRoute& route) {
    std::lock_guard guard(lock_);
    if (route == route_) return;
    route_ = route;
    logger_.info(std::string("default output ") + (route.device.empty() ? "unknown" : route.device) +
                 (route.port.empty() ? "" : " (port " + route.port + ")") + ": " + outputKindName(route.kind));
}

void EchoCancellation::report(EchoState state, EchoBypass reason, std::optional<double> erleDb, std::optional<int> delayMs) {
    std::lock_guard guard(lock_);
    if (erleDb) erleDb_ = erleDb;
    if (delayMs) delayMs_ = delayMs;
    if (state == state_ && reason == reason_) return;
    state_ = state;
    reason_ = reason;
    std::string line = std::string("echo cancellation ") + echoStateName(state);
    if (state == EchoState::bypassed) line += std::string(": ") + echoBypassName(reason);
    if (!route_.device.empty()) line += " (output " + route_.device + ")";
    logger_.info(line);
}

EchoCancelStatus EchoCancellation::status() const {
    std::lock_guard guard(lock_);
    EchoCancelStatus s;
    s.enabled = enabled_;
    s.state = attached_ > 0 ? state_ : EchoState::idle;
    s.reason = attached_ > 0 ? reason_ : EchoBypass::none;
    s.output = route_;
    s.erleDb = erleDb_;
    s.delayMs = delayMs_;
    return s;
}

}  // namespace vell::audio
