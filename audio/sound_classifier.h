#pragma once
// A sound classifier seen as a stream analysis: feed blocks at their frame positions, get
// one result per analysis window, each a list of labelled confidences. The speech
// detector sits on top of this; any classifier can stand behind it.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "audio/pcm_buffer.h"
#include "base/expected.h"

namespace vell::audio {

struct SoundClassification {
    std::string identifier;  // "speech", "music", ...
    double confidence = 0;   // 0...1
};

struct SoundClassificationResult {
    std::int64_t framePosition = 0;  // where the window starts, in the analyzer's frames
    double durationSeconds = 0;
    std::vector<SoundClassification> classifications;  // most confident first
};

// Receives what an analyzer produces, on the analyzer's thread.
class SoundAnalysisObserver {
public:
    virtual ~SoundAnalysisObserver() = default;
    virtual void resultProduced(const SoundClassificationResult& result) = 0;
    virtual void requestFailed(const std::string& error) = 0;
};

// One analysis stream for one input format.
class SoundStreamAnalyzer {
public:
    virtual ~SoundStreamAnalyzer() = default;
    virtual void analyze(const PcmBuffer& buffer, std::int64_t framePosition) = 0;
};

// The classifier itself ("the request"): makes analyzers for a given format.
class SoundClassifier {
public:
    virtual ~SoundClassifier() = default;
    virtual Expected<std::unique_ptr<SoundStreamAnalyzer>, std::string> makeAnalyzer(
        double sampleRate, int channels, SoundAnalysisObserver& observer) = 0;
};

// The built-in classifier: the share of voiced 10 ms frames in each window of about one
// second is the confidence of "speech". Nothing when the detector cannot be created.
std::shared_ptr<SoundClassifier> makeVoicedShareClassifier(double windowSeconds = 1.0);

// The classifier the recorder's speech detector runs, installed by the composition root at
// start-up. The factory returns the classifier or why it cannot be had; without one the
// detector has no classifier, and the recorder judges silence by meaningful audio instead.
using SpeechClassifierFactory = std::function<Expected<std::shared_ptr<SoundClassifier>, std::string>()>;
void setSpeechClassifierFactory(SpeechClassifierFactory factory);
Expected<std::shared_ptr<SoundClassifier>, std::string> makeSpeechClassifier();

}  // namespace vell::audio
