#include "platform/silero/silero_classifier.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "audio/resampler.h"
#include "base/log.h"

#ifndef VELL_SPEECH_MODEL_BUILD_PATH
#define VELL_SPEECH_MODEL_BUILD_PATH ""
#endif

namespace vell::silero {

namespace {

// Below this level (about -70 dBFS) a window is called silence rather than background.
constexpr double kSilenceRms = 3e-4;

class SileroAnalyzer final : public audio::SoundStreamAnalyzer {
public:
    SileroAnalyzer(double inRate, std::unique_ptr<media::Resampler> resampler, std::shared_ptr<const Weights> weights,
                   audio::SoundAnalysisObserver& observer)
        : inRate_(inRate), resampler_(std::move(resampler)), stream_(std::move(weights)), observer_(observer) {}

    void analyze(const audio::PcmBuffer& buffer, std::int64_t framePosition) override {
        if (failed_ || buffer.frames() == 0) return;
        if (chunksInWindow_ == 0 && pending_.empty()) windowStart_ = framePosition;
        planes_.clear();
        for (const auto& plane : buffer.channels) planes_.push_back(plane.data());
        auto converted = resampler_->convert(planes_.data(), buffer.frames(), mono_);
        if (!converted) {
            failed_ = true;
            observer_.requestFailed(converted.error());
            return;
        }
        pending_.insert(pending_.end(), mono_[0].begin(), mono_[0].end());

        std::size_t used = 0;
        while (pending_.size() - used >= static_cast<std::size_t>(kChunkSamples)) {
            const float* chunk = pending_.data() + used;
            used += kChunkSamples;
            probabilitySum_ += stream_.process(chunk);
            for (int i = 0; i < kChunkSamples; ++i) energy_ += double(chunk[i]) * chunk[i];
            if (++chunksInWindow_ == kChunksPerWindow) emit();
        }
        pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(used));
    }

private:
    // A window's speech confidence is the mean of its chunks' probabilities: speech fills
    // most of a second it is in, while music and noise trip the network only in short bursts.
    void emit() {
        audio::SoundClassificationResult result;
        result.framePosition = windowStart_;
        result.durationSeconds = double(kChunksPerWindow * kChunkSamples) / kSampleRate;
        const double speech = probabilitySum_ / kChunksPerWindow;
        const double rms = std::sqrt(energy_ / (kChunksPerWindow * kChunkSamples));
        result.classifications = {{"speech", speech}, {rms < kSilenceRms ? "silence" : "background", 1.0 - speech}};
        if (result.classifications[1].confidence > speech) std::swap(result.classifications[0], result.classifications[1]);
        windowStart_ += static_cast<std::int64_t>(std::llround(result.durationSeconds * inRate_));
        chunksInWindow_ = 0;
        probabilitySum_ = 0;
        energy_ = 0;
        observer_.resultProduced(result);
    }

    double inRate_;
    std::unique_ptr<media::Resampler> resampler_;
    Stream stream_;
    audio::SoundAnalysisObserver& observer_;
    std::vector<const float*> planes_;
    std::vector<std::vector<float>> mono_;
    std::vector<float> pending_;
    std::int64_t windowStart_ = 0;
    int chunksInWindow_ = 0;
    double probabilitySum_ = 0;
    double energy_ = 0;
    bool failed_ = false;
};

class SileroClassifier final : public audio::SoundClassifier {
public:
    explicit SileroClassifier(std::shared_ptr<const Weights> weights) : weights_(std::move(weights)) {}

    Expected<std::unique_ptr<audio::SoundStreamAnalyzer>, std::string> makeAnalyzer(
        double sampleRate, int channels, audio::SoundAnalysisObserver& observer) override {
        auto resampler = media::Resampler::create(static_cast<int>(sampleRate), channels, kSampleRate, 1);
        if (!resampler) return unexpected(resampler.error());
        return std::unique_ptr<audio::SoundStreamAnalyzer>(
            std::make_unique<SileroAnalyzer>(sampleRate, std::move(*resampler), weights_, observer));
    }

private:
    std::shared_ptr<const Weights> weights_;
};

}  // namespace

std::vector<std::filesystem::path> modelCandidates() {
    std::vector<std::filesystem::path> paths;
    if (const char* env = std::getenv("VELL_SPEECH_MODEL"); env && *env) paths.emplace_back(env);
    std::error_code ec;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (!ec) paths.push_back(self.parent_path().parent_path() / "share" / "vell" / "silero_vad.onnx");
    if (*VELL_SPEECH_MODEL_BUILD_PATH) paths.emplace_back(VELL_SPEECH_MODEL_BUILD_PATH);
    return paths;
}

Expected<std::shared_ptr<audio::SoundClassifier>, std::string> loadSpeechClassifier() {
    std::string tried;
    for (const auto& path : modelCandidates()) {
        std::error_code ec;
        if (!std::filesystem::is_regular_file(path, ec)) {
            tried += (tried.empty() ? "" : ", ") + path.string();
            continue;
        }
        auto weights = loadWeights(path);
        if (!weights) return unexpected(weights.error());
        static const log::Logger logger("SpeechDetector");
        logger.info("speech classifier: the Silero voice-activity network from " + path.string());
        return makeSpeechClassifier(std::move(*weights));
    }
    return unexpected("no speech model (silero_vad.onnx) found; looked in " + tried);
}

std::shared_ptr<audio::SoundClassifier> makeSpeechClassifier(std::shared_ptr<const Weights> weights) {
    return std::make_shared<SileroClassifier>(std::move(weights));
}

}  // namespace vell::silero
