#include "audio/echo_cancel_stage.h"

#include <algorithm>
#include <cmath>

#include "base/log.h"

namespace vell::audio {

namespace {
const log::Logger kLog{"EchoCancel"};
constexpr std::size_t kMetricsFrames = 100;  // once a second
}  // namespace

EchoCancelStage::EchoCancelStage(double sampleRate, EchoCancellation& control)
    : sampleRate_(sampleRate),
      frame_(static_cast<std::size_t>(std::lround(sampleRate / 100))),
      control_(control),
      silenceHold_(static_cast<std::size_t>(sampleRate * kSilenceHoldSeconds)),
      reference_(frame_),
      work_{std::vector<float>(frame_), std::vector<float>(frame_)} {
    control_.attach();
}

EchoCancelStage::~EchoCancelStage() { control_.detach(); }

void EchoCancelStage::appendMicrophone(const std::vector<float>& left, const std::vector<float>& right,
                                       int sourceChannels) {
    if (consumed_ > 0 && consumed_ == held_[0].size()) {
        for (auto& plane : held_) plane.clear();
        consumed_ = 0;
    } else if (consumed_ >= 8 * frame_) {
        for (auto& plane : held_) plane.erase(plane.begin(), plane.begin() + static_cast<std::ptrdiff_t>(consumed_));
        consumed_ = 0;
    }
    held_[0].insert(held_[0].end(), left.begin(), left.end());
    held_[1].insert(held_[1].end(), right.begin(), right.end());
    sourceChannels_ = std::max(1, std::min(sourceChannels, 2));
}

void EchoCancelStage::passThrough(Planes& mic, float gain, std::size_t count) {
    for (int c = 0; c < 2; ++c) {
        const float* from = held_[c].data() + consumed_;
        auto& list = mic[c];
        const std::size_t start = list.size();
        list.resize(start + count);
        for (std::size_t i = 0; i < count; ++i) list[start + i] = from[i] * gain;
    }
    consumed_ += count;
}

bool EchoCancelStage::ensureCanceller() {
    if (unavailable_) return false;
    if (canceller_) return true;
    auto made = EchoCanceller::create(static_cast<int>(std::lround(sampleRate_)), 1);
    if (!made) {
        kLog.error("cannot cancel echo: " + made.error());
        unavailable_ = true;
        canceller_.reset();
        return false;
    }
    canceller_ = std::move(*made);
    return true;
}

bool EchoCancelStage::runCanceller(const float* reference) {
    // A stereo microphone is cleaned as its mono downmix: half the cost, and the two sides
    // of one microphone carry nothing a conversation needs.
    const float* left = held_[0].data() + consumed_;
    const float* right = held_[1].data() + consumed_;
    float* mono = work_[0].data();
    if (sourceChannels_ == 1) std::copy_n(left, frame_, mono);
    else for (std::size_t i = 0; i < frame_; ++i) mono[i] = 0.5f * (left[i] + right[i]);
    float* planes[1] = {mono};
    auto done = canceller_->analyzeReference(reference);
    if (done) done = canceller_->process(planes);
    if (done) {
        std::copy_n(mono, frame_, work_[1].data());
        return true;
    }
    kLog.error("echo cancellation stopped: " + done.error());
    unavailable_ = true;
    canceller_.reset();
    return false;
}

// Appends the next frame: the cleaned one in work_, or the held one as it came, or a
// crossfade across the frame from one to the other. The canceller's output runs a few
// milliseconds behind its input (its own filters), so switching between them at once
// would click.
void EchoCancelStage::emitFrame(Planes& mic, float gain, Emit emit) {
    for (int c = 0; c < 2; ++c) {
        const float* raw = held_[c].data() + consumed_;
        const float* clean = work_[c].data();
        auto& list = mic[c];
        const std::size_t start = list.size();
        list.resize(start + frame_);
        float* out = list.data() + start;
        switch (emit) {
            case Emit::raw:
                for (std::size_t i = 0; i < frame_; ++i) out[i] = raw[i] * gain;
                break;
            case Emit::cleaned:
                for (std::size_t i = 0; i < frame_; ++i) out[i] = clean[i] * gain;
                break;
            case Emit::towardsRaw:
            case Emit::towardsCleaned: {
                const bool toRaw = emit == Emit::towardsRaw;
                for (std::size_t i = 0; i < frame_; ++i) {
                    const float w = float(i + 1) / float(frame_);
                    const float from = toRaw ? clean[i] : raw[i], to = toRaw ? raw[i] : clean[i];
                    out[i] = (from + (to - from) * w) * gain;
                }
                break;
            }
        }
    }
    consumed_ += frame_;
}

void EchoCancelStage::advance(Planes& mic, float gain, const Planes& system, bool systemEnabled, Flush flush) {
    EchoState state = EchoState::active;
    EchoBypass reason = EchoBypass::none;
    const OutputRoute route = control_.route();
    if (!control_.enabled()) {
        state = EchoState::off;
    } else if (!systemEnabled) {
        state = EchoState::bypassed, reason = EchoBypass::noSystemAudio;
    } else if (!route.acousticPath()) {
        state = EchoState::bypassed;
        reason = route.kind == OutputKind::headphones ? EchoBypass::headphones
                 : route.kind == OutputKind::headset  ? EchoBypass::headset
                                                      : EchoBypass::bluetooth;
    } else if (unavailable_) {
        state = EchoState::bypassed, reason = EchoBypass::unavailable;
    }

    if (state != EchoState::active) {
        // Nothing to cancel against, or nothing to cancel: every sample goes on as it came.
        silentRun_ = 0;
        lastEmitRaw_ = true;
        passThrough(mic, gain, pending());
        lastState_ = state, lastReason_ = reason;
        control_.report(state, reason, std::nullopt, std::nullopt);
        return;
    }

    // Where the next held sample sits in the mixer's alignment.
    std::size_t at = mic[0].size();
    const std::size_t systemHas = std::min(system[0].size(), system[1].size());
    bool moved = false;
    while (pending() >= frame_) {
        if (systemHas < at + frame_ && flush == Flush::none) break;
        bool silent = true;
        for (std::size_t i = 0; i < frame_; ++i) {
            const std::size_t k = at + i;
            const float value = k < systemHas ? 0.5f * (system[0][k] + system[1][k]) : 0.0f;
            reference_[i] = value;
            silent = silent && value == 0.0f;
        }
        silentRun_ = silent ? silentRun_ + frame_ : 0;
        const bool bypass = silentRun_ >= silenceHold_;
        if (bypass && lastEmitRaw_) {
            emitFrame(mic, gain, Emit::raw);
        } else if (ensureCanceller() && runCanceller(reference_.data())) {
            // Leaving a bypass fades the cleaned signal in; entering one fades it out.
            emitFrame(mic, gain, bypass ? Emit::towardsRaw : lastEmitRaw_ ? Emit::towardsCleaned : Emit::cleaned);
            lastEmitRaw_ = bypass;
            ++framesSinceMetrics_;
        } else {
            emitFrame(mic, gain, Emit::raw);
            lastEmitRaw_ = true;
        }
        lastState_ = bypass ? EchoState::bypassed : unavailable_ ? EchoState::bypassed : EchoState::active;
        lastReason_ = bypass ? EchoBypass::silence : unavailable_ ? EchoBypass::unavailable : EchoBypass::none;
        at += frame_;
        moved = true;
    }
    if (flush == Flush::everything) {
        passThrough(mic, gain, pending());
        lastEmitRaw_ = true;
    }

    std::optional<double> erle;
    std::optional<int> delay;
    if (canceller_ && framesSinceMetrics_ >= kMetricsFrames) {
        framesSinceMetrics_ = 0;
        const auto metrics = canceller_->metrics();
        erle = metrics.erleDb;
        delay = metrics.delayMs;
    }
    // Until a frame went through, the stage is what it was (or about to cancel).
    if (!moved && lastState_ != EchoState::active && lastReason_ != EchoBypass::silence) {
        lastState_ = EchoState::active, lastReason_ = EchoBypass::none;
    }
    control_.report(lastState_, lastReason_, erle, delay);
}

}  // namespace vell::audio
