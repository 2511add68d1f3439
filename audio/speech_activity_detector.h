#pragma once
// Tells the recorder when somebody last spoke in the mixed audio, and whether that answer
// can be trusted: a classifier that failed, or that heard a full minute without producing
// a single result, must neither keep a recording alive nor stop it.
#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

#include "audio/ports.h"
#include "audio/sound_classifier.h"
#include "base/clock.h"
#include "base/serial_queue.h"

namespace vell::audio {

class SpeechActivityDetector final : public SpeechDetector, public SoundAnalysisObserver {
public:
    static constexpr std::array<std::string_view, 8> kSpeechLabels{
        "speech", "conversation", "narration_monologue", "whispering", "shout", "yell", "babble", "chatter"};
    static constexpr double kMinimumConfidence = 0.5;
    static constexpr double kTrustedSilenceSeconds = 60.0;

    // A null classifier is one that could not be created: the detector is never usable.
    explicit SpeechActivityDetector(std::shared_ptr<SoundClassifier> classifier, const Clock* clock = nullptr);
    // The installed speech classifier (or none, said in the log) and the runtime clock.
    SpeechActivityDetector();
    ~SpeechActivityDetector() override;

    void analyze(PcmBufferPtr buffer) override;  // hops to the "speech" queue
    void reset() override;
    bool usable() const override;
    std::optional<WallTime> lastSpeech() const override;
    // Whether speech was recognised since the caller last looked (it passes what it saw).
    bool newSpeechSince(std::optional<WallTime> seen) const;

    // Results and failures from the analyzer.
    void resultProduced(const SoundClassificationResult& result) override;
    void requestFailed(const std::string& error) override;

    // Returns once every block handed in so far has been analysed.
    void drain();
    std::int64_t framePosition();  // frames given to the current analyzer
    int analyzersCreated();        // how many analyzers this detector has made
    double secondsAnalyzed() const;
    long resultCount() const;

private:
    void analyzeNow(const PcmBuffer& buffer);

    mutable std::mutex lock_;
    // Guarded by lock_.
    std::optional<WallTime> lastSpeech_;
    bool failed_ = false;
    double secondsAnalyzed_ = 0;
    long resultCount_ = 0;

    const Clock& clock_;
    const std::shared_ptr<SoundClassifier> request_;
    // Touched only on queue_.
    std::unique_ptr<SoundStreamAnalyzer> analyzer_;
    std::optional<std::pair<double, int>> format_;  // sample rate, channels
    std::int64_t framePosition_ = 0;
    int analyzersCreated_ = 0;

    // Declared last so it stops (running what is queued) before the fields above go.
    SerialQueue queue_{queues::kSpeech};
};

}  // namespace vell::audio
