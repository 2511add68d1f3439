#pragma once
// The automatic call recorder's view of the process's recorder service. Main executor only.
#include "automation/call_recorder_ports.h"
#include "base/clock.h"

namespace vell::recording {
class RecorderService;
}

namespace vell::automation {

class RecorderCallControl final : public CallRecorderControl {
public:
    static constexpr double kSilentSeconds = 2.0;

    RecorderCallControl(recording::RecorderService& recorder, const Clock& clock) : recorder_(recorder), clock_(clock) {}

    bool isRecording() const override;
    std::optional<std::string> currentID() const override;
    bool isAutomaticRecording() const override;
    bool systemAudioSilent() const override;
    // The system-audio tap follows the default output by itself; nothing to refresh here.
    void refreshSystemAudio() override {}
    void startAutomatic(std::function<void(bool started)> done) override;
    void stopAutomatic() override;
    void finishByUser() override;

private:
    recording::RecorderService& recorder_;
    const Clock& clock_;
};

}  // namespace vell::automation
