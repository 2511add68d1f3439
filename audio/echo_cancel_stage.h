#pragma once
// The microphone's way through echo cancellation inside the realtime mixer. Owned by one
// mixer and touched only where the mixer's own state is (its queue, or the thread driving
// it). The mixer hands over each converted microphone block; at every tick the stage moves
// the microphone into the mixer's list in 10 ms frames, each cleaned against the system
// audio waiting at the same place of the mixer's alignment, so nothing is shifted in time:
// the microphone only reaches the mix in whole frames, and a frame waits until the system
// audio beside it has arrived.
//
// A stereo microphone is cleaned as its mono downmix (both sides then carry it).
//
// Bypass (the samples pass untouched): switched off by the user, no system stream, an
// output without an acoustic path (headphones, headset, Bluetooth), or system audio that
// has been digital silence for a second.
#include <array>
#include <cstddef>
#include <memory>
#include <vector>

#include "audio/echo_cancellation.h"
#include "audio/echo_canceller.h"

namespace vell::audio {

class EchoCancelStage {
public:
    using Planes = std::array<std::vector<float>, 2>;
    static constexpr double kSilenceHoldSeconds = 1.0;

    EchoCancelStage(double sampleRate, EchoCancellation& control);
    ~EchoCancelStage();
    EchoCancelStage(const EchoCancelStage&) = delete;
    EchoCancelStage& operator=(const EchoCancelStage&) = delete;

    // One converted microphone block at the mixer's rate (both planes equal when the
    // microphone has one channel).
    void appendMicrophone(const std::vector<float>& left, const std::vector<float>& right, int sourceChannels);

    enum class Flush {
        none,             // only frames whose system audio has arrived
        beyondReference,  // also frames past the system audio (it stalled or fell behind): against silence
        everything,       // the recording ends: the last partial frame too, untouched
    };
    // Moves what is ready into the mixer's microphone list, scaled by gain. `system` is the
    // mixer's list of the system stream, aligned with `mic` from their first samples.
    void advance(Planes& mic, float gain, const Planes& system, bool systemEnabled, Flush flush);

    // Microphone samples held back (not yet in the mixer's list).
    std::size_t pending() const { return held_[0].size() - consumed_; }

private:
    void passThrough(Planes& mic, float gain, std::size_t count);
    enum class Emit { raw, cleaned, towardsRaw, towardsCleaned };
    bool ensureCanceller();
    bool runCanceller(const float* reference);  // the next held frame, cleaned into work_
    void emitFrame(Planes& mic, float gain, Emit emit);

    double sampleRate_;
    std::size_t frame_;
    EchoCancellation& control_;
    Planes held_;
    std::size_t consumed_ = 0;  // samples of held_ already moved on
    int sourceChannels_ = 1;
    std::unique_ptr<EchoCanceller> canceller_;
    bool unavailable_ = false;
    std::size_t silentRun_ = 0;  // samples of exact-zero reference in a row
    bool lastEmitRaw_ = true;    // the frame before went on untouched (the first one fades in)
    std::size_t silenceHold_;
    std::size_t framesSinceMetrics_ = 0;
    EchoState lastState_ = EchoState::idle;
    EchoBypass lastReason_ = EchoBypass::none;
    std::vector<float> reference_;
    Planes work_;
};

}  // namespace vell::audio
