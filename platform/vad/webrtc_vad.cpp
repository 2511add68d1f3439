#include "platform/vad/webrtc_vad.h"

#include <webrtc/modules/audio_processing/include/audio_processing.h>

#include <vector>

namespace vell::media {

namespace {
// Only openWebRtcVad() makes one, so its parts stay open to it.
class WebRtcVad final : public VoiceActivityDetector {
public:
    explicit WebRtcVad(int sampleRate) : VoiceActivityDetector(sampleRate) {}
    ~WebRtcVad() override;

    Expected<bool, std::string> process(const float* frame) override;

    struct Impl;
    std::unique_ptr<Impl> impl_;
};
}  // namespace

struct WebRtcVad::Impl {
    std::unique_ptr<webrtc::AudioProcessing> apm;
    webrtc::StreamConfig config;
    std::vector<float> output;
};

Expected<std::unique_ptr<VoiceActivityDetector>, std::string> openWebRtcVad(int sampleRate) {
    if (sampleRate != 16000 && sampleRate != 48000) {
        return unexpected("voice detector: unsupported sample rate " + std::to_string(sampleRate));
    }
    std::unique_ptr<WebRtcVad> vad(new WebRtcVad(sampleRate));
    vad->impl_ = std::make_unique<WebRtcVad::Impl>();
    vad->impl_->apm.reset(webrtc::AudioProcessing::Create());
    if (!vad->impl_->apm) return unexpected(std::string("voice detector: AudioProcessing::Create failed"));
    auto* detection = vad->impl_->apm->voice_detection();
    if (detection->Enable(true) != webrtc::AudioProcessing::kNoError ||
        detection->set_likelihood(webrtc::VoiceDetection::kLowLikelihood) != webrtc::AudioProcessing::kNoError ||
        detection->set_frame_size_ms(10) != webrtc::AudioProcessing::kNoError) {
        return unexpected(std::string("voice detector: cannot enable voice detection"));
    }
    vad->impl_->config = webrtc::StreamConfig(sampleRate, 1);
    vad->impl_->output.resize(vad->frameSamples());
    return std::unique_ptr<VoiceActivityDetector>(std::move(vad));
}

WebRtcVad::~WebRtcVad() = default;

Expected<bool, std::string> WebRtcVad::process(const float* frame) {
    float* dest[1] = {impl_->output.data()};
    const float* src[1] = {frame};
    const int rc = impl_->apm->ProcessStream(src, impl_->config, impl_->config, dest);
    if (rc != webrtc::AudioProcessing::kNoError) {
        return unexpected("voice detector: ProcessStream error " + std::to_string(rc));
    }
    return impl_->apm->voice_detection()->stream_has_voice();
}

}  // namespace vell::media
