#include "audio/speech_activity_detector.h"

#include <algorithm>

#include "base/log.h"
#include "base/runtime.h"

namespace vell::audio {

namespace {
const log::Logger& logger() {
    static const log::Logger instance("SpeechDetector");
    return instance;
}
}  // namespace

SpeechActivityDetector::SpeechActivityDetector(std::shared_ptr<SoundClassifier> classifier, const Clock* clock)
    : clock_(clock ? *clock : runtime::clock()), request_(std::move(classifier)) {}

namespace {
std::shared_ptr<SoundClassifier> installedClassifier() {
    auto classifier = makeSpeechClassifier();
    if (classifier) return *classifier;
    logger().error("Vell speech detector: " + classifier.error() +
                   "; recordings stop after 10 minutes without meaningful audio instead of without speech");
    return nullptr;
}
}  // namespace

SpeechActivityDetector::SpeechActivityDetector() : SpeechActivityDetector(installedClassifier()) {}

SpeechActivityDetector::~SpeechActivityDetector() = default;

void SpeechActivityDetector::analyze(PcmBufferPtr buffer) {
    if (!buffer || buffer->frames() == 0) return;
    queue_.post([this, buffer = std::move(buffer)] { analyzeNow(*buffer); });
}

void SpeechActivityDetector::analyzeNow(const PcmBuffer& buffer) {
    if (!request_) return;
    const std::pair<double, int> format{buffer.sampleRate, buffer.channelCount()};
    if (!analyzer_ || format_ != format) {
        analyzer_.reset();
        format_ = format;
        framePosition_ = 0;
        ++analyzersCreated_;
        auto made = request_->makeAnalyzer(buffer.sampleRate, buffer.channelCount(), *this);
        if (!made) {
            format_.reset();
            requestFailed(made.error());
            return;
        }
        analyzer_ = std::move(*made);
    }
    analyzer_->analyze(buffer, framePosition_);
    framePosition_ += static_cast<std::int64_t>(buffer.frames());
    std::lock_guard guard(lock_);
    secondsAnalyzed_ += double(buffer.frames()) / buffer.sampleRate;
}

void SpeechActivityDetector::resultProduced(const SoundClassificationResult& result) {
    std::lock_guard guard(lock_);
    ++resultCount_;
    for (const auto& c : result.classifications) {
        const bool isSpeech = std::find(kSpeechLabels.begin(), kSpeechLabels.end(), c.identifier) != kSpeechLabels.end();
        if (isSpeech && c.confidence >= kMinimumConfidence) {
            lastSpeech_ = clock_.now();
            return;
        }
    }
}

void SpeechActivityDetector::requestFailed(const std::string& error) {
    {
        std::lock_guard guard(lock_);
        failed_ = true;
    }
    logger().error("Vell speech detector: " + error);
}

void SpeechActivityDetector::reset() {
    auto clear = [this] {
        std::lock_guard guard(lock_);
        lastSpeech_.reset();
        failed_ = false;
        secondsAnalyzed_ = 0;
        resultCount_ = 0;
    };
    clear();  // a reader right after reset already sees a fresh detector
    queue_.post([this, clear] {
        analyzer_.reset();
        format_.reset();
        framePosition_ = 0;
        clear();  // and blocks of the previous recording still queued do not count
    });
}

bool SpeechActivityDetector::usable() const {
    std::lock_guard guard(lock_);
    return request_ && !failed_ && (resultCount_ >= 1 || secondsAnalyzed_ < kTrustedSilenceSeconds);
}

std::optional<WallTime> SpeechActivityDetector::lastSpeech() const {
    std::lock_guard guard(lock_);
    return lastSpeech_;
}

bool SpeechActivityDetector::newSpeechSince(std::optional<WallTime> seen) const { return lastSpeech() != seen; }

void SpeechActivityDetector::drain() { queue_.sync([] {}); }

std::int64_t SpeechActivityDetector::framePosition() {
    return queue_.syncResult([this] { return framePosition_; });
}

int SpeechActivityDetector::analyzersCreated() {
    return queue_.syncResult([this] { return analyzersCreated_; });
}

double SpeechActivityDetector::secondsAnalyzed() const {
    std::lock_guard guard(lock_);
    return secondsAnalyzed_;
}

long SpeechActivityDetector::resultCount() const {
    std::lock_guard guard(lock_);
    return resultCount_;
}

}  // namespace vell::audio
