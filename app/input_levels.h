#pragma once
// Peak levels of the two inputs of a recording (microphone and system audio) since they
// were last taken, for the displays of the front ends. The composition root puts a
// MeteredMixer around every recording mixer; capture threads raise the peaks, a display
// takes them on its own tick.
#include <atomic>
#include <memory>

#include "audio/ports.h"

namespace vell::app {

struct InputLevels {
    std::atomic<float> microphone{0};
    std::atomic<float> system{0};
    // The peak of this buffer, if higher than what is held.
    static void raise(std::atomic<float>& level, const audio::PcmBuffer& buffer);
};

// The process's levels (one recording at a time).
InputLevels& inputLevels();

// A recording mixer with the inputs' levels measured on the way in.
class MeteredMixer final : public audio::RecordingMixer {
public:
    MeteredMixer(std::unique_ptr<audio::RecordingMixer> inner, InputLevels& levels);
    void open() override { inner_->open(); }
    std::filesystem::path outputFile() const override { return inner_->outputFile(); }
    void setSystemEnabled(bool enabled) override { inner_->setSystemEnabled(enabled); }
    void appendMicrophone(audio::PcmBufferPtr buffer) override;
    void appendSystem(audio::PcmBufferPtr buffer) override;
    void finish() override { inner_->finish(); }

private:
    std::unique_ptr<audio::RecordingMixer> inner_;
    InputLevels& levels_;
};

}  // namespace vell::app
