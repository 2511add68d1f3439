#include "app/composition.h"

#include <mutex>

#include "recording/recorder_service.h"

namespace vell::app {

namespace {
std::mutex gLock;
std::function<std::optional<std::string>()> gAccountSource;
}  // namespace

void setAccountSource(std::function<std::optional<std::string>()> source) {
    std::lock_guard lock(gLock);
    gAccountSource = std::move(source);
}

recording::RecorderParts recorderParts() {
    recording::RecorderParts parts;
    // No audio backend is wired in yet: starts fail with a clear message, the pending list
    // and the recovery of interrupted recordings work.
    parts.accountID = []() -> std::optional<std::string> {
        std::function<std::optional<std::string>()> source;
        {
            std::lock_guard lock(gLock);
            source = gAccountSource;
        }
        return source ? source() : std::nullopt;
    };
    parts.hasServiceSession = [] { return false; };
    return parts;
}

void installComposition() { recording::RecorderService::setSharedPartsProvider(&recorderParts); }

}  // namespace vell::app
