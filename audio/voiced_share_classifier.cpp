// The built-in speech classifier: WebRTC's voice detector over 16 kHz mono 10 ms frames,
// summarised per window as the share of voiced frames.
#include <algorithm>

#include "audio/resampler.h"
#include "audio/sound_classifier.h"
#include "audio/voice_activity_detector.h"

namespace vell::audio {

namespace {

constexpr int kVadRate = 16000;

class VoicedShareAnalyzer final : public SoundStreamAnalyzer {
public:
    VoicedShareAnalyzer(double inRate, std::unique_ptr<media::Resampler> resampler,
                        std::unique_ptr<media::VoiceActivityDetector> vad, int framesPerWindow,
                        SoundAnalysisObserver& observer)
        : inRate_(inRate),
          resampler_(std::move(resampler)),
          vad_(std::move(vad)),
          framesPerWindow_(framesPerWindow),
          observer_(observer) {}

    void analyze(const PcmBuffer& buffer, std::int64_t framePosition) override {
        if (failed_ || buffer.frames() == 0) return;
        if (windowVadFrames_ == 0 && pending_.empty()) windowStart_ = framePosition;
        std::vector<const float*> planes;
        for (const auto& plane : buffer.channels) planes.push_back(plane.data());
        auto converted = resampler_->convert(planes.data(), buffer.frames(), mono_);
        if (!converted) return fail(converted.error());
        pending_.insert(pending_.end(), mono_[0].begin(), mono_[0].end());

        const std::size_t frame = vad_->frameSamples();
        std::size_t used = 0;
        while (pending_.size() - used >= frame) {
            auto voiced = vad_->process(pending_.data() + used);
            if (!voiced) return fail(voiced.error());
            used += frame;
            voicedFrames_ += *voiced ? 1 : 0;
            if (++windowVadFrames_ == framesPerWindow_) {
                SoundClassificationResult result;
                result.framePosition = windowStart_;
                result.durationSeconds = double(framesPerWindow_) * 0.01;
                const double share = double(voicedFrames_) / framesPerWindow_;
                result.classifications = {{"speech", share}, {"silence", 1.0 - share}};
                std::stable_sort(result.classifications.begin(), result.classifications.end(),
                                 [](auto& a, auto& b) { return a.confidence > b.confidence; });
                windowStart_ += static_cast<std::int64_t>(result.durationSeconds * inRate_);
                windowVadFrames_ = 0;
                voicedFrames_ = 0;
                observer_.resultProduced(result);
            }
        }
        pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(used));
    }

private:
    void fail(const std::string& error) {
        failed_ = true;
        observer_.requestFailed(error);
    }

    double inRate_;
    std::unique_ptr<media::Resampler> resampler_;
    std::unique_ptr<media::VoiceActivityDetector> vad_;
    int framesPerWindow_;
    SoundAnalysisObserver& observer_;
    std::vector<std::vector<float>> mono_;
    std::vector<float> pending_;
    std::int64_t windowStart_ = 0;
    int windowVadFrames_ = 0;
    int voicedFrames_ = 0;
    bool failed_ = false;
};

class VoicedShareClassifier final : public SoundClassifier {
public:
    explicit VoicedShareClassifier(int framesPerWindow) : framesPerWindow_(framesPerWindow) {}

    Expected<std::unique_ptr<SoundStreamAnalyzer>, std::string> makeAnalyzer(double sampleRate, int channels,
                                                                             SoundAnalysisObserver& observer) override {
        auto resampler = media::Resampler::create(static_cast<int>(sampleRate), channels, kVadRate, 1);
        if (!resampler) return unexpected(resampler.error());
        auto vad = media::VoiceActivityDetector::create(kVadRate);
        if (!vad) return unexpected(vad.error());
        return std::unique_ptr<SoundStreamAnalyzer>(std::make_unique<VoicedShareAnalyzer>(
            sampleRate, std::move(*resampler), std::move(*vad), framesPerWindow_, observer));
    }

private:
    int framesPerWindow_;
};

}  // namespace

std::shared_ptr<SoundClassifier> makeVoicedShareClassifier(double windowSeconds) {
    // Probe once: a library that cannot run leaves the detector without a classifier.
    if (!media::VoiceActivityDetector::create(kVadRate)) return nullptr;
    return std::make_shared<VoicedShareClassifier>(std::max(1, static_cast<int>(windowSeconds * 100 + 0.5)));
}

}  // namespace vell::audio
