#pragma once
// What the computer plays, captured from the monitor of the default output (sink). When the
// default output changes, the tap follows it to the new monitor; when the sound server goes
// away (a restart, a crash), the tap keeps trying to reconnect every second until it is
// stopped. An idle output delivers exact zeros: digital silence (see DigitalSilenceTracker).
//
// Unlike a process tap, a monitor also carries what this application plays itself; Vell
// plays nothing while it records, so the difference does not show.
#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "audio/ports.h"
#include "base/executor.h"
#include "base/log.h"

namespace vell {
class SerialQueue;
}
namespace vell::pulse {
class Connection;
class RecordStream;
}  // namespace vell::pulse

namespace vell::audio {

class SystemAudioTap final : public SystemAudioSource {
public:
    SystemAudioTap();
    ~SystemAudioTap() override;

    // Throws CoreAudioError naming the failed call; leaves nothing open on failure.
    // Does nothing while running.
    void start(BufferHandler handler) override;
    void stop() override;  // idempotent
    bool isRunning() const override { return running_; }

    // The monitor being recorded and its format (empty / 0 while stopped).
    std::string monitorName() const;
    double sampleRate() const;
    int channelCount() const;

private:
    void openOn(const std::string& monitor);
    void listen(uint64_t generation);
    void followDefault(uint64_t generation, bool retrying = false);
    void reconnect(uint64_t generation);
    void closeStream();

    log::Logger logger_{"SystemAudioTap"};
    mutable std::mutex mutex_;
    std::unique_ptr<SerialQueue> queue_;
    std::unique_ptr<pulse::Connection> connection_;
    std::unique_ptr<pulse::RecordStream> stream_;
    BufferHandler handler_;
    std::string monitor_;
    TimerHandle retry_;
    bool serverLost_ = false;  // logged once per outage
    std::atomic<bool> running_{false};
    std::shared_ptr<std::atomic<uint64_t>> generation_;
};

}  // namespace vell::audio
