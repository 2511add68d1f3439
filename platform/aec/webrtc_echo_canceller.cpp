#include "platform/aec/webrtc_echo_canceller.h"

#include <webrtc/modules/audio_processing/include/audio_processing.h>

#include <vector>

namespace vell::aec {

namespace {

using webrtc::AudioProcessing;

class WebRtcEchoCanceller final : public audio::EchoCanceller {
public:
    WebRtcEchoCanceller(int sampleRate, int channels, std::unique_ptr<AudioProcessing> apm)
        : EchoCanceller(sampleRate, channels),
          apm_(std::move(apm)),
          capture_(sampleRate, channels),
          reference_(sampleRate, 1) {}

    Expected<Unit, std::string> analyzeReference(const float* frame) override {
        const float* planes[1] = {frame};
        const int rc = apm_->AnalyzeReverseStream(planes, frameSamples(), sampleRate(), AudioProcessing::kMono);
        if (rc != AudioProcessing::kNoError) return unexpected("echo canceller: reference error " + std::to_string(rc));
        return Unit{};
    }

    Expected<Unit, std::string> process(float* const* planes) override {
        // Both streams come from the mixer's alignment, not from device clocks: the offset
        // left between them is for the canceller's own delay estimation to find.
        apm_->set_stream_delay_ms(0);
        const int rc = apm_->ProcessStream(planes, capture_, capture_, planes);
        // A warning (for example a delay outside what the library expects) still cleans the frame.
        if (rc != AudioProcessing::kNoError && rc != AudioProcessing::kBadStreamParameterWarning) {
            return unexpected("echo canceller: capture error " + std::to_string(rc));
        }
        return Unit{};
    }

    Metrics metrics() const override {
        Metrics m;
        webrtc::EchoCancellation::Metrics raw{};
        auto* ec = apm_->echo_cancellation();
        if (ec->GetMetrics(&raw) == AudioProcessing::kNoError && raw.echo_return_loss_enhancement.average > -100) {
            m.erleDb = raw.echo_return_loss_enhancement.average;
        }
        int median = 0, spread = 0;
        if (ec->GetDelayMetrics(&median, &spread) == AudioProcessing::kNoError && median >= 0) m.delayMs = median;
        return m;
    }

private:
    std::unique_ptr<AudioProcessing> apm_;
    webrtc::StreamConfig capture_;
    webrtc::StreamConfig reference_;
};

}  // namespace

Expected<std::unique_ptr<audio::EchoCanceller>, std::string> openWebRtcEchoCanceller(int sampleRate, int channels) {
    if (sampleRate <= 0 || sampleRate % 100 != 0 || channels < 1 || channels > 2) {
        return unexpected("echo canceller: unsupported format " + std::to_string(sampleRate) + " Hz, " +
                          std::to_string(channels) + " channels");
    }
    webrtc::Config config;
    // The mixer aligns the streams by arrival, not by device clocks, so the delay is the
    // library's to estimate; the extended filter covers the longer tails of ordinary rooms.
    config.Set<webrtc::DelayAgnostic>(new webrtc::DelayAgnostic(true));
    config.Set<webrtc::ExtendedFilter>(new webrtc::ExtendedFilter(true));
    config.Set<webrtc::ExperimentalAgc>(new webrtc::ExperimentalAgc(false));
    std::unique_ptr<AudioProcessing> apm(AudioProcessing::Create(config));
    if (!apm) return unexpected(std::string("echo canceller: AudioProcessing::Create failed"));

    webrtc::ProcessingConfig streams;
    streams.input_stream() = webrtc::StreamConfig(sampleRate, channels);
    streams.output_stream() = webrtc::StreamConfig(sampleRate, channels);
    streams.reverse_input_stream() = webrtc::StreamConfig(sampleRate, 1);
    streams.reverse_output_stream() = webrtc::StreamConfig(sampleRate, 1);
    if (int rc = apm->Initialize(streams); rc != AudioProcessing::kNoError) {
        return unexpected("echo canceller: Initialize error " + std::to_string(rc));
    }
    auto* ec = apm->echo_cancellation();
    // Low suppression: the adaptive filter alone takes the echo down by 30 dB and more once
    // it has converged; a stronger suppressor mostly eats the near talker during double talk,
    // and a recording is listened to later, not answered live.
    if (ec->Enable(true) != AudioProcessing::kNoError ||
        ec->set_suppression_level(webrtc::EchoCancellation::kLowSuppression) != AudioProcessing::kNoError ||
        ec->enable_metrics(true) != AudioProcessing::kNoError || ec->enable_delay_logging(true) != AudioProcessing::kNoError) {
        return unexpected(std::string("echo canceller: cannot enable echo cancellation"));
    }
    return std::unique_ptr<audio::EchoCanceller>(
        std::make_unique<WebRtcEchoCanceller>(sampleRate, channels, std::move(apm)));
}

}  // namespace vell::aec
