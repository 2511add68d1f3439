#pragma once
// What the computer plays, captured from the monitor of the default output (sink). When the
// default output changes, the tap follows it to the new monitor; when the sound server goes
// away (a restart, a crash), the tap keeps trying to reconnect every second until it is
// stopped. An idle output delivers exact zeros: digital silence (see DigitalSilenceTracker).
//
// A monitor carries everything the output plays, this program's own sound included. While
// this program plays on the output itself (a playback stream whose process id is ours, as
// libpulse sets it), the tap records each of the output's other playback streams on its own
// (a monitor stream per sink input) and sums them, so Vell's own sound stays out.
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

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
    // Whether this program's own playback is being left out right now.
    bool excludingOwnPlayback() const;

private:
    class InputSum;
    void plan();
    void openOn(const std::string& monitor);
    void openExcludingOwn(const std::string& monitor, const std::vector<uint32_t>& inputs);
    void listen(uint64_t generation);
    void followDefault(uint64_t generation, bool retrying = false);
    void reconnect(uint64_t generation);
    void closeStream();

    log::Logger logger_{"SystemAudioTap"};
    mutable std::mutex mutex_;
    std::unique_ptr<SerialQueue> queue_;
    std::unique_ptr<pulse::Connection> connection_;
    std::unique_ptr<pulse::RecordStream> stream_;            // the whole output's monitor
    std::vector<std::unique_ptr<pulse::RecordStream>> inputStreams_;  // or its other streams
    std::shared_ptr<InputSum> sum_;
    std::optional<std::vector<uint32_t>> recordedInputs_;    // present while leaving ours out
    BufferHandler handler_;
    std::string monitor_;
    TimerHandle retry_;
    bool serverLost_ = false;  // logged once per outage
    std::atomic<bool> running_{false};
    std::shared_ptr<std::atomic<uint64_t>> generation_;
};

}  // namespace vell::audio
