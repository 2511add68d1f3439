#pragma once
// Signals for echo-cancellation tests: a talker (noise bursts shaped like syllables and
// phrases, never digital silence), the echo a room makes of it, and blocks of 20 ms as
// capture engines deliver them, all at the mixer's 44.1 kHz.
#include <cmath>
#include <random>
#include <vector>

#include "audio/pcm_buffer.h"

namespace vell::test {

inline constexpr double kEchoRate = 44100;
inline constexpr std::size_t kEchoBlock = 882;

inline std::vector<float> talker(double seconds, unsigned seed) {
    std::mt19937 random(seed);
    std::normal_distribution<float> noise(0.0f, 1.0f);
    const auto n = static_cast<std::size_t>(seconds * kEchoRate);
    std::vector<float> out(n);
    float lowpass = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const double t = double(i) / kEchoRate;
        const double syllable = std::pow(std::sin(M_PI * 4.0 * t), 2.0);
        const double phrase = std::fmod(t, 3.0) < 2.4 ? 1.0 : 0.02;
        lowpass = 0.7f * lowpass + 0.3f * noise(random);
        out[i] = static_cast<float>(0.25 * syllable * phrase) * lowpass;
    }
    return out;
}

// What a microphone hears of `far` through a room: 50 ms late, a few reflections, -10 dB.
inline std::vector<float> roomEcho(const std::vector<float>& far) {
    const std::size_t delay = std::size_t(0.05 * kEchoRate);
    const std::pair<std::size_t, float> taps[] = {{0, 1.0f}, {130, 0.5f}, {310, -0.3f}, {570, 0.15f}};
    std::vector<float> out(far.size(), 0.0f);
    for (std::size_t i = 0; i < far.size(); ++i) {
        for (auto [lag, gain] : taps) {
            if (i >= delay + lag) out[i] += 0.316f * gain * far[i - delay - lag];
        }
    }
    return out;
}

inline audio::PcmBufferPtr echoBlock(const std::vector<float>& signal, std::size_t at, int channels) {
    auto b = audio::PcmBuffer::make(kEchoRate, channels, kEchoBlock);
    for (auto& plane : b->channels) std::copy_n(signal.begin() + static_cast<std::ptrdiff_t>(at), kEchoBlock, plane.begin());
    return b;
}

}  // namespace vell::test
